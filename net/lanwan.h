// LAN and WAN control: addresses, the WAN modes and the system events.  The
// WAN owns the station's flow: it connects and disconnects the station, and
// the station reports back through the link that lanwan_init installs.
#ifndef HX_NET_LANWAN_H
#define HX_NET_LANWAN_H

struct json_object;

// 0 up, 2 connecting (the DHCP client runs), 1 down or no station type,
// -1 when a setting cannot be read.
int wan_get_state();
unsigned long wan_get_uptime();
int lan_set();
int wan_start();
int wan_stop();
int wan_restart();
int wan_service_start();
int wan_service_stop();
int wan_auto();
int wan_auto_retry_handler();
int check_wifi_ap_status();
int check_wifi_fw_version();
int ctrl_interface(const char *ifname, int up);
int sys_event_handler(const char *event, const char *arg);
int dlna_restart();
const char *_revalidate_wan(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_lan(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_sysEvent(json_object *value, json_object *reply_arguments, void *deferred);

namespace hx::net {
// Gives the station the WAN's functions (once, at start-up).
void lanwan_init();
}  // namespace hx::net

#endif
