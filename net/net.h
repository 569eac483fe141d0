/* Subsystem 4, network services: Parts 4.1, 4.2 (the parts used so far),
 * 4.3, 4.4, and interface statistics. */
#ifndef HX_NET_NET_H
#define HX_NET_NET_H

struct json_object;

/* Part 4.1 */
typedef struct {
	int count;
	char server[4][16];
} DnsServerList;

int dhcp_renewConf(void);
int dhcp_start(void);
int dhcp_stop(void);
int dhcp_restart(void);
int get_DNS(DnsServerList *list);
int get_GW(const char *ifname, char gateway[16]);
/* The same two readers on another file than "/etc/resolv.conf" and
 * "/proc/net/route" (the unit tests' fixtures). */
int get_DNS_file(const char *path, DnsServerList *list);
int get_GW_file(const char *path, const char *ifname, char gateway[16]);
const char *_revalidate_dhcp(struct json_object *value, struct json_object *reply_arguments, void *deferred);

/* Part 4.2 (the rest comes with the Wi-Fi and WAN issue) */
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

/* Part 4.3 */
int upnp_renewConf(void);
int upnp_start(void);
int upnp_stop(void);
int upnp_restart(void);
const char *_revalidate_upnp(struct json_object *value, struct json_object *reply_arguments, void *deferred);

/* Part 4.4 */
extern long dtime;	/* forward clock jump of the last "datetime" set, >= 172801 s */
int setSystime(long seconds);
int fw_start(void);
int fw_stop(void);
int fw_restart(void);
const char *_revalidate_staticRoute(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_datetime(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_firewall(struct json_object *value, struct json_object *reply_arguments, void *deferred);

/* Interface statistics (net/ifstat.c): read with ioctl and /proc/net/dev. */
struct if_record {
	unsigned char mac[6];
	char ip[16];		/* dotted quad, "" without an IPv4 address */
	char netmask[16];
	int mtu;
	int has_ipv4;		/* 1 when the interface holds an IPv4 address */
};
/* Fills *rec (zeroed first) for the interface ifname: 0, or -1 when the
 * interface does not exist or cannot be read. */
int if_fetch(const char *ifname, struct if_record *rec);

#endif
