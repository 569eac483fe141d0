/* Part 2.5: status items of the network: WAN gateway and DNS servers, LAN
 * and WAN interfaces, associated stations, DHCP leases, and the four items
 * left to the implementer (s_waninfo, s_routesactive, s_upnplist, s_logs). */
#include <arpa/inet.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <event.h>
#include <json-c/json.h>

#include "conf/confdb.h"
#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/handlers.h"
#include "ipc/info_parse.h"
#include "net/net.h"
#include "wifi/wifi.h"

#define INVALID "Invalid arguments."
#define LEASES_FILE "/var/tmp/dnsmasq.leases"
#define ROUTE_FILE "/proc/net/route"
#define UPNP_LEASES_FILE "/var/tmp/upnp.leases"
#define LOG_FILE "/mnt/rwdata/tos.log"

/* ---- pure parsers ---- */

int
info_lease_split(char *line, struct info_lease *lease)
{
	char **fields[] = { &lease->expires, &lease->mac, &lease->ipaddr,
			    &lease->hostname, &lease->clientid };
	size_t i;

	for (i = 0; i < sizeof(fields) / sizeof(fields[0]); i++) {
		if (line == NULL)
			return -1;
		*fields[i] = strsep(&line, " ");
	}
	return 0;
}

long
info_lease_expires(long end, long now, long correction)
{
	long expires;

	if (end < now && __builtin_add_overflow(end, correction, &end))
		end = correction > 0 ? LONG_MAX : LONG_MIN;
	if (__builtin_sub_overflow(end, now, &expires))
		expires = end < now ? LONG_MIN : LONG_MAX;
	return expires;
}

void
info_join_dns(char *buf, size_t size, int count, const char server[][16])
{
	size_t used = 0;
	int i;

	if (size == 0)
		return;
	buf[0] = '\0';
	if (count > 4)
		count = 4;
	for (i = 0; i < count && used < size; i++) {
		int n = snprintf(buf + used, size - used, "%s%.15s", i > 0 ? ", " : "",
				 server[i]);

		if (n < 0)
			break;
		used += (size_t)n;
	}
}

int
info_route_parse(const char *line, struct info_route *route)
{
	int n = sscanf(line, "%16s%lx%lx%lx%*s%*s%u%lx", route->iface, &route->dest,
		       &route->gw, &route->flags, &route->metric, &route->mask);

	return n == 6 ? 0 : -1;
}

void
info_format_addr(char buf[16], unsigned long addr)
{
	struct in_addr in = { .s_addr = (in_addr_t)addr };

	if (inet_ntop(AF_INET, &in, buf, 16) == NULL)
		buf[0] = '\0';
}

/* The text up to the next sep, cut off there; NULL when sep is missing. */
static char *
info_field(char **rest, int sep)
{
	char *start = *rest, *end = strchr(start, sep);

	if (end == NULL)
		return NULL;
	*end = '\0';
	*rest = end + 1;
	return start;
}

/* Cuts trailing white space (the line's newline included). */
static void
info_rstrip(char *text)
{
	size_t n = strlen(text);

	while (n > 0 && strchr(" \t\r\n", text[n - 1]) != NULL)
		text[--n] = '\0';
}

int
info_upnp_parse(char *line, struct info_upnp *upnp)
{
	char **fields[] = { &upnp->proto, &upnp->eport, &upnp->iaddr, &upnp->iport,
			    &upnp->timestamp };
	size_t i;

	for (i = 0; i < sizeof(fields) / sizeof(fields[0]); i++) {
		*fields[i] = info_field(&line, ':');
		if (*fields[i] == NULL)
			return -1;
	}
	info_rstrip(line);
	upnp->desc = line;
	return 0;
}

/* "Mmm dd hh:mm:ss " as busybox syslogd writes it (ctime's, day padded
 * with a blank). */
static int
info_log_stamp(const char *line)
{
	return strlen(line) > 16 && line[3] == ' ' && line[6] == ' ' && line[9] == ':' &&
	       line[12] == ':' && line[15] == ' ';
}

int
info_log_parse(char *line, struct info_log *log)
{
	char *rest, *colon;

	if (!info_log_stamp(line))
		return -1;
	gwutil_snprintf(log->date, sizeof(log->date), "%.3s %.*s", line,
			line[4] == ' ' ? 1 : 2, line + (line[4] == ' ' ? 5 : 4));
	gwutil_snprintf(log->time, sizeof(log->time), "%.8s", line + 7);
	rest = line + 16;
	log->hostname = info_field(&rest, ' ');
	log->priority = log->hostname != NULL ? info_field(&rest, ' ') : NULL;
	if (log->priority == NULL)
		return -1;
	info_rstrip(rest);
	colon = strstr(rest, ": ");
	if (colon == NULL) {
		log->owner = rest + strlen(rest);
		log->content = rest;
	} else {
		*colon = '\0';
		log->owner = rest;
		log->content = colon + 2;
	}
	return 0;
}

/* ---- gateway, DNS, LAN ---- */

/* The raw run-time value of key into buf (with its NUL): its length, or 0
 * when it is missing. */
static size_t
info_rt_raw(const char *key, struct evbuffer *buf)
{
	return rtConfGet(key, buf) == 0 ? EVBUFFER_LENGTH(buf) : 0;
}

/* The run-time interface name key (JSON text) parsed, into *ifname; 1 when
 * the stored text (NUL included) is shorter than min_size, -1 when it does
 * not parse, else 0. */
static int
info_rt_ifname(const char *key, size_t min_size, struct json_object **ifname)
{
	struct evbuffer *buf = evbuffer_new();
	int ret = -1;

	*ifname = NULL;
	if (buf == NULL)
		return -1;
	if (info_rt_raw(key, buf) < min_size) {
		ret = 1;
	} else {
		*ifname = json_tokener_parse((const char *)EVBUFFER_DATA(buf));
		ret = *ifname != NULL ? 0 : -1;
	}
	evbuffer_free(buf);
	return ret;
}

const char *
info_s_wan_gw(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *ifname;
	char gateway[16];
	int ret;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	ret = info_rt_ifname("wan_if", 3, &ifname);
	if (ret < 0)
		return "ERROR";
	if (ret > 0) {
		info_add_string(infos, name, "N/A");
		return NULL;
	}
	memset(gateway, 0, sizeof(gateway));
	get_GW(json_object_get_string(ifname), gateway);
	gateway[sizeof(gateway) - 1] = '\0';
	info_add_string(infos, name, gateway);
	json_object_put(ifname);
	return NULL;
}

const char *
info_s_wan_dns(struct json_object *name, struct json_object *infos, void *context)
{
	DnsServerList list;
	char text[4 * 15 + 3 * 2 + 1];

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	memset(&list, 0, sizeof(list));
	if (get_DNS(&list) != 0) {
		info_add_string(infos, name, "N/A");
		return NULL;
	}
	info_join_dns(text, sizeof(text), list.count, list.server);
	info_add_string(infos, name, text);
	return NULL;
}

/* mac, ip, netmask, mtu of an interface record; without an IPv4 address,
 * ip and netmask are no_ip when that is not NULL. */
static void
info_set_ifrecord(struct json_object *object, const struct if_record *rec,
		  const char *no_ip)
{
	char text[18];
	int na = no_ip != NULL && !rec->has_ipv4;

	info_format_mac(text, rec->mac);
	info_set_string(object, "mac", text);
	info_set_string(object, "ip", na ? no_ip : rec->ip);
	info_set_string(object, "netmask", na ? no_ip : rec->netmask);
	gwutil_snprintf(text, sizeof(text), "%d", rec->mtu);
	info_set_string(object, "mtu", text);
}

/* if_fetch with its texts terminated whatever it left: its result. */
static int
info_if_fetch(const char *ifname, struct if_record *rec)
{
	int ret;

	memset(rec, 0, sizeof(*rec));
	ret = if_fetch(ifname, rec);
	rec->ip[sizeof(rec->ip) - 1] = '\0';
	rec->netmask[sizeof(rec->netmask) - 1] = '\0';
	return ret;
}

const char *
info_s_laninfo(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *object, *ifname;
	struct if_record rec;
	int ret;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	ret = info_rt_ifname("lan_if", 3, &ifname);
	if (ret != 0)
		return ret > 0 ? NULL : "ERROR";
	info_if_fetch(json_object_get_string(ifname), &rec);
	info_set_ifrecord(object, &rec, NULL);
	json_object_put(ifname);
	return NULL;
}

/* ---- stations and the line-by-line items ---- */

static struct json_object *
info_new_object(void)
{
	struct json_object *object = json_object_new_object();

	if (object == NULL)
		puts("json_object_new_object failed.");
	return object;
}

const char *
info_s_stalist(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *array, *object;
	struct wl_sta_list list;
	int i;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	array = info_add_array(infos, name);
	if (array == NULL)
		return "ERROR";
	wl_getStaList(&list);
	for (i = 0; i < list.count && i < WL_STA_MAX; i++) {
		object = info_new_object();
		if (object == NULL)
			return "ERROR";
		info_set_string(object, "mac", list.sta[i].mac);
		info_set_string(object, "rssi", list.sta[i].rssi);
		json_object_array_add(array, object);
	}
	return NULL;
}

/* Adds what one line gives to array: 0, or -1 when the item must stop. */
typedef int (*info_line_fn)(char *line, struct json_object *array, void *arg);

/* Each line of path, read with a 4096-byte buffer (a longer line is
 * several), through fn, until fn fails (-1); a file that cannot be opened
 * has no lines.  The item's array is added to infos first. */
static const char *
info_file_items(const char *path, info_line_fn fn, void *arg, struct json_object *name,
		struct json_object *infos)
{
	struct json_object *array;
	char line[4096];
	FILE *fp;
	int ret = 0;

	if (info_args_missing(name, infos))
		return INVALID;
	array = info_add_array(infos, name);
	if (array == NULL)
		return "ERROR";
	fp = fopen(path, "r");
	if (fp == NULL)
		return NULL;
	while (ret == 0 && fgets(line, sizeof(line), fp) != NULL)
		ret = fn(line, array, arg);
	fclose(fp);
	return ret == 0 ? NULL : "ERROR";
}

/* clientid keeps the line's newline: only the blank separates fields. */
int
info_lease_line(char *line, struct json_object *array, void *arg)
{
	struct json_object *object = info_new_object();
	struct info_lease lease;
	char text[24];

	(void)arg;
	if (object == NULL)
		return -1;
	if (info_lease_split(line, &lease) != 0) {
		json_object_put(object);
		return 0;
	}
	gwutil_snprintf(text, sizeof(text), "%ld",
			info_lease_expires(strtol(lease.expires, NULL, 10), time_get(), dtime));
	info_set_string(object, "expires", text);
	info_set_string(object, "mac", lease.mac);
	info_set_string(object, "ipaddr", lease.ipaddr);
	info_set_string(object, "hostname", lease.hostname);
	info_set_string(object, "clientid", lease.clientid);
	json_object_array_add(array, object);
	return 0;
}

const char *
info_s_dhcpleases(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_file_items(LEASES_FILE, info_lease_line, NULL, name, infos);
}

/* The run-time interface names that mark a route's interface. */
struct info_marks {
	char wan[16];
	char lan[16];
};

static int
info_route_line(char *line, struct json_object *array, void *arg)
{
	const struct info_marks *marks = static_cast<const struct info_marks *>(arg);
	struct info_route route;
	struct json_object *object;
	char text[32];

	if (info_route_parse(line, &route) != 0)
		return 0;
	object = info_new_object();
	if (object == NULL)
		return -1;
	info_format_addr(text, route.dest);
	info_set_string(object, "dest", text);
	info_format_addr(text, route.gw);
	info_set_string(object, "gw", text);
	info_format_addr(text, route.mask);
	info_set_string(object, "subnet", text);
	gwutil_snprintf(text, sizeof(text), "%u", route.metric);
	info_set_string(object, "metric", text);
	info_set_string(object, "default", route.dest == 0 && route.mask == 0 ? "yes" : "no");
	gwutil_snprintf(text, sizeof(text), "%s%s", route.iface,
			strcmp(route.iface, marks->wan) == 0   ? "(WAN)"
			: strcmp(route.iface, marks->lan) == 0 ? "(LAN)"
							       : "");
	info_set_string(object, "inf", text);
	json_object_array_add(array, object);
	return 0;
}

const char *
info_s_routesactive(struct json_object *name, struct json_object *infos, void *context)
{
	struct info_marks marks;

	(void)context;
	memset(&marks, 0, sizeof(marks));
	if (confGetString(CONF_RTCONF, "wan_if", marks.wan, sizeof(marks.wan)) != 0)
		marks.wan[0] = '\0';
	if (confGetString(CONF_RTCONF, "lan_if", marks.lan, sizeof(marks.lan)) != 0)
		marks.lan[0] = '\0';
	return info_file_items(ROUTE_FILE, info_route_line, &marks, name, infos);
}

static int
info_upnp_line(char *line, struct json_object *array, void *arg)
{
	struct json_object *object;
	struct info_upnp upnp;

	(void)arg;
	if (info_upnp_parse(line, &upnp) != 0)
		return 0;
	object = info_new_object();
	if (object == NULL)
		return -1;
	info_set_string(object, "proto", upnp.proto);
	info_set_string(object, "eport", upnp.eport);
	info_set_string(object, "iaddr", upnp.iaddr);
	info_set_string(object, "iport", upnp.iport);
	info_set_string(object, "desc", upnp.desc);
	json_object_array_add(array, object);
	return 0;
}

const char *
info_s_upnplist(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_file_items(UPNP_LEASES_FILE, info_upnp_line, NULL, name, infos);
}

static int
info_log_line(char *line, struct json_object *array, void *arg)
{
	struct json_object *object;
	struct info_log log;

	(void)arg;
	if (info_log_parse(line, &log) != 0)
		return 0;
	object = info_new_object();
	if (object == NULL)
		return -1;
	info_set_string(object, "date", log.date);
	info_set_string(object, "time", log.time);
	info_set_string(object, "hostname", log.hostname);
	info_set_string(object, "priority", log.priority);
	info_set_string(object, "owner", log.owner);
	info_set_string(object, "content", log.content);
	json_object_array_add(array, object);
	return 0;
}

const char *
info_s_logs(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_file_items(LOG_FILE, info_log_line, NULL, name, infos);
}

/* ---- WAN ---- */

static const char *
info_wan_state_text(int state)
{
	return state == 0 ? "Connected" : state == 2 ? "Connecting" : "Disconnected";
}

/* The interface of the run-time "wan_if", the WAN uptime while the WAN is
 * up, and the WAN state of Part 4.2; "N/A" for what is missing. */
const char *
info_s_waninfo(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *object;
	struct if_record rec;
	char ifname[16], text[24];
	unsigned long uptime;
	int state;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	if (confGetString(CONF_RTCONF, "wan_if", ifname, sizeof(ifname)) == 0 &&
	    ifname[0] != '\0' && info_if_fetch(ifname, &rec) == 0) {
		info_set_ifrecord(object, &rec, "N/A");
	} else {
		info_set_string(object, "mac", "N/A");
		info_set_string(object, "ip", "N/A");
		info_set_string(object, "netmask", "N/A");
		info_set_string(object, "mtu", "N/A");
	}
	state = wan_get_state();
	uptime = state == 0 ? wan_get_uptime() : ULONG_MAX;
	gwutil_snprintf(text, sizeof(text), "%lu", uptime);
	info_set_string(object, "wan_uptime", uptime == ULONG_MAX ? "N/A" : text);
	info_set_string(object, "state", info_wan_state_text(state));
	return NULL;
}
