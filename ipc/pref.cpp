#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "conf/confdb.h"
#include "core/hxassert.h"
#include "core/log.h"
#include "ipc/handlers.h"
#include "ipc/registry.h"

namespace {

using hx::json::Ptr;
using hx::conf::Record;

// What json_tokener_parse makes of the stored text, with the loop's
// tokener.  The text is read in place:
// the NUL that ends the parse is fed apart when a script stored the value
// without it.
Ptr parse_value(const datum &value)
{
	int len = static_cast<int>(strnlen(value.dptr, static_cast<size_t>(value.dsize)));
	if (Ptr plain = hx::ipc::plain_value(std::string_view(value.dptr, static_cast<size_t>(len))))
		return plain;
	json_tokener *tok = hx::json::loop_tokener();
	if (tok == nullptr)
		return nullptr;
	Ptr parsed(json_tokener_parse_ex(tok, value.dptr, len < value.dsize ? len + 1 : len));
	if (json_tokener_get_error(tok) == json_tokener_continue)
		parsed.reset(json_tokener_parse_ex(tok, "", 1));
	return json_tokener_get_error(tok) == json_tokener_success ? std::move(parsed) : nullptr;
}

// The stored values of names that parse, into confs, under one open of the
// store; false when it cannot be opened.
bool get_confs(json_object *names, json_object *confs)
{
	hx::conf::Db db = hx::conf::open_reader(hx::conf::path(hx::conf::Store::sysconf),
						  hx::conf::Reads::many);
	if (!db)
		return false;
	size_t n = json_object_array_length(names);
	for (size_t i = 0; i < n; i++) {
		const char *name = hx::json::text(json_object_array_get_idx(names, i));
		if (name == nullptr)
			continue;
		datum value = gdbm_fetch(db.get(), hx::conf::key_datum(name));
		Record owner(value.dptr);
		if (value.dptr == nullptr)
			continue;
		if (Ptr parsed = parse_value(value))
			hx::json::add_lasting(confs, name, std::move(parsed));	// the request outlives its reply
	}
	return true;
}

void get_infos(json_object *names, json_object *infos)
{
	size_t n = json_object_array_length(names);
	for (size_t i = 0; i < n; i++) {
		json_object *name = json_object_array_get_idx(names, i);
		if (const ipc_handler_entry *row = info_find(hx::json::text(name)))
			row->handler(name, infos, nullptr);
	}
}

// An empty object added to reply as name; NULL when it cannot be made.
json_object *add_object(json_object *reply, const char *name)
{
	json_object *object = json_object_new_object();
	if (object == nullptr)
		puts("json_object_new_object failed.");
	else
		json_object_object_add_ex(reply, name, object, JSON_C_OBJECT_KEY_IS_CONSTANT);
	return object;
}

// Stores each member as its JSON text; "internal error" at the first key
// that is not writable, the members before it staying written.
const char *set_confs(GDBM_FILE db, json_object *confs)
{
	json_object_object_foreach(confs, name, value) {
		if (confVerify(name) != 0) {
			gw_warnx("Set invalid sysconf key %s.\n", name);
			return "internal error";
		}
		const char *text = json_object_to_json_string(value);
		datum data{const_cast<char *>(text), static_cast<int>(strlen(text)) + 1};
		if (gdbm_store(db, hx::conf::key_datum(name), data, GDBM_REPLACE) != 0)
			gw_warnx("Item not inserted. \n");
	}
	return nullptr;
}

}  // namespace

namespace hx::ipc {

// Each json-c parse switches the locale (duplocale, newlocale, freelocale):
// once per stored value that was the larger part of a pref-get's time.
Ptr plain_value(std::string_view text)
{
	if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
		std::string_view inner = text.substr(1, text.size() - 2);
		for (unsigned char c : inner)
			if (c < 0x20 || c > 0x7e || c == '"' || c == '\\')
				return nullptr;
		return Ptr(json_object_new_string_len(inner.data(), static_cast<int>(inner.size())));
	}
	if (text == "true" || text == "false")
		return Ptr(json_object_new_boolean(text == "true"));
	std::string_view digits = text.substr(!text.empty() && text.front() == '-');
	if (digits.empty() || digits.size() > 18 || (digits.front() == '0' && digits.size() > 1))
		return nullptr;
	int64_t n = 0;
	for (char c : digits) {
		if (c < '0' || c > '9')
			return nullptr;
		n = n * 10 + (c - '0');
	}
	if (digits.front() == '0' && digits.size() < text.size())
		return nullptr;	// "-0" is left to json-c
	return Ptr(json_object_new_int64(digits.size() < text.size() ? -n : n));
}

}  // namespace hx::ipc

const char *prefGet(json_object *arguments, json_object *reply_arguments, void *idle_data)
{
	if (arguments == nullptr || reply_arguments == nullptr) {
		puts("Input parameters are NULL.");
		return "invalid arguments";
	}
	hx_assert("ipcimpl", idle_data == ((void *)0));
	if (!hx::json::is(arguments, json_type_object)) {
		puts("Unexpected json type.");
		return "invalid arguments";
	}
	json_object *confs = add_object(reply_arguments, "confs");
	if (confs == nullptr)
		return "internal error";
	json_object *names = hx::json::member(arguments, "confs");
	if (names == nullptr) {
		puts("No confs field.");
	} else if (!hx::json::is(names, json_type_array)) {
		puts("confs invalid data.");
	} else if (!get_confs(names, confs)) {
		puts("Database open failed!");
		return "Database open failed!\n";
	}
	json_object *infos = add_object(reply_arguments, "infos");
	if (infos == nullptr)
		return "internal error";
	names = hx::json::member(arguments, "infos");
	if (names == nullptr)
		puts("No info field.");
	else if (!hx::json::is(names, json_type_array))
		puts("infos invalid data.");
	else
		get_infos(names, infos);
	return nullptr;
}

const char *prefSet(json_object *arguments, json_object *, void *idle_data)
{
	if (arguments == nullptr) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	hx_assert("ipcimpl", idle_data == ((void *)0));
	if (!hx::json::is(arguments, json_type_object)) {
		puts("Unexpected json type.");
		return "invalid arguments";
	}
	json_object *confs = hx::json::member(arguments, "confs");
	if (confs == nullptr) {
		gw_warnx("prefSet: No confs field.\n");
		return "internal error";
	}
	if (!hx::json::is(confs, json_type_object)) {
		gw_warnx("confs not required type data.\n");
		return "internal error";
	}
	hx::conf::Db db = hx::conf::open_writer(hx::conf::path(hx::conf::Store::sysconf));
	if (!db) {
		gw_warnx("Database open failed!\n");
		return "internal error";
	}
	return set_confs(db.get(), confs);
}
