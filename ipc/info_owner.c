/* Part 2.5: owners. */
#include <stddef.h>

#include "ipc/handlers.h"

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
