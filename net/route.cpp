// Static routes through the route command, the system clock and time
// zone, and the firewall switch.
#include "net/route.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>

#include "conf/store.h"
#include "core/util.h"
#include "ipc/target.h"

long dtime;

namespace {

using hx::conf::Store;
namespace json = hx::json;

constexpr char internal_error[] = "internal error";

// What the actions of "staticroute" work on: the stored routes and the
// interface names, read and checked before the action is looked up.  Set
// for the length of one call, on the event-loop thread.
struct Commit {
	json_object *routes;
	std::string wan, lan;
} commit;

// A run-time interface name; it must fit a 16-byte field.
std::optional<std::string> interface_name(const char *key)
{
	auto text = hx::conf::text(Store::rtconf, key);
	if (!text || text->size() >= 16)
		return std::nullopt;
	return std::move(*text);
}

// A missing or null member is empty.
const char *member_text(json_object *route, const char *name)
{
	const char *text = json::text(json::member(route, name));
	return text != nullptr ? text : "";
}

// "/sbin/route VERB ..." for one route.  The words reach the shell
// unquoted: one that the shell would interpret, or a command longer than
// 255 characters, refuses the route.
std::optional<std::string> route_command(json_object *route, const char *verb)
{
	std::string command = "/sbin/route ";
	bool safe = true;
	auto add = [&](const char *option, const char *word, const char *end) {
		safe = safe && gwutil_shell_safe(word) != 0;
		command.append(option).append(word).append(end);
	};
	const char *gw = member_text(route, "gw");
	const char *inf = member_text(route, "inf");
	add("", verb, " ");
	add("-net ", member_text(route, "dest"), " ");
	add("netmask ", member_text(route, "subnet"), " ");
	if (gw[0] != '\0')
		add("gw ", gw, " ");
	add("metric ", member_text(route, "metric"), " ");
	if (strcmp(inf, "LAN") == 0)
		add("dev ", commit.lan.c_str(), "");
	else if (strcmp(inf, "WAN") == 0)
		add("dev ", commit.wan.c_str(), "");
	if (!safe || command.size() > 255)
		return std::nullopt;
	return command;
}

// Prints and runs the route's command: 0, or -1 when it is refused
// (nothing printed or run).
int run_route(json_object *route, const char *verb)
{
	std::optional<std::string> command = route_command(route, verb);
	if (!command)
		return -1;
	printf("cmd:%s\n", command->c_str());
	do_system(command->c_str());
	return 0;
}

// Element i of the routes, or NULL after the message.
json_object *route_at(size_t i)
{
	json_object *route = json_object_array_get_idx(commit.routes, i);
	if (route == nullptr)
		puts("json_object_array_get_idx failed.");
	else if (!json::is(route, json_type_object))
		puts("Unexpected json type.");
	else
		return route;
	return nullptr;
}

// The routes already run stay installed when one fails.
const char *commit_all(json_object *)
{
	size_t n = json_object_array_length(commit.routes);
	for (size_t i = 0; i < n; i++) {
		json_object *route = route_at(i);
		if (route == nullptr || run_route(route, "add") != 0)
			return internal_error;
	}
	return nullptr;
}

// The first route whose "id" has the request's text; a request without
// "id" matches none.
const char *commit_one(json_object *value, const char *verb)
{
	const char *id = json::text(json::member(value, "id"));
	size_t n = json_object_array_length(commit.routes);
	for (size_t i = 0; id != nullptr && i < n; i++) {
		json_object *route = route_at(i);
		if (route == nullptr)
			return internal_error;
		if (strcmp(member_text(route, "id"), id) == 0)
			return run_route(route, verb) == 0 ? nullptr : internal_error;
	}
	return nullptr;
}

const char *commit_add(json_object *value) { return commit_one(value, "add"); }
const char *commit_delete(json_object *value) { return commit_one(value, "del"); }

constexpr hx::ipc::Action route_actions[] = {
	{"commitall", commit_all},
	{"commitadd", commit_add},
	{"commitdelete", commit_delete},
};

const char *set_datetime(json_object *value)
{
	json_object *when = json::member(value, "time");
	if (when != nullptr && json_object_get_int64(when) != 0)
		setSystime(static_cast<long>(
			std::clamp<int64_t>(json_object_get_int64(when), LONG_MIN, LONG_MAX)));
	// The stored sign is POSIX's, the opposite of the user's offset.
	if (json_object *zone = json::member(value, "timezone"))
		hx::conf::setf(Store::sysconf, "timezone", "\"GMT%+lld\"",
			       -static_cast<long long>(json_object_get_int(zone)));
	return nullptr;
}

constexpr hx::ipc::Action datetime_actions[] = {{"set", set_datetime}};

void announce_firewall(const char *action)
{
	printf("action:%s\n", action);
	puts("revalidate_setFirewall");
}

constexpr hx::ipc::Action firewall_actions[] = {
	{"start", hx::ipc::run<fw_restart>},
	{"restart", hx::ipc::run<fw_restart>},
};

}  // namespace

// The stored routes are parsed only for a string action, whatever it is;
// the interfaces and the presence of the routes are checked before.
const char *_revalidate_staticRoute(json_object *value, json_object *, void *)
{
	if (const char *error = hx::ipc::check_target(value, "invalid arguments"))
		return error;
	std::optional<std::string> wan = interface_name("wan_if");
	std::optional<std::string> lan = wan ? interface_name("lan_if") : std::nullopt;
	if (!lan)
		return internal_error;
	auto routes = hx::conf::json(Store::sysconf, "routes_static");
	if (!routes && routes.error() == hx::conf::Error::missing)
		return internal_error;
	if (!json::string_member(value, "action"))
		return nullptr;
	if (!routes) {
		puts("json_tokener_parse failed.");
		return internal_error;
	}
	if (!json::is(routes->get(), json_type_array)) {
		puts("Unexpected json type.");
		return internal_error;
	}
	commit = {routes->get(), std::move(*wan), std::move(*lan)};
	const char *result = hx::ipc::run_target(value, {route_actions});
	commit = {};
	return result;
}

int setSystime(long seconds)
{
	if (seconds < 1)
		return -1;
	long before = time_get();
	timespec ts{static_cast<time_t>(seconds), 0};
	clock_settime(CLOCK_REALTIME, &ts);
	if (seconds - before >= 172801)
		dtime = seconds - before;
	return 0;
}

const char *_revalidate_datetime(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {datetime_actions});
}

int fw_start()
{
	return do_system("/usr/sbin/firewall start");
}

int fw_stop()
{
	return do_system("/usr/sbin/firewall stop");
}

// No stop first, as on the device.
int fw_restart()
{
	return fw_start();
}

const char *_revalidate_firewall(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {.actions = firewall_actions, .announce = announce_firewall});
}
