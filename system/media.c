/* placeholder, being written */
#include "system/system.h"

const char *_revalidate_webdav(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_dlna(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_samba(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_fm(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
const char *_revalidate_usbCharger(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{ (void)value; (void)reply_arguments; (void)deferred; return "internal error"; }
