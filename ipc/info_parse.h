/* Part 2.5: what the status items share: the common argument check and
 * small helpers (ipc/info_sys.c), and the pure parsers and formatters of
 * the files they read (ipc/info_sys.c, ipc/info_net.c; unit-tested). */
#ifndef HX_IPC_INFO_PARSE_H
#define HX_IPC_INFO_PARSE_H

#include <stddef.h>

struct json_object;

/* The common check: prints "Input parameters are NULL." and returns 1 when
 * the item's name or the infos object is missing, else 0. */
int info_args_missing(struct json_object *name, struct json_object *infos);
/* Adds text as a JSON string to infos under the item's name. */
void info_add_string(struct json_object *infos, struct json_object *name, const char *text);
/* Adds text as a JSON string member key of object. */
void info_set_string(struct json_object *object, const char *key, const char *text);
/* A new object added to infos under the item's name; NULL (after printing
 * "json_object_new_object failed.") when it cannot be made. */
struct json_object *info_add_object(struct json_object *infos, struct json_object *name);
/* The same for an array ("json_object_new_array failed."). */
struct json_object *info_add_array(struct json_object *infos, struct json_object *name);

/* s_sysinfo: the three kernel load averages (16 fraction bits) as
 * "I.DD, I.DD, I.DD", the decimals truncated. */
void info_format_loads(char *buf, size_t size, const unsigned long loads[3]);
/* s_rootfsver: text up to its first newline into a zeroed field of size
 * bytes (at most size - 1 characters). */
void info_first_line(char *field, size_t size, const char *text);
/* "%02X:%02X:%02X:%02X:%02X:%02X" */
void info_format_mac(char buf[18], const unsigned char mac[6]);

/* s_dhcpleases: the first five fields of a lease line split in place at
 * single spaces (end time, MAC, IP, host name, client id); 0, or -1 when
 * the line has fewer than five. */
struct info_lease {
	char *expires, *mac, *ipaddr, *hostname, *clientid;
};
int info_lease_split(char *line, struct info_lease *lease);
/* One line of the lease file added to array as the item's object
 * (expires, mac, ipaddr, hostname, clientid); a short line adds nothing.
 * 0, or -1 when no object can be made (fuzz/fuzz_leases.c). */
int info_lease_line(char *line, struct json_object *array, void *arg);
/* end - now, with correction added to an end that lies before now; a
 * result outside long is clamped. */
long info_lease_expires(long end, long now, long correction);
/* s_wan_dns: up to four addresses joined by ", " (a count outside 0..4 is
 * bounded). */
void info_join_dns(char *buf, size_t size, int count, const char server[][16]);

/* s_routesactive: one line of /proc/net/route scanned with
 * "%16s%lx%lx%lx%*s%*s%u%lx"; 0 when all six fields scan, else -1. */
struct info_route {
	char iface[17];
	unsigned long dest, gw, flags, mask;
	unsigned int metric;
};
int info_route_parse(const char *line, struct info_route *route);
/* An address as read from /proc/net/route (network byte order in a host
 * integer) as a dotted quad. */
void info_format_addr(char buf[16], unsigned long addr);

/* s_upnplist: a miniupnpd lease line "PROTO:EPORT:IADDR:IPORT:TIMESTAMP:DESC"
 * split in place; desc is the rest of the line (colons included) without
 * its trailing white space.  0, or -1 when a field is missing. */
struct info_upnp {
	char *proto, *eport, *iaddr, *iport, *timestamp, *desc;
};
int info_upnp_parse(char *line, struct info_upnp *upnp);

/* s_logs: a busybox syslogd line "Mmm dd hh:mm:ss HOST FACILITY.PRIORITY
 * TAG: TEXT" split in place: date "Mmm d" (one space), time, hostname,
 * priority, owner (the text before the first ": ", "" without one) and
 * content (the rest, without the line's newline).  0, or -1 when the
 * line does not have that shape. */
struct info_log {
	char date[8];
	char time[9];
	char *hostname, *priority, *owner, *content;
};
int info_log_parse(char *line, struct info_log *log);

#endif
