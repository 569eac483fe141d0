/* Part 2.4: revalidate dispatch and system-busy guard. */
#include <stdio.h>
#include <string.h>

#include <event.h>
#include <json-c/json.h>

#include "conf/confdb.h"
#include "ipc/handlers.h"
#include "ipc/registry.h"

int
is_system_busy(void)
{
	struct evbuffer *buf = evbuffer_new();
	struct json_object *status, *stage;
	int busy = 0;

	if (buf == NULL)
		return 0;
	if (rtConfGet("fwup_status", buf) == 0) {
		status = json_tokener_parse((const char *)EVBUFFER_DATA(buf));
		if (status == NULL) {
			busy = -1;
		} else {
			stage = json_object_object_get(status, "upgrade_stage");
			busy = json_object_is_type(stage, json_type_string) &&
			       strcmp(json_object_get_string(stage), "ongoing") == 0;
			json_object_put(status);
		}
	}
	evbuffer_free(buf);
	return busy;
}

const char *
revalidate(struct json_object *arguments, struct json_object *reply_arguments, void *deferred)
{
	(void)deferred;
	if (arguments == NULL || reply_arguments == NULL) {
		puts("Input parameters are NULL.");
		return "invalid arguments";
	}
	if (!json_object_is_type(arguments, json_type_object)) {
		puts("Arguments are not required type data.");
		return "invalid arguments";
	}
	json_object_object_foreach(arguments, name, value) {
		ipc_handler_entry *row = revalidate_find(name);
		const char *error;

		if (row == NULL)
			continue;
		if (is_system_busy() != 0)
			return "system busy";
		error = row->handler(value, reply_arguments, NULL);
		if (error != NULL)
			return error;
	}
	return NULL;
}
