// The items of the product, the system clock and load, the versions, the
// published run-time states and the owners; the helpers every item shares.
#include <stdio.h>
#include <sys/sysinfo.h>

#include "conf/confdb.h"
#include "core/fmt.h"
#include "core/util.h"
#include "ipc/handlers.h"
#include "ipc/info_parse.h"

int info_args_missing(json_object *name, json_object *infos)
{
	if (name != nullptr && infos != nullptr)
		return 0;
	puts("Input parameters are NULL.");
	return 1;
}

void info_add_string(json_object *infos, json_object *name, const char *text)
{
	json_object_object_add(infos, hx::json::text(name), json_object_new_string(text));
}

void info_set_string(json_object *object, const char *key, const char *text)
{
	json_object_object_add(object, key, json_object_new_string(text));
}

namespace {

json_object *add_new(json_object *infos, json_object *name, json_object *value, const char *what)
{
	if (value == nullptr)
		printf("%s failed.\n", what);
	else
		json_object_object_add(infos, hx::json::text(name), value);
	return value;
}

}  // namespace

json_object *info_add_object(json_object *infos, json_object *name)
{
	return add_new(infos, name, json_object_new_object(), "json_object_new_object");
}

json_object *info_add_array(json_object *infos, json_object *name)
{
	return add_new(infos, name, json_object_new_array(), "json_object_new_array");
}

namespace hx::ipc {

const char *run_item(json_object *name, json_object *infos, ItemBody body)
{
	if (info_args_missing(name, infos))
		return "Invalid arguments.";
	return body(Item{infos, name});
}

namespace {

using conf::Store;

// The stored value of key, parsed, under the item's name.  A missing key
// adds the empty string when missing_empty is set, else it is "ERROR" like
// one that does not parse.
const char *stored_json(const Item &item, Store store, const char *key, bool missing_empty)
{
	tl::expected<json::Ptr, conf::Error> value = conf::json(store, key);
	if (!value && (!missing_empty || value.error() != conf::Error::missing))
		return "ERROR";
	item.add(value ? std::move(*value) : json::Ptr(json_object_new_string("")));
	return nullptr;
}

// The run-time value of key as a string, its first line only when asked;
// nothing is added when the key is missing.
const char *stored_text(const Item &item, const char *key, bool first)
{
	if (std::optional<std::string> text = rtConfGet(key))
		item.add_string(first ? first_line(*text) : *text);
	return nullptr;
}

}  // namespace

// Product data is written at the factory: a missing key is an error.
const char *p_model(const Item &i)
{
	return stored_json(i, Store::sysinfo, "product_model", false);
}
const char *p_description(const Item &i)
{
	return stored_json(i, Store::sysinfo, "product_description", false);
}
const char *wl_radio(const Item &i) { return stored_json(i, Store::rtconf, "wl_radio", true); }
const char *ws_state(const Item &i) { return stored_json(i, Store::rtconf, "ws_state", true); }
const char *fwup_status(const Item &i)
{
	return stored_json(i, Store::rtconf, "fwup_status", true);
}
const char *s_osinfo(const Item &i) { return stored_text(i, "uname", false); }
const char *s_boardinfo(const Item &i) { return stored_text(i, "boardinfo", false); }
const char *s_rootfsver(const Item &i) { return stored_text(i, "rootfs.ver", true); }

const char *s_time(const Item &item)
{
	item.add_string(format("%ld", time_get()));
	return nullptr;
}

// The memory counts are the kernel's unsigned longs, printed unsigned.
const char *s_sysinfo(const Item &item)
{
	struct sysinfo si = {};
	sysinfo(&si);
	json_object *object = item.add_object();
	if (object == nullptr)
		return "ERROR";
	json::add_string(object, "uptime", format("%ld", static_cast<long>(si.uptime)));
	json::add_string(object, "loads", format_loads(si.loads));
	json::add_string(object, "totalram", format("%lu", static_cast<unsigned long>(si.totalram)));
	json::add_string(object, "freeram", format("%lu", static_cast<unsigned long>(si.freeram)));
	return nullptr;
}

// Stops at the first key that is missing or does not parse, leaving the
// members added so far.
const char *owner_list(const Item &item)
{
	static constexpr const char *ownerlist[] = {
		"active_user", "user0_name", "user0_icon", "user1_name", "user1_icon",
		"user2_name",  "user2_icon", "user3_name", "user3_icon",
	};
	json_object *object = item.add_object();
	if (object == nullptr)
		return "ERROR";
	for (const char *key : ownerlist) {
		tl::expected<json::Ptr, conf::Error> value = conf::json(Store::sysconf, key);
		if (!value)
			return "ERROR";
		json::add(object, key, std::move(*value));
	}
	return nullptr;
}

}  // namespace hx::ipc
