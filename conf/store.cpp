#include "conf/store.h"

#include <stdlib.h>
#include <string.h>

#include "core/console.h"
#include "core/fmt.h"

namespace hx::conf {

namespace {

// No data at all is refused as the store refuses a record.
int store(const char *path, const char *key, const char *data, size_t size)
{
	Db db = open_writer(path);
	if (!db)
		return -1;
	datum value{const_cast<char *>(data), static_cast<int>(size)};
	if (data == nullptr || gdbm_store(db.get(), key_datum(key), value, GDBM_REPLACE) != 0) {
		gw_console("_confSet: Item '%s' not inserted. \n", key);
		return -1;
	}
	return 0;
}

}  // namespace

const char *path(Store store)
{
	static constexpr const char *env[] = {"DB_FILE", "RT_DB_FILE", "INFO_DB_FILE"};
	static constexpr const char *file[] = {"/mnt/rwdata/sysconf.gdbm", "/var/run/rtconf.gdbm",
					       "/mnt/rwdata/sysinfo.gdbm"};
	const char *set = getenv(env[static_cast<size_t>(store)]);
	return set != nullptr ? set : file[static_cast<size_t>(store)];
}

Db open_reader(const char *path, Reads reads)
{
	int flags = GDBM_READER | (reads == Reads::many ? 0 : GDBM_NOMMAP);
	return Db(gdbm_open(path, 0, flags, 0664, nullptr));
}
Db open_writer(const char *path) { return Db(gdbm_open(path, 0, GDBM_WRCREAT | GDBM_NOMMAP, 0664, nullptr)); }

std::optional<std::string> get(const char *path, const char *key)
{
	Db db = open_reader(path);
	datum value = db ? gdbm_fetch(db.get(), key_datum(key)) : datum{nullptr, 0};
	Record record(value.dptr);
	if (value.dptr == nullptr || value.dsize <= 0 || value.dptr[0] == '\0')
		return std::nullopt;
	return std::string(value.dptr, strnlen(value.dptr, static_cast<size_t>(value.dsize)));
}

int set(const char *path, const char *key, std::string_view text)
{
	std::string data(text);
	return store(path, key, data.c_str(), data.size() + 1);
}

int set_bytes(const char *path, const char *key, const std::string *bytes)
{
	return bytes != nullptr ? store(path, key, bytes->data(), bytes->size()) : store(path, key, nullptr, 0);
}

std::optional<std::string> get(Store s, const char *key) { return get(path(s), key); }
int set(Store s, const char *key, std::string_view text) { return set(path(s), key, text); }
int set_bytes(Store s, const char *key, const std::string *bytes) { return set_bytes(path(s), key, bytes); }

int setf(Store s, const char *key, const char *format, ...)
{
	va_list args;
	va_start(args, format);
	std::string text = vformat(format, args);
	va_end(args);
	return set(s, key, text);
}

tl::expected<json::Ptr, Error> json(Store s, const char *key)
{
	std::optional<std::string> value = get(s, key);
	json::Ptr parsed = value ? json::parse(value->c_str()) : nullptr;
	if (!parsed)
		return tl::unexpected(value ? Error::bad_json : Error::missing);
	return parsed;
}

tl::expected<std::string, Error> text(Store s, const char *key)
{
	return json(s, key).map([](const json::Ptr &value) { return std::string(json::text(value.get())); });
}

std::optional<std::string> file_text(Store s, const char *key, bool missing_empty)
{
	tl::expected<std::string, Error> value = text(s, key);
	if (!value && missing_empty && value.error() == Error::missing)
		return std::string();
	if (!value || value->find('\n') != std::string::npos)
		return std::nullopt;
	return std::move(*value);
}

}  // namespace hx::conf
