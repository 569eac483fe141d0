/* Part 2.5: owners. */
#include <stddef.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "ipc/handlers.h"
#include "ipc/info_parse.h"

static const char *const ownerlist[] = {
	"active_user", "user0_name", "user0_icon", "user1_name", "user1_icon",
	"user2_name", "user2_icon", "user3_name", "user3_icon",
};

/* Stops at the first key that is missing or does not parse, leaving the
 * members added so far. */
const char *
info_owner_list(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *object, *value;
	size_t i;

	(void)context;
	if (info_args_missing(name, infos))
		return "Invalid arguments.";
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	for (i = 0; i < sizeof(ownerlist) / sizeof(ownerlist[0]); i++) {
		if (confGetJson(CONF_SYSCONF, ownerlist[i], &value) != 0)
			return "ERROR";
		json_object_object_add(object, ownerlist[i], value);
	}
	return NULL;
}

/* Clients change owner names and icons with pref-set; no service is told. */
const char *
_revalidate_ownerChg(struct json_object *value, struct json_object *reply_arguments,
		     void *deferred)
{
	(void)value;
	(void)reply_arguments;
	(void)deferred;
	return NULL;
}
