/* Handlers of the request layer's own Parts (2.2 to 2.5). */
#ifndef HX_IPC_HANDLERS_H
#define HX_IPC_HANDLERS_H

#include "ipc/ipc.h"

struct json_object;

/* Part 2.3 */
const char *prefGet(struct json_object *arguments, struct json_object *reply_arguments, void *idle_data);
const char *prefSet(struct json_object *arguments, struct json_object *reply_arguments, void *idle_data);
/* Part 2.4 */
const char *revalidate(struct json_object *arguments, struct json_object *reply_arguments, void *deferred);
int is_system_busy(void);
/* Part 2.2: "video", "video2", "ipsec", "thumbnail" */
const char *_revalidate_noop(struct json_object *value, struct json_object *reply_arguments, void *deferred);
/* Part 2.5: "owner_chg" */
const char *_revalidate_ownerChg(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif
