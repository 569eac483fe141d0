// LAN and WAN control: addresses, the WAN modes and the system events.
#ifndef HX_NET_LANWAN_H
#define HX_NET_LANWAN_H

struct json_object;

int wan_get_state(void);
unsigned long wan_get_uptime(void);
int lan_set(void);
int wan_start(void);
int wan_stop(void);
int wan_restart(void);
int wan_service_start(void);
int wan_service_stop(void);
int wan_auto(void);
int wan_auto_retry_handler(void);
int check_wifi_ap_status(void);
int check_wifi_fw_version(void);
int ctrl_interface(const char *ifname, int up);
int sys_event_handler(const char *event, const char *arg);
int dlna_restart(void);
const char *_revalidate_wan(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_lan(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_sysEvent(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif
