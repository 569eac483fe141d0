#include "ipc/info_parse.h"

#include <arpa/inet.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

#include "core/fmt.h"
#include "core/util.h"
#include "net/route.h"

namespace hx::ipc {

namespace {

// The text up to the next sep, and rest after it; nullopt without a sep.
std::optional<std::string_view> field(std::string_view &rest, char sep)
{
	size_t end = rest.find(sep);
	if (end == std::string_view::npos)
		return std::nullopt;
	std::string_view text = rest.substr(0, end);
	rest.remove_prefix(end + 1);
	return text;
}

std::string_view rstrip(std::string_view text)
{
	size_t end = text.find_last_not_of(" \t\r\n");
	return text.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

}  // namespace

std::string format_loads(const unsigned long loads[3])
{
	auto whole = [&](int i) { return loads[i] >> 16; };
	auto hundredths = [&](int i) { return (100 * (loads[i] & 0xFFFF)) >> 16; };
	return format("%lu.%02lu, %lu.%02lu, %lu.%02lu", whole(0), hundredths(0), whole(1),
		      hundredths(1), whole(2), hundredths(2));
}

std::string first_line(std::string_view text)
{
	return std::string(text.substr(0, std::min<size_t>(text.find('\n'), 63)));
}

std::string format_mac(const unsigned char mac[6])
{
	return format("%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
		      mac[5]);
}

std::string format_addr(unsigned long addr)
{
	in_addr in{static_cast<in_addr_t>(addr)};
	char text[INET_ADDRSTRLEN];
	return inet_ntop(AF_INET, &in, text, sizeof(text)) != nullptr ? text : "";
}

std::string join_dns(int count, const char server[][16])
{
	std::string text;
	for (int i = 0; i < count && i < 4; i++)
		text += format("%s%.15s", i > 0 ? ", " : "", server[i]);
	return text;
}

std::optional<Lease> lease_split(std::string_view line)
{
	Lease lease;
	for (std::string_view *f : {&lease.expires, &lease.mac, &lease.ipaddr, &lease.hostname}) {
		std::optional<std::string_view> text = field(line, ' ');
		if (!text)
			return std::nullopt;
		*f = *text;
	}
	lease.clientid = line.substr(0, line.find(' '));
	return lease;
}

long lease_expires(long end, long now, long correction)
{
	long expires;
	if (end < now && __builtin_add_overflow(end, correction, &end))
		end = correction > 0 ? LONG_MAX : LONG_MIN;
	if (__builtin_sub_overflow(end, now, &expires))
		expires = end < now ? LONG_MIN : LONG_MAX;
	return expires;
}

bool lease_line(const char *line, json_object *array)
{
	json::Ptr object(json_object_new_object());
	if (!object) {
		puts("json_object_new_object failed.");
		return false;
	}
	std::optional<Lease> lease = lease_split(line);
	if (!lease)
		return true;
	long end = strtol(std::string(lease->expires).c_str(), nullptr, 10);
	json_object *o = object.get();
	json::add_string(o, "expires", format("%ld", lease_expires(end, time_get(), dtime)));
	json::add_string(o, "mac", lease->mac);
	json::add_string(o, "ipaddr", lease->ipaddr);
	json::add_string(o, "hostname", lease->hostname);
	json::add_string(o, "clientid", lease->clientid);
	json_object_array_add(array, object.release());
	return true;
}

std::optional<Route> route_parse(const char *line)
{
	Route r;
	if (sscanf(line, "%16s%lx%lx%lx%*s%*s%u%lx", r.iface, &r.dest, &r.gw, &r.flags, &r.metric,
		   &r.mask) != 6)
		return std::nullopt;
	return r;
}

std::optional<Upnp> upnp_parse(std::string_view line)
{
	Upnp u;
	for (std::string_view *f : {&u.proto, &u.eport, &u.iaddr, &u.iport, &u.timestamp}) {
		std::optional<std::string_view> text = field(line, ':');
		if (!text)
			return std::nullopt;
		*f = *text;
	}
	u.desc = rstrip(line);
	return u;
}

// "Mmm dd hh:mm:ss " as busybox syslogd writes it (ctime's, the day padded
// with a blank).
std::optional<Log> log_parse(std::string_view line)
{
	if (line.size() <= 16 || line[3] != ' ' || line[6] != ' ' || line[9] != ':' ||
	    line[12] != ':' || line[15] != ' ')
		return std::nullopt;
	Log log;
	bool padded = line[4] == ' ';
	log.date = format("%.3s %.*s", line.data(), padded ? 1 : 2, line.data() + (padded ? 5 : 4));
	log.time = line.substr(7, 8);
	std::string_view rest = line.substr(16);
	std::optional<std::string_view> hostname = field(rest, ' ');
	std::optional<std::string_view> priority = hostname ? field(rest, ' ') : std::nullopt;
	if (!priority)
		return std::nullopt;
	log.hostname = *hostname;
	log.priority = *priority;
	rest = rstrip(rest);
	size_t colon = rest.find(": ");
	log.owner = colon == std::string_view::npos ? "" : rest.substr(0, colon);
	log.content = colon == std::string_view::npos ? rest : rest.substr(colon + 2);
	return log;
}

}  // namespace hx::ipc
