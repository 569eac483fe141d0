/* Part 4.1: DHCP and DNS server configuration. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/target.h"
#include "net/lanwan.h"
#include "net/dhcp.h"

#define DNSMASQ_CONF  "/var/tmp/dnsmasq.conf"
#define DNSMASQ_HOSTS "/var/tmp/hosts"
#define DNSMASQ_PID   "/var/run/dnsmasq.pid"
#define DNSMASQ_START "dnsmasq -C " DNSMASQ_CONF
#define DNSMASQ_KILL  "/usr/bin/killall -9 dnsmasq"
#define RESOLV_CONF   "/etc/resolv.conf"
#define ROUTE_FILE    "/proc/net/route"
#define LINE_SIZE     512

/* The hosts file's local domain, and the hosts that iOS and Android probe for
 * connectivity: while there is no upstream they resolve at once to 0.0.0.0,
 * so the phone's check fails at once instead of waiting for a DNS time-out
 * or opening a captive-portal page, and the phone stays on the device's LAN. */
#define HOSTS_DOMAIN  "hxtravel"
#define PROBE_HOST_1  "captive.apple.com"
#define PROBE_HOST_2  "connectivitycheck.gstatic.com"

/* A setting as text: *value holds it (the caller puts it) and *text is its
 * string form.  -1 when it is missing or does not parse, and when the text
 * holds a newline, which would add a line to a generated file (DESIGN.md
 * section 8). */
static int
conf_text(enum conf_store store, const char *key, struct json_object **value,
	  const char **text)
{
	if (confGetJson(store, key, value) != 0)
		return -1;
	*text = json_object_get_string(*value);
	if (strchr(*text, '\n') != NULL) {
		json_object_put(*value);
		*value = NULL;
		return -1;
	}
	return 0;
}

/* Writes before, the text of sysconf key, after. */
static int
put_setting(FILE *fp, const char *before, const char *key, const char *after)
{
	struct json_object *value;
	const char *text;

	if (conf_text(CONF_SYSCONF, key, &value, &text) != 0)
		return -1;
	fprintf(fp, "%s%s%s", before, text, after);
	json_object_put(value);
	return 0;
}

/* Writes before, the text, after when the text of sysconf key is not empty. */
static int
put_optional(FILE *fp, const char *before, const char *key, const char *after)
{
	struct json_object *value;
	const char *text;

	if (conf_text(CONF_SYSCONF, key, &value, &text) != 0)
		return -1;
	if (text[0] != '\0')
		fprintf(fp, "%s%s%s", before, text, after);
	json_object_put(value);
	return 0;
}

static void
put_values(struct json_object **values, size_t n)
{
	size_t i;

	for (i = 0; i < n; i++)
		json_object_put(values[i]);
}

/* Lines 4 to 6: the static DNS servers before the router, the device itself
 * after it when none is set. */
static int
put_dns_router(FILE *fp)
{
	static const char *const keys[3] = {
		"dhcp_static_dns1", "dhcp_static_dns2", "dhcp_static_dns3"
	};
	struct json_object *values[4] = { NULL, NULL, NULL, NULL };
	const char *dns[3], *lan_ipaddr;
	int i, ret = -1;

	for (i = 0; i < 3; i++)
		if (conf_text(CONF_SYSCONF, keys[i], &values[i], &dns[i]) != 0)
			goto out;
	if (dns[0][0] != '\0' || dns[1][0] != '\0' || dns[2][0] != '\0') {
		fputs("dhcp-option=option:dns-server", fp);
		for (i = 0; i < 3; i++)
			if (dns[i][0] != '\0')
				fprintf(fp, ",%s", dns[i]);
		fputc('\n', fp);
	}
	if (conf_text(CONF_SYSCONF, "lan_ipaddr", &values[3], &lan_ipaddr) != 0)
		goto out;
	fprintf(fp, "dhcp-option=option:router,%s\n", lan_ipaddr);
	if (dns[0][0] == '\0' && dns[1][0] == '\0' && dns[2][0] == '\0')
		fprintf(fp, "dhcp-option=option:dns-server,%s\n", lan_ipaddr);
	ret = 0;
out:
	put_values(values, 4);
	return ret;
}

/* One "dhcp-host=" line for a list element: its "mac" member, then its
 * member ip, or "ignore" when ip is NULL. */
static int
put_host(FILE *fp, struct json_object *element, const char *ip)
{
	struct json_object *mac, *second = NULL;
	const char *mac_text, *second_text = "ignore";

	if (!json_object_object_get_ex(element, "mac", &mac) || mac == NULL ||
	    (ip != NULL && (!json_object_object_get_ex(element, ip, &second) ||
			    second == NULL))) {
		puts("json_object_array_get_idx failed.");
		return -1;
	}
	mac_text = json_object_get_string(mac);
	if (second != NULL)
		second_text = json_object_get_string(second);
	if (strchr(mac_text, '\n') != NULL || strchr(second_text, '\n') != NULL)
		return -1;
	fprintf(fp, "dhcp-host=%s,%s\n", mac_text, second_text);
	return 0;
}

/* One "dhcp-host=" line per element of the array in sysconf key. */
static int
put_hosts(FILE *fp, const char *key, const char *ip)
{
	struct json_object *list, *element;
	size_t i;
	int ret = 0;

	if (confGetJson(CONF_SYSCONF, key, &list) != 0 ||
	    !json_object_is_type(list, json_type_array)) {
		puts("json_tokener_parse failed.");
		json_object_put(list);
		return -1;
	}
	for (i = 0; ret == 0 && i < json_object_array_length(list); i++) {
		element = json_object_array_get_idx(list, i);
		if (!json_object_is_type(element, json_type_object)) {
			puts("json_object_array_get_idx failed.");
			ret = -1;
		} else {
			ret = put_host(fp, element, ip);
		}
	}
	json_object_put(list);
	return ret;
}

static int
put_conf(FILE *fp)
{
	if (put_setting(fp, "interface=", "lan_if", "\n") != 0 ||
	    put_setting(fp, "dhcp-range=", "dhcp_range_start", "") != 0 ||
	    put_setting(fp, ",", "dhcp_range_end", "") != 0 ||
	    put_setting(fp, ",", "dhcp_lease_time", "m\n") != 0 ||
	    put_setting(fp, "dhcp-option=option:netmask,", "lan_netmask", "\n") != 0 ||
	    put_dns_router(fp) != 0 ||
	    put_optional(fp, "dhcp-option=option:netbios-ns,", "dhcp_wins_server", "\n") != 0 ||
	    put_optional(fp, "expand-hosts\ndomain=", "dhcp_domain_name", "\n") != 0 ||
	    put_hosts(fp, "dhcp_staticlist", "ip") != 0 ||
	    put_hosts(fp, "dhcp_blacklist", NULL) != 0)
		return -1;
	fputs("dhcp-leasefile=/var/tmp/dnsmasq.leases\n"
	      "dhcp-authoritative\n"
	      "addn-hosts=" DNSMASQ_HOSTS "\n", fp);
	return 0;
}

/* Closes fp; -1 when ret is, or when the file could not be written. */
static int
close_file(FILE *fp, int ret)
{
	if (ferror(fp))
		ret = -1;
	if (fclose(fp) != 0)
		ret = -1;
	return ret;
}

static int
write_hosts(void)
{
	struct json_object *ip_value, *model_value = NULL;
	const char *ip, *model;
	FILE *fp = NULL;
	int ret = -1;

	if (conf_text(CONF_SYSCONF, "lan_ipaddr", &ip_value, &ip) != 0)
		return -1;
	if (conf_text(CONF_SYSINFO, "product_model", &model_value, &model) != 0)
		goto out;
	fp = fopen(DNSMASQ_HOSTS, "w");
	if (fp == NULL)
		goto out;
	fprintf(fp, "%s www.%s." HOSTS_DOMAIN "\n", ip, model);
	if (wan_get_state() != 0)
		fputs("0.0.0.0 " PROBE_HOST_1 "\n"
		      "0.0.0.0 " PROBE_HOST_2 "\n", fp);
	ret = close_file(fp, 0);
out:
	json_object_put(ip_value);
	json_object_put(model_value);
	return ret;
}

/* Writes the dnsmasq configuration, then the hosts file: 0 or -1.  A failure
 * half-way leaves the file written so far. */
int
dhcp_renewConf(void)
{
	FILE *fp = fopen(DNSMASQ_CONF, "w");

	if (fp == NULL)
		return -1;
	if (close_file(fp, put_conf(fp)) != 0)
		return -1;
	return write_hosts();
}

int
dhcp_start(void)
{
	struct json_object *value;
	int on;

	if (confGetJson(CONF_SYSCONF, "dhcp_server", &value) != 0)
		return -1;
	on = strcmp(json_object_get_string(value), "on") == 0;
	json_object_put(value);
	if (!on)
		return 0;
	if (dhcp_renewConf() != 0)
		return -1;
	puts(DNSMASQ_START);
	fflush(stdout);
	do_system(DNSMASQ_START);
	return 0;
}

int
dhcp_stop(void)
{
	do_system(DNSMASQ_KILL);
	unlink(DNSMASQ_CONF);
	unlink(DNSMASQ_HOSTS);
	unlink(DNSMASQ_PID);
	return 0;
}

int
dhcp_restart(void)
{
	dhcp_stop();
	return dhcp_start();
}

namespace {
constexpr hx::ipc::Action dhcp_actions[] = {
	{"start", hx::ipc::run<dhcp_restart>},
	{"restart", hx::ipc::run<dhcp_restart>},
	{"stop", hx::ipc::run<dhcp_stop>},
};
}  // namespace

const char *
_revalidate_dhcp(struct json_object *value, struct json_object *, void *)
{
	return hx::ipc::run_target(value, {dhcp_actions});
}

int
get_DNS_file(const char *path, DnsServerList *list)
{
	char line[LINE_SIZE];
	FILE *fp;

	list->count = 0;
	fp = fopen(path, "r");
	if (fp == NULL)
		return -1;
	while (list->count < 4 && fgets(line, sizeof(line), fp) != NULL) {
		char *slot = list->server[list->count];

		if (strstr(line, "nameserver") == NULL)
			continue;
		/* A line that does not scan still takes its slot, left empty. */
		memset(slot, 0, sizeof(list->server[0]));
		if (sscanf(line, "nameserver %15s", slot) != 1)
			slot[0] = '\0';
		slot[15] = '\0';
		list->count++;
	}
	fclose(fp);
	return 0;
}

int
get_DNS(DnsServerList *list)
{
	return get_DNS_file(RESOLV_CONF, list);
}

/* 1 when the route line is up, of interface ifname and has a gateway;
 * *gateway then holds it as read (network byte order). */
static int
route_matches(const char *line, const char *ifname, unsigned long *gateway)
{
	char name[17];
	unsigned long dest, flags, mask;
	unsigned int metric;

	if (sscanf(line, "%16s%lx%lx%lx%*s%*s%u%lx", name, &dest, gateway,
		   &flags, &metric, &mask) != 6)
		return 0;
	return (flags & 0x1) != 0 && strcmp(name, ifname) == 0 && *gateway != 0;
}

int
get_GW_file(const char *path, const char *ifname, char gateway[16])
{
	char line[LINE_SIZE], text[INET_ADDRSTRLEN];
	unsigned long gw;
	struct in_addr addr;
	FILE *fp = fopen(path, "r");

	if (fp == NULL)
		return -1;
	while (fgets(line, sizeof(line), fp) != NULL) {
		if (!route_matches(line, ifname, &gw))
			continue;
		addr.s_addr = (in_addr_t)gw;
		if (inet_ntop(AF_INET, &addr, text, sizeof(text)) != NULL)
			strlcpy(gateway, text, 16);
		break;
	}
	fclose(fp);
	return 0;
}

int
get_GW(const char *ifname, char gateway[16])
{
	return get_GW_file(ROUTE_FILE, ifname, gateway);
}
