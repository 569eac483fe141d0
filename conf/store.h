// The three gdbm stores: persistent settings (sysconf), run-time state
// (rtconf), product information (sysinfo).  Every access opens and closes its
// file, so scripts may use the files between requests; a writer's lock makes
// the access fail.
#ifndef HX_CONF_STORE_H
#define HX_CONF_STORE_H

#include <gdbm.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tl/expected.hpp>

#include "core/json.h"

namespace hx::conf {

enum class Store { sysconf, rtconf, sysinfo };

// The store's file: its environment override ("DB_FILE", "RT_DB_FILE",
// "INFO_DB_FILE"), read on every call, else the default path.
const char *path(Store store);

struct CloseDb {
	void operator()(GDBM_FILE db) const noexcept { gdbm_close(db); }
};
using Db = std::unique_ptr<std::remove_pointer_t<GDBM_FILE>, CloseDb>;

// How many records a reader fetches: a few are cheapest read with read(2)
// (two calls a record, no page faults); many with the file mapped once,
// which keeps a pref-get of many keys at a fixed number of system calls.
enum class Reads { few, many };

// gdbm_open with default block size and no fatal callback, as reader or as
// writer-create with mode 0664 (a writer reads and writes with read(2) and
// write(2)).  Empty when the file cannot be opened.
Db open_reader(const char *path, Reads reads = Reads::few);
Db open_writer(const char *path);

// A record gdbm hands out (malloc'ed).
using Record = Owned<char, free>;

// A key as stored: its text with the terminating NUL.
inline datum key_datum(const char *key) { return datum{const_cast<char *>(key), static_cast<int>(strlen(key)) + 1}; }

// The value of key without its NUL (bounded by its stored size): nullopt
// when the store cannot be opened, the key is absent or its value is empty.
std::optional<std::string> get(const char *path, const char *key);
std::optional<std::string> get(Store store, const char *key);

// Stores text plus a NUL under key (replace): 0, or -1 with the console
// line "_confSet: Item '<key>' not inserted. " when the store refuses.
int set(const char *path, const char *key, std::string_view text);
int set(Store store, const char *key, std::string_view text);
// Stores exactly bytes; a null pointer is refused as the store refuses a record.
int set_bytes(const char *path, const char *key, const std::string *bytes);
int set_bytes(Store store, const char *key, const std::string *bytes);
int setf(Store store, const char *key, const char *format, ...) __attribute__((format(printf, 3, 4)));

// missing: store cannot be opened, key absent or empty; bad_json: the text
// does not parse as json_tokener_parse sees it.
enum class Error { missing, bad_json };

// The value of key parsed as JSON; the literal null does not parse.
tl::expected<json::Ptr, Error> json(Store store, const char *key);
// The string form (json_object_get_string) of key's JSON value.
tl::expected<std::string, Error> text(Store store, const char *key);

// The string form of a setting written into a generated configuration file:
// nullopt when missing, unparsable, or holding a newline (a line of the
// client's in the file).  With missing_empty a missing key reads as "".
std::optional<std::string> file_text(Store store, const char *key, bool missing_empty = false);

}  // namespace hx::conf

#endif
