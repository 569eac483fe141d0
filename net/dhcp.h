// The DHCP and DNS server (dnsmasq) and the readers of the resolver and
// route files.
#ifndef HX_NET_DHCP_H
#define HX_NET_DHCP_H

struct json_object;

struct DnsServerList {
	int count;
	char server[4][16];	// dotted quads, the 16th character always NUL
};

int dhcp_renewConf();
int dhcp_start();
int dhcp_stop();
int dhcp_restart();
// "/etc/resolv.conf": 0, or -1 when it cannot be opened (count 0 either way).
int get_DNS(DnsServerList *list);
// The first usable gatewayed route of ifname in "/proc/net/route": 0 (the
// buffer untouched without one), or -1 when the file cannot be opened.
int get_GW(const char *ifname, char gateway[16]);
const char *_revalidate_dhcp(json_object *value, json_object *reply_arguments, void *deferred);

namespace hx::net {

// The same two readers on another file (the unit tests' fixtures).
int read_dns(const char *path, DnsServerList *list);
int read_gateway(const char *path, const char *ifname, char gateway[16]);

}  // namespace hx::net

#endif
