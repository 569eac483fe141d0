/* placeholder, being written */
#include "system/system.h"

const char *_revalidate_httpd(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
