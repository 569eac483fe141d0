/* Part 2.3: preference get and set (module "ipcimpl"). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "conf/confdb.h"
#include "core/hxassert.h"
#include "core/log.h"
#include "ipc/handlers.h"
#include "ipc/registry.h"

/* The stored text as JSON, or NULL; a value stored without its NUL is
 * bounded by its size.  What json_tokener_parse does, with the caller's
 * tokener: one tokener serves every value of a request. */
static struct json_object *
pref_parse(struct json_tokener *tok, datum value)
{
	char *text = tok != NULL ? strndup(value.dptr, (size_t)value.dsize) : NULL;
	struct json_object *parsed = NULL;

	if (text != NULL) {
		json_tokener_reset(tok);
		parsed = json_tokener_parse_ex(tok, text, -1);
		if (json_tokener_get_error(tok) != json_tokener_success) {
			json_object_put(parsed);
			parsed = NULL;
		}
	}
	free(text);
	return parsed;
}

static int
pref_get_confs(struct json_object *names, struct json_object *confs)
{
	GDBM_FILE db = confOpenReader(confStorePath(CONF_SYSCONF));
	size_t i, n = json_object_array_length(names);
	struct json_tokener *tok;

	if (db == NULL)
		return -1;
	tok = json_tokener_new();
	for (i = 0; i < n; i++) {
		const char *name = json_object_get_string(json_object_array_get_idx(names, i));
		datum key, value;
		struct json_object *parsed;

		if (name == NULL)
			continue;
		key.dptr = (char *)name;
		key.dsize = (int)strlen(name) + 1;
		value = gdbm_fetch(db, key);
		if (value.dptr == NULL)
			continue;
		parsed = pref_parse(tok, value);
		if (parsed != NULL)
			json_object_object_add(confs, name, parsed);
		free(value.dptr);
	}
	if (tok != NULL)
		json_tokener_free(tok);
	gdbm_close(db);
	return 0;
}

static void
pref_get_infos(struct json_object *names, struct json_object *infos)
{
	size_t i, n = json_object_array_length(names);

	for (i = 0; i < n; i++) {
		struct json_object *name = json_object_array_get_idx(names, i);
		ipc_handler_entry *row = info_find(json_object_get_string(name));

		if (row != NULL)
			row->handler(name, infos, NULL);
	}
}

/* Adds an empty object named name to reply; NULL when it cannot be made. */
static struct json_object *
pref_reply_object(struct json_object *reply, const char *name)
{
	struct json_object *object = json_object_new_object();

	if (object != NULL)
		json_object_object_add(reply, name, object);
	else
		puts("json_object_new_object failed.");
	return object;
}

const char *
prefGet(struct json_object *arguments, struct json_object *reply_arguments, void *idle_data)
{
	struct json_object *confs, *infos, *names;

	if (arguments == NULL || reply_arguments == NULL) {
		puts("Input parameters are NULL.");
		return "invalid arguments";
	}
	hx_assert("ipcimpl", idle_data == ((void *)0));
	if (!json_object_is_type(arguments, json_type_object)) {
		puts("Unexpected json type.");
		return "invalid arguments";
	}
	confs = pref_reply_object(reply_arguments, "confs");
	if (confs == NULL)
		return "internal error";
	names = json_object_object_get(arguments, "confs");
	if (names == NULL) {
		puts("No confs field.");
	} else if (!json_object_is_type(names, json_type_array)) {
		puts("confs invalid data.");
	} else if (pref_get_confs(names, confs) != 0) {
		puts("Database open failed!");
		return "Database open failed!\n";
	}
	infos = pref_reply_object(reply_arguments, "infos");
	if (infos == NULL)
		return "internal error";
	names = json_object_object_get(arguments, "infos");
	if (names == NULL)
		puts("No info field.");
	else if (!json_object_is_type(names, json_type_array))
		puts("infos invalid data.");
	else
		pref_get_infos(names, infos);
	return NULL;
}

/* Stores each member; "internal error" at the first key that is not
 * writable, the members before it staying written. */
static const char *
pref_set_confs(GDBM_FILE db, struct json_object *confs)
{
	json_object_object_foreach(confs, name, value) {
		const char *text = json_object_to_json_string(value);
		datum key = { name, (int)strlen(name) + 1 };
		datum data = { (char *)text, (int)strlen(text) + 1 };

		if (confVerify(name) != 0) {
			gw_warnx("Set invalid sysconf key %s.\n", name);
			return "internal error";
		}
		if (gdbm_store(db, key, data, GDBM_REPLACE) != 0)
			gw_warnx("Item not inserted. \n");
	}
	return NULL;
}

const char *
prefSet(struct json_object *arguments, struct json_object *reply_arguments, void *idle_data)
{
	struct json_object *confs;
	const char *error;
	GDBM_FILE db;

	(void)reply_arguments;
	if (arguments == NULL) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	hx_assert("ipcimpl", idle_data == ((void *)0));
	if (!json_object_is_type(arguments, json_type_object)) {
		puts("Unexpected json type.");
		return "invalid arguments";
	}
	confs = json_object_object_get(arguments, "confs");
	if (confs == NULL) {
		gw_warnx("prefSet: No confs field.\n");
		return "internal error";
	}
	if (!json_object_is_type(confs, json_type_object)) {
		gw_warnx("confs not required type data.\n");
		return "internal error";
	}
	db = confOpenWriter(confStorePath(CONF_SYSCONF));
	if (db == NULL) {
		gw_warnx("Database open failed!\n");
		return "internal error";
	}
	error = pref_set_confs(db, confs);
	gdbm_close(db);
	return error;
}
