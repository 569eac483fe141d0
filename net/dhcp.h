// The DHCP and DNS server (dnsmasq) and the readers of the resolver and
// route files.
#ifndef HX_NET_DHCP_H
#define HX_NET_DHCP_H

struct json_object;

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

#endif
