// The request layer's own handlers: the three methods, the busy guard, the
// targets that do nothing, and the status items of the system, the network
// and the owners (their bodies; ipc/info_parse.h has the prologue).
#ifndef HX_IPC_HANDLERS_H
#define HX_IPC_HANDLERS_H

#include "ipc/info_parse.h"
#include "ipc/ipc.h"

const char *prefGet(json_object *arguments, json_object *reply_arguments, void *idle_data);
const char *prefSet(json_object *arguments, json_object *reply_arguments, void *idle_data);
const char *revalidate(json_object *arguments, json_object *reply_arguments, void *deferred);
// 1 while a firmware upgrade is under way, -1 when its status does not
// parse, else 0: anything but 0 refuses every target.
int is_system_busy();
// "video", "video2", "ipsec", "thumbnail" and "owner_chg": success, whatever
// the value.
const char *_revalidate_noop(json_object *value, json_object *reply_arguments, void *deferred);

namespace hx::ipc {

const char *p_model(const Item &item);
const char *p_description(const Item &item);
const char *s_time(const Item &item);
const char *s_sysinfo(const Item &item);
const char *s_osinfo(const Item &item);
const char *s_boardinfo(const Item &item);
const char *s_rootfsver(const Item &item);	// also "fw_version"
const char *s_waninfo(const Item &item);
const char *s_wan_dns(const Item &item);
const char *s_wan_gw(const Item &item);
const char *s_laninfo(const Item &item);
const char *s_logs(const Item &item);
const char *s_dhcpleases(const Item &item);
const char *s_stalist(const Item &item);
const char *s_routesactive(const Item &item);
const char *s_upnplist(const Item &item);
const char *wl_radio(const Item &item);
const char *ws_state(const Item &item);
const char *fwup_status(const Item &item);
const char *owner_list(const Item &item);

// The object json_tokener_parse makes of text, made without the tokener
// for a string of printable ASCII without escapes, a plain integer, true
// and false; NULL for any other text (which then goes to the tokener).
json::Ptr plain_value(std::string_view text);

}  // namespace hx::ipc

#endif
