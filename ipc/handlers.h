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
/* Part 2.5: status items (info_s_rootfsver also answers "fw_version") */
const char *info_p_model(struct json_object *name, struct json_object *infos, void *context);
const char *info_p_description(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_time(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_sysinfo(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_osinfo(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_boardinfo(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_rootfsver(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_waninfo(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_wan_dns(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_wan_gw(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_laninfo(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_logs(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_dhcpleases(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_stalist(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_routesactive(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_upnplist(struct json_object *name, struct json_object *infos, void *context);
const char *info_wl_radio(struct json_object *name, struct json_object *infos, void *context);
const char *info_ws_state(struct json_object *name, struct json_object *infos, void *context);
const char *info_fwup_status(struct json_object *name, struct json_object *infos, void *context);
const char *info_owner_list(struct json_object *name, struct json_object *infos, void *context);

#endif
