/* Part 4.2: LAN and WAN control (the WAN state and uptime so far). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "net/net.h"

#define UDHCPC_PID "/var/run/udhcpc.pid"

/* 0 when the interface holds an IPv4 address, else 2 while the DHCP client
 * runs, else 1. */
static int
wan_link_state(const char *ifname)
{
	struct if_record rec;

	if (if_fetch(ifname, &rec) == 0 && rec.has_ipv4)
		return 0;
	return access(UDHCPC_PID, F_OK) == 0 ? 2 : 1;
}

int
wan_get_state(void)
{
	struct json_object *type, *wan_if, *rt_wan_if;
	const char *name;
	int state = -1;

	if (confGetJson(CONF_SYSCONF, "wan_type", &type) != 0)
		return -1;
	if (confGetJson(CONF_SYSCONF, "wan_if", &wan_if) != 0)
		goto put_type;
	if (confGetJson(CONF_RTCONF, "wan_if", &rt_wan_if) != 0)
		goto put_wan_if;
	name = json_object_get_string(type);
	if (strcmp(name, "none") == 0) {
		puts("***** wan_type: none *****");
		state = 1;
	} else if (strcmp(name, "wireless_sta_trust") != 0 &&
		   strcmp(name, "wireless_sta") != 0) {
		puts("***** what? *****");	/* "wireless_sta_private" too */
		state = 1;
	} else {
		state = wan_link_state(json_object_get_string(rt_wan_if));
	}
	json_object_put(rt_wan_if);
put_wan_if:
	json_object_put(wan_if);
put_type:
	json_object_put(type);
	return state;
}

unsigned long
wan_get_uptime(void)
{
	struct json_object *value;
	struct sysinfo info;
	unsigned long start;

	if (confGetJson(CONF_RTCONF, "wan_uptime", &value) != 0)
		return (unsigned long)-1;
	start = strtoul(json_object_get_string(value), NULL, 10);
	json_object_put(value);
	printf("uptime_start:%ld\n", (long)start);
	if (sysinfo(&info) != 0)
		return (unsigned long)-1;
	return (unsigned long)info.uptime - start;
}
