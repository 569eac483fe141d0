// The items of the network: WAN gateway and DNS servers, LAN and WAN
// interfaces, associated stations, DHCP leases, routes, UPnP mappings and
// the system log.
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "conf/confdb.h"
#include "core/fmt.h"
#include "ipc/handlers.h"
#include "ipc/info_parse.h"
#include "net/net.h"
#include "wifi/wifi.h"

namespace hx::ipc {

namespace {

using conf::Store;

// The run-time interface name key (JSON text), parsed: nullopt when the
// stored text with its NUL is shorter than 3 bytes, an empty pointer when it
// does not parse.
std::optional<json::Ptr> rt_ifname(const char *key)
{
	std::optional<std::string> text = rtConfGet(key);
	if (!text || text->size() < 2)
		return std::nullopt;
	return json::parse(text->c_str());
}

// The string form of a run-time key as a 16-byte field holds it; "" when it
// is missing or does not parse.
std::string rt_text(const char *key)
{
	tl::expected<std::string, conf::Error> text = conf::text(Store::rtconf, key);
	return text ? std::string(text->c_str(), strnlen(text->c_str(), 15)) : "";
}

// if_fetch with its texts terminated whatever it left: its result.
int fetch_if(const char *ifname, if_record &rec)
{
	rec = {};
	int ret = if_fetch(ifname, &rec);
	rec.ip[sizeof(rec.ip) - 1] = '\0';
	rec.netmask[sizeof(rec.netmask) - 1] = '\0';
	return ret;
}

// mac, ip, netmask, mtu of an interface record; without an IPv4 address ip
// and netmask are no_ip when that is given.
void add_if_record(json_object *object, const if_record &rec, const char *no_ip = nullptr)
{
	bool na = no_ip != nullptr && !rec.has_ipv4;
	json::add_string(object, "mac", format_mac(rec.mac));
	json::add_string(object, "ip", na ? no_ip : rec.ip);
	json::add_string(object, "netmask", na ? no_ip : rec.netmask);
	json::add_string(object, "mtu", format("%d", rec.mtu));
}

json::Ptr new_object()
{
	json::Ptr object(json_object_new_object());
	if (!object)
		puts("json_object_new_object failed.");
	return object;
}

using Members = std::initializer_list<std::pair<const char *, std::string_view>>;

// Adds the object of each member's {key, text} to array; false when it
// cannot be made.
bool append(json_object *array, Members members)
{
	json::Ptr object = new_object();
	if (!object)
		return false;
	for (const auto &[key, text] : members)
		json::add_string(object.get(), key, text);
	json_object_array_add(array, object.release());
	return true;
}

// The item's array, added first, with what add_line makes of each line of
// path (read with a 4096-byte buffer: a longer line is several) until it
// fails; a file that cannot be opened has no lines.
template <typename F>
const char *file_items(const Item &item, const char *path, F add_line)
{
	json_object *array = item.add_array();
	if (array == nullptr)
		return "ERROR";
	FilePtr file = open_file(path, "r");
	char line[4096];
	while (file && fgets(line, sizeof(line), file.get()) != nullptr)
		if (!add_line(line, array))
			return "ERROR";
	return nullptr;
}

const char *wan_state_text(int state)
{
	return state == 0 ? "Connected" : state == 2 ? "Connecting" : "Disconnected";
}

}  // namespace

const char *s_wan_gw(const Item &item)
{
	std::optional<json::Ptr> ifname = rt_ifname("wan_if");
	if (!ifname) {
		item.add_string("N/A");
		return nullptr;
	}
	if (!*ifname)
		return "ERROR";
	char gateway[16] = {};
	get_GW(json::text(ifname->get()), gateway);
	gateway[sizeof(gateway) - 1] = '\0';
	item.add_string(gateway);
	return nullptr;
}

const char *s_wan_dns(const Item &item)
{
	DnsServerList list = {};
	item.add_string(get_DNS(&list) == 0 ? join_dns(list.count, list.server) : "N/A");
	return nullptr;
}

const char *s_laninfo(const Item &item)
{
	json_object *object = item.add_object();
	if (object == nullptr)
		return "ERROR";
	std::optional<json::Ptr> ifname = rt_ifname("lan_if");
	if (!ifname)
		return nullptr;
	if (!*ifname)
		return "ERROR";
	if_record rec;
	fetch_if(json::text(ifname->get()), rec);
	add_if_record(object, rec);
	return nullptr;
}

// The interface of the run-time "wan_if", the WAN uptime while the WAN is
// up, and the WAN state; "N/A" for what is missing.
const char *s_waninfo(const Item &item)
{
	json_object *object = item.add_object();
	if (object == nullptr)
		return "ERROR";
	std::string ifname = rt_text("wan_if");
	if_record rec;
	if (!ifname.empty() && fetch_if(ifname.c_str(), rec) == 0) {
		add_if_record(object, rec, "N/A");
	} else {
		for (const char *key : {"mac", "ip", "netmask", "mtu"})
			json::add_string(object, key, "N/A");
	}
	int state = wan_get_state();
	unsigned long uptime = state == 0 ? wan_get_uptime() : ULONG_MAX;	// ULONG_MAX: unknown
	json::add_string(object, "wan_uptime", uptime != ULONG_MAX ? format("%lu", uptime) : "N/A");
	json::add_string(object, "state", wan_state_text(state));
	return nullptr;
}

const char *s_stalist(const Item &item)
{
	json_object *array = item.add_array();
	if (array == nullptr)
		return "ERROR";
	wl_sta_list list;
	wl_getStaList(&list);
	for (int i = 0; i < list.count && i < WL_STA_MAX; i++)
		if (!append(array, {{"mac", list.sta[i].mac}, {"rssi", list.sta[i].rssi}}))
			return "ERROR";
	return nullptr;
}

const char *s_dhcpleases(const Item &item)
{
	return file_items(item, "/var/tmp/dnsmasq.leases", lease_line);
}

const char *s_routesactive(const Item &item)
{
	std::string wan = rt_text("wan_if"), lan = rt_text("lan_if");
	return file_items(item, "/proc/net/route", [&](const char *line, json_object *array) {
		std::optional<Route> r = route_parse(line);
		if (!r)
			return true;
		const char *mark = wan == r->iface ? "(WAN)" : lan == r->iface ? "(LAN)" : "";
		return append(array, {{"dest", format_addr(r->dest)},
				      {"gw", format_addr(r->gw)},
				      {"subnet", format_addr(r->mask)},
				      {"metric", format("%u", r->metric)},
				      {"default", r->dest == 0 && r->mask == 0 ? "yes" : "no"},
				      {"inf", std::string(r->iface) + mark}});
	});
}

const char *s_upnplist(const Item &item)
{
	return file_items(item, "/var/tmp/upnp.leases", [](const char *line, json_object *array) {
		std::optional<Upnp> u = upnp_parse(line);
		return !u || append(array, {{"proto", u->proto}, {"eport", u->eport}, {"iaddr", u->iaddr},
					    {"iport", u->iport}, {"desc", u->desc}});
	});
}

const char *s_logs(const Item &item)
{
	return file_items(item, "/mnt/rwdata/tos.log", [](const char *line, json_object *array) {
		std::optional<Log> l = log_parse(line);
		return !l || append(array, {{"date", l->date}, {"time", l->time},
					    {"hostname", l->hostname}, {"priority", l->priority},
					    {"owner", l->owner}, {"content", l->content}});
	});
}

}  // namespace hx::ipc
