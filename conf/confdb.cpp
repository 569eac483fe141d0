#include "conf/confdb.h"

#include <stdlib.h>
#include <string.h>

#include <event.h>

#include <array>
#include <map>

#include "core/console.h"

namespace {

using hx::conf::Store;

constexpr size_t index_size = 127;

// The key index: every persistent key as stored (its NUL included) and
// whether clients may write it.  std::string orders by bytes, shorter first
// on a common prefix: strcmp order for well-formed keys, and a key stored
// without its NUL is never matched by a lookup (which adds the NUL).
std::map<std::string, bool, std::less<>> key_index;

constexpr std::array<const char *, 2> sysconf_key_ro = {"product_model", "product_description"};

std::string key_bytes(const char *key)
{
	return std::string(key, strlen(key) + 1);
}

}  // namespace

int sysConfKeyAttrGet(const char *key)
{
	for (const char *ro : sysconf_key_ro)
		if (strcmp(key, ro) == 0)
			return 0;
	return 1;
}

int confIndexInit()
{
	hx::conf::Db db = hx::conf::open_reader(hx::conf::path(Store::sysconf));
	if (!db) {
		gw_console("Open sysconf.gdbm file failed.\n");
		return -1;
	}
	// Read first, insert after, as the index was always built: a store that
	// yields a key twice is refused as a whole.
	std::vector<std::string> keys;
	datum key = gdbm_firstkey(db.get());
	while (key.dptr != nullptr && keys.size() < index_size) {
		keys.emplace_back(key.dptr, static_cast<size_t>(key.dsize));
		datum next = gdbm_nextkey(db.get(), key);
		free(key.dptr);
		key = next;
	}
	free(key.dptr);
	db.reset();
	for (const std::string &k : keys) {
		// A key stored without its NUL is bounded by its size.
		std::string text(k.c_str(), strnlen(k.data(), k.size()));
		if (!key_index.emplace(k, sysConfKeyAttrGet(text.c_str()) != 0).second) {
			gw_console("Insert sysconf_gdbm rbtree with the same key value.\n");
			return -1;
		}
	}
	return 0;
}

int confVerify(const char *key)
{
	auto found = key_index.find(key_bytes(key));
	return found != key_index.end() && found->second ? 0 : -1;
}

std::optional<std::string> sysConfGet(const char *key) { return hx::conf::get(Store::sysconf, key); }
std::optional<std::string> rtConfGet(const char *key) { return hx::conf::get(Store::rtconf, key); }
std::optional<std::string> sysInfoGet(const char *key) { return hx::conf::get(Store::sysinfo, key); }
int sysConfSet(const char *key, std::string_view text) { return hx::conf::set(Store::sysconf, key, text); }
int rtConfSet(const char *key, std::string_view text) { return hx::conf::set(Store::rtconf, key, text); }

// The value travels with its NUL, and the set adds one more: the copy is a
// byte longer than its source, which no reader sees.
int sysConfCopy(const char *dst, const char *src)
{
	std::optional<std::string> value = sysConfGet(src);
	if (!value)
		return -1;
	value->push_back('\0');
	sysConfSet(dst, *value);
	return 0;
}

int sysConfSwap(const char *a, const char *b)
{
	std::optional<std::string> value_b = sysConfGet(b), value_a = sysConfGet(a);
	for (auto *v : {&value_b, &value_a})
		if (*v)
			(*v)->append(2, '\0');
	hx::conf::set_bytes(Store::sysconf, a, value_b ? &*value_b : nullptr);
	hx::conf::set_bytes(Store::sysconf, b, value_a ? &*value_a : nullptr);
	return 0;
}

// --- Transitional forms.

const char *confStorePath(enum conf_store store)
{
	return hx::conf::path(static_cast<Store>(store));
}

GDBM_FILE confOpenReader(const char *path)
{
	return hx::conf::open_reader(path).release();
}

GDBM_FILE confOpenWriter(const char *path)
{
	return hx::conf::open_writer(path).release();
}

int confGet(const char *path, const char *key, struct evbuffer *buf)
{
	std::optional<std::string> value = hx::conf::get(path, key);
	if (!value)
		return -1;
	evbuffer_add(buf, value->c_str(), value->size() + 1);
	return 0;
}

int confSetText(const char *path, const char *key, const char *text)
{
	if (text == nullptr)
		return hx::conf::set_bytes(path, key, nullptr);
	return hx::conf::set(path, key, text);
}

// A buffer that never held data is refused, as the store refuses it.
int confSet(const char *path, const char *key, struct evbuffer *buf)
{
	size_t len = EVBUFFER_LENGTH(buf);
	if (len == 0)
		return hx::conf::set_bytes(path, key, nullptr);
	std::string data(len, '\0');
	evbuffer_copyout(buf, data.data(), len);
	return hx::conf::set(path, key, data);
}

int sysConfGet(const char *key, struct evbuffer *buf) { return confGet(confStorePath(CONF_SYSCONF), key, buf); }
int rtConfGet(const char *key, struct evbuffer *buf) { return confGet(confStorePath(CONF_RTCONF), key, buf); }
int sysInfoGet(const char *key, struct evbuffer *buf) { return confGet(confStorePath(CONF_SYSINFO), key, buf); }
int sysConfSet(const char *key, struct evbuffer *buf) { return confSet(confStorePath(CONF_SYSCONF), key, buf); }
int rtConfSet(const char *key, struct evbuffer *buf) { return confSet(confStorePath(CONF_RTCONF), key, buf); }
