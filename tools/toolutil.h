// What hxctl and sysconf share.  hxctl starts on every script call and
// links json-c and libc only, so nothing here needs the C++ runtime: no
// std::string, no operator new, no exceptions.  Messages start with the
// program's name, as err.h prints it.
#ifndef HX_TOOLS_TOOLUTIL_H
#define HX_TOOLS_TOOLUTIL_H

#include <sysexits.h>

#include <optional>
#include <span>
#include <string_view>

#include "core/json.h"

namespace hx::tools {

// The words of a command line.
using Args = std::span<char *const>;

inline constexpr int usage_status = EX_USAGE;

// Prints "PROG: message" and a pointer to --help on stderr; returns
// usage_status.
int usage_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The usage error of getopt_long's ':' (missing argument) or '?' (unknown
// option), for an option string that starts with ':' and opterr 0.
int option_error(int c, char **argv);

// "PROG: out of memory", then exit status 3: hxctl's help lists it with
// the connection failures, sysconf's with the store failures.
[[noreturn]] void out_of_memory();

// p, unless it is null: a short-lived tool has nothing to clean up, and
// every caller would only pass the failure on.
template <typename T>
T *must(T *p)
{
	if (p == nullptr)
		out_of_memory();
	return p;
}

// Adds value (empty: JSON null) under key.
void add(json_object *object, const char *key, json::Ptr value);

// The value of text when the whole of it is one strict JSON value (an
// empty Ptr for null); nullopt otherwise.  NaN and Infinity, which json-c
// takes even in strict mode, are words, not JSON.
std::optional<json::Ptr> json_text(const char *text);

// The row of table named name, or nullptr.
template <typename Row, size_t N>
const Row *find(const Row (&table)[N], std::string_view name)
{
	for (const Row &row : table)
		if (row.name == name)
			return &row;
	return nullptr;
}

}  // namespace hx::tools

#endif
