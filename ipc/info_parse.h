// What the status items share: the common argument check, adding the
// item's member, and the pure parsers and formatters of the files and
// kernel records they read.
#ifndef HX_IPC_INFO_PARSE_H
#define HX_IPC_INFO_PARSE_H

#include <optional>
#include <string>
#include <string_view>

#include "core/json.h"

// The common check: prints "Input parameters are NULL." and returns 1 when
// the item's name or the infos object is missing, else 0.
int info_args_missing(json_object *name, json_object *infos);
// Adds text as a JSON string to infos under the item's name.
void info_add_string(json_object *infos, json_object *name, const char *text);
// Adds text as a JSON string member key of object.
void info_set_string(json_object *object, const char *key, const char *text);
// A new object added to infos under the item's name; NULL (after printing
// "json_object_new_object failed.") when it cannot be made.
json_object *info_add_object(json_object *infos, json_object *name);
// The same for an array ("json_object_new_array failed.").
json_object *info_add_array(json_object *infos, json_object *name);

namespace hx::ipc {

// The reply's "infos" object and the item's name as the client wrote it
// (a JSON string): the item's member goes under that name.
struct Item {
	json_object *infos;
	json_object *name;

	void add(json::Ptr value) const { json::add(infos, json::text(name), std::move(value)); }
	void add_string(std::string_view text) const { json::add_string(infos, json::text(name), text); }
	json_object *add_object() const { return info_add_object(infos, name); }
	json_object *add_array() const { return info_add_array(infos, name); }
};

using ItemBody = const char *(*)(const Item &item);

// The prologue of every item: the common check, then the item's body.
const char *run_item(json_object *name, json_object *infos, ItemBody body);

// An item's row in the registry.
template <ItemBody Body>
const char *item(json_object *name, json_object *infos, void *)
{
	return run_item(name, infos, Body);
}

// The three kernel load averages (16 fraction bits) as "I.DD, I.DD, I.DD",
// the decimals truncated.
std::string format_loads(const unsigned long loads[3]);
// text up to its first newline, at most 63 characters (a 64-byte field).
std::string first_line(std::string_view text);
std::string format_mac(const unsigned char mac[6]);
// An address as /proc/net/route holds it (network byte order in a host
// integer) as a dotted quad.
std::string format_addr(unsigned long addr);
// Up to four addresses of at most 15 characters, joined by ", ".
std::string join_dns(int count, const char server[][16]);

// The first five fields of a dnsmasq lease line, split at single blanks:
// nullopt when it has fewer.  clientid keeps the line's newline.
struct Lease {
	std::string_view expires, mac, ipaddr, hostname, clientid;
};
std::optional<Lease> lease_split(std::string_view line);
// end - now, with correction added to an end that lies before now; a result
// outside long is clamped.
long lease_expires(long end, long now, long correction);
// One lease line appended to array as the item's object (a short line adds
// nothing); false when no object can be made.
bool lease_line(const char *line, json_object *array);

// A line of /proc/net/route scanned with "%16s%lx%lx%lx%*s%*s%u%lx".
struct Route {
	char iface[17];
	unsigned long dest, gw, flags, mask;
	unsigned int metric;
};
std::optional<Route> route_parse(const char *line);

// A miniupnpd lease line "PROTO:EPORT:IADDR:IPORT:TIMESTAMP:DESC"; desc is
// the rest of the line (colons included) without its trailing white space.
struct Upnp {
	std::string_view proto, eport, iaddr, iport, timestamp, desc;
};
std::optional<Upnp> upnp_parse(std::string_view line);

// A busybox syslogd line "Mmm dd hh:mm:ss HOST FACILITY.PRIORITY TAG: TEXT":
// date "Mmm d" (one blank), owner the text before the first ": " ("" without
// one), content the rest without trailing white space.
struct Log {
	std::string date;
	std::string_view time, hostname, priority, owner, content;
};
std::optional<Log> log_parse(std::string_view line);

}  // namespace hx::ipc

#endif
