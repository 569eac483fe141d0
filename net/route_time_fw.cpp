/* Part 4.4: static routes, system time and firewall switch. */
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/registry.h"
#include "net/net.h"

#define ROUTE_IFNAME 16
#define ROUTE_CMD    256
#define DTIME_MIN    172801L

long dtime;

struct route_ifs {
	char wan[ROUTE_IFNAME];
	char lan[ROUTE_IFNAME];
};

struct route_cmd {
	char text[ROUTE_CMD];
	size_t len;
	int refused;
};

/* The string form of the member "action", or NULL when it is absent. */
static const char *
target_action(struct json_object *value)
{
	return json_object_get_string(json_object_object_get(value, "action"));
}

/* The string value of the run-time key into name: 0, or -1 when it is
 * missing, does not parse or does not fit the 16-byte field. */
static int
route_ifname(const char *key, char name[ROUTE_IFNAME])
{
	struct json_object *value;
	int ret = -1;

	if (confGetJson(CONF_RTCONF, key, &value) != 0)
		return -1;
	if (strlcpy(name, json_object_get_string(value), ROUTE_IFNAME) < ROUTE_IFNAME)
		ret = 0;
	json_object_put(value);
	return ret;
}

/* A route's member as text; a missing or null member is empty. */
static const char *
route_member(struct json_object *route, const char *name)
{
	const char *text = json_object_get_string(json_object_object_get(route, name));

	return text != NULL ? text : "";
}

/* Appends option, word and end; refuses the command when word holds a
 * character that gwutil_shell_safe refuses or the text does not fit. */
static void
route_cmd_add(struct route_cmd *cmd, const char *option, const char *word, const char *end)
{
	size_t room = sizeof(cmd->text) - cmd->len;
	int n;

	if (cmd->refused || !gwutil_shell_safe(word)) {
		cmd->refused = 1;
		return;
	}
	n = snprintf(cmd->text + cmd->len, room, "%s%s%s", option, word, end);
	if (n < 0 || (size_t)n >= room)
		cmd->refused = 1;
	else
		cmd->len += (size_t)n;
}

/* Prints and runs "/sbin/route VERB ..." for one route: 0, or -1 when the
 * command is refused (nothing is printed or run then). */
static int
route_run(struct json_object *route, const char *verb, const struct route_ifs *ifs)
{
	struct route_cmd cmd = {};
	const char *gw = route_member(route, "gw");
	const char *inf = route_member(route, "inf");

	route_cmd_add(&cmd, "/sbin/route ", verb, " ");
	route_cmd_add(&cmd, "-net ", route_member(route, "dest"), " ");
	route_cmd_add(&cmd, "netmask ", route_member(route, "subnet"), " ");
	if (gw[0] != '\0')
		route_cmd_add(&cmd, "gw ", gw, " ");
	route_cmd_add(&cmd, "metric ", route_member(route, "metric"), " ");
	if (strcmp(inf, "LAN") == 0)
		route_cmd_add(&cmd, "dev ", ifs->lan, "");
	else if (strcmp(inf, "WAN") == 0)
		route_cmd_add(&cmd, "dev ", ifs->wan, "");
	if (cmd.refused)
		return -1;
	printf("cmd:%s\n", cmd.text);
	do_system(cmd.text);
	return 0;
}

/* Element i of the stored routes, or NULL after the Part's message. */
static struct json_object *
route_at(struct json_object *routes, size_t i)
{
	struct json_object *route = json_object_array_get_idx(routes, i);

	if (route == NULL) {
		puts("json_object_array_get_idx failed.");
		return NULL;
	}
	if (!json_object_is_type(route, json_type_object)) {
		puts("Unexpected json type.");
		return NULL;
	}
	return route;
}

static const char *
route_commit_all(struct json_object *routes, const struct route_ifs *ifs)
{
	size_t i, n = json_object_array_length(routes);

	for (i = 0; i < n; i++) {
		struct json_object *route = route_at(routes, i);

		if (route == NULL || route_run(route, "add", ifs) != 0)
			return "internal error";
	}
	return NULL;
}

/* "commitadd" and "commitdelete": the first route whose "id" equals the
 * request's; a request without "id" matches none. */
static const char *
route_commit_one(struct json_object *routes, const char *verb, const char *id,
		 const struct route_ifs *ifs)
{
	size_t i, n = json_object_array_length(routes);

	for (i = 0; id != NULL && i < n; i++) {
		struct json_object *route = route_at(routes, i);

		if (route == NULL)
			return "internal error";
		if (strcmp(route_member(route, "id"), id) == 0)
			return route_run(route, verb, ifs) == 0 ? NULL : "internal error";
	}
	return NULL;
}

/* Steps 5 to 8, on the stored text's parse result. */
static const char *
route_apply(int stored, struct json_object *routes, struct json_object *value,
	    const char *action, const struct route_ifs *ifs)
{
	const char *id = json_object_get_string(json_object_object_get(value, "id"));

	if (stored == CONF_BAD_JSON) {
		puts("json_tokener_parse failed.");
		return "internal error";
	}
	if (!json_object_is_type(routes, json_type_array)) {
		puts("Unexpected json type.");
		return "internal error";
	}
	if (strcmp(action, "commitall") == 0)
		return route_commit_all(routes, ifs);
	if (strcmp(action, "commitadd") == 0)
		return route_commit_one(routes, "add", id, ifs);
	if (strcmp(action, "commitdelete") == 0)
		return route_commit_one(routes, "del", id, ifs);
	return NULL;
}

const char *
_revalidate_staticRoute(struct json_object *value, struct json_object *reply_arguments,
			void *deferred)
{
	struct json_object *routes, *action;
	struct route_ifs ifs;
	const char *error = ipc_target_check(value, "invalid arguments");
	int stored;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	if (route_ifname("wan_if", ifs.wan) != 0 || route_ifname("lan_if", ifs.lan) != 0)
		return "internal error";
	stored = confGetJson(CONF_SYSCONF, "routes_static", &routes);
	if (stored == CONF_MISSING)
		return "internal error";
	action = json_object_object_get(value, "action");
	if (json_object_is_type(action, json_type_string))
		error = route_apply(stored, routes, value, json_object_get_string(action), &ifs);
	json_object_put(routes);
	return error;
}

int
setSystime(long seconds)
{
	struct timespec ts = {};
	long before;

	if (seconds < 1)
		return -1;
	before = time_get();
	ts.tv_sec = (time_t)seconds;
	clock_settime(CLOCK_REALTIME, &ts);
	if (seconds - before >= DTIME_MIN)
		dtime = seconds - before;
	return 0;
}

/* The member's integer value (json-c's conversion), within long's range. */
static long
datetime_long(struct json_object *member)
{
	int64_t n = json_object_get_int64(member);

	if (n > LONG_MAX)
		return LONG_MAX;
	return n < LONG_MIN ? LONG_MIN : (long)n;
}

const char *
_revalidate_datetime(struct json_object *value, struct json_object *reply_arguments,
		     void *deferred)
{
	struct json_object *time_member, *zone;
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *action;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = target_action(value);
	if (action == NULL || strcmp(action, "set") != 0)
		return NULL;
	time_member = json_object_object_get(value, "time");
	if (time_member != NULL && json_object_get_int64(time_member) != 0)
		setSystime(datetime_long(time_member));
	zone = json_object_object_get(value, "timezone");
	/* The stored sign is POSIX's, the opposite of the user's offset. */
	if (zone != NULL)
		confSetf(CONF_SYSCONF, "timezone", "\"GMT%+lld\"",
			 -(long long)json_object_get_int(zone));
	return NULL;
}

int
fw_start(void)
{
	return do_system("/usr/sbin/firewall start");
}

int
fw_stop(void)
{
	return do_system("/usr/sbin/firewall stop");
}

/* No stop first, as on the device. */
int
fw_restart(void)
{
	return fw_start();
}

const char *
_revalidate_firewall(struct json_object *value, struct json_object *reply_arguments,
		     void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *action;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = target_action(value);
	if (action == NULL)
		return NULL;
	printf("action:%s\n", action);
	puts("revalidate_setFirewall");
	if (strcmp(action, "start") == 0 || strcmp(action, "restart") == 0)
		fw_restart();
	return NULL;
}
