#include "conf/confdb.h"

#include <stdlib.h>
#include <string.h>


#include <algorithm>
#include <array>
#include <map>

#include "core/console.h"

using hx::conf::Store;

// Clients may not write these keys.
static constexpr std::array<std::string_view, 2> sysconf_key_ro = {"product_model", "product_description"};

namespace {

constexpr size_t index_size = 127;	// later keys are not writable by clients

// The first persistent keys as stored (NUL included), built once at
// start-up, and whether clients may write them.  Byte order is strcmp order
// for every key stored with its NUL; one stored without is never matched.
std::map<std::string, bool, std::less<>> key_index;

}  // namespace

int sysConfKeyAttrGet(const char *key)
{
	return std::find(sysconf_key_ro.begin(), sysconf_key_ro.end(), key) == sysconf_key_ro.end() ? 1 : 0;
}

int confIndexInit()
{
	hx::conf::Db db = hx::conf::open_reader(hx::conf::path(Store::sysconf));
	if (!db) {
		gw_console("Open sysconf.gdbm file failed.\n");
		return -1;
	}
	datum key = gdbm_firstkey(db.get());
	hx::conf::Record owner(key.dptr);
	for (size_t n = 0; owner && n < index_size; n++) {
		std::string name(key.dptr, static_cast<size_t>(key.dsize));
		// c_str(): the text up to a NUL, within the key's size
		if (!key_index.emplace(name, sysConfKeyAttrGet(name.c_str()) != 0).second) {
			gw_console("Insert sysconf_gdbm rbtree with the same key value.\n");
			return -1;
		}
		key = gdbm_nextkey(db.get(), key);
		owner.reset(key.dptr);
	}
	return 0;
}

int confVerify(const char *key)
{
	auto found = key_index.find(std::string_view(key, strlen(key) + 1));
	return found != key_index.end() && found->second ? 0 : -1;
}

std::optional<std::string> sysConfGet(const char *key) { return hx::conf::get(Store::sysconf, key); }
std::optional<std::string> rtConfGet(const char *key) { return hx::conf::get(Store::rtconf, key); }
std::optional<std::string> sysInfoGet(const char *key) { return hx::conf::get(Store::sysinfo, key); }
int sysConfSet(const char *key, std::string_view text) { return hx::conf::set(Store::sysconf, key, text); }
int rtConfSet(const char *key, std::string_view text) { return hx::conf::set(Store::rtconf, key, text); }

// The value travels with its NUL and the set adds one more: the copy is a
// byte longer than its source, which no reader sees.
int sysConfCopy(const char *dst, const char *src)
{
	std::optional<std::string> value = sysConfGet(src);
	if (!value)
		return -1;
	sysConfSet(dst, value->append(1, '\0'));
	return 0;
}

// Each value travels with its NUL, and one more byte as in a copy; a missing
// value is an empty buffer, whose set the store refuses.
int sysConfSwap(const char *a, const char *b)
{
	std::optional<std::string> value_b = sysConfGet(b), value_a = sysConfGet(a);
	hx::conf::set_bytes(Store::sysconf, a, value_b ? &value_b->append(2, '\0') : nullptr);
	hx::conf::set_bytes(Store::sysconf, b, value_a ? &value_a->append(2, '\0') : nullptr);
	return 0;
}
