/* placeholder, being written */
#include "system/system.h"

const char *_revalidate_fwUpgrade(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_firmwareUpgrade(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_factoryDefault(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_reboot(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_poweroff(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
