/* Part 4.3: UPnP port-mapping service (miniupnpd). */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/registry.h"
#include "net/net.h"

#define UPNP_CONF   "/var/tmp/miniupnpd.conf"
#define UPNP_LEASES "/var/tmp/upnp.leases"
#define UPNP_PID    "/var/run/miniupnpd.pid"
#define UPNP_START  "/usr/sbin/miniupnpd -f " UPNP_CONF

/* Writes the line prefix + the string form of key's value: 0, or -1 when the
 * key is missing, does not parse, or holds a newline, which would add a line
 * to the file (DESIGN.md section 8). */
static int
upnp_put_value(FILE *f, const char *prefix, enum conf_store store, const char *key)
{
	struct json_object *value;
	const char *text;
	int ret = -1;

	if (confGetJson(store, key, &value) != 0)
		return -1;
	text = json_object_get_string(value);
	if (strchr(text, '\n') == NULL && fprintf(f, "%s%s\n", prefix, text) >= 0)
		ret = 0;
	json_object_put(value);
	return ret;
}

/* 1 when key holds the JSON string "on", 0 when it holds something else,
 * -1 when it is missing or does not parse. */
static int
upnp_is_on(const char *key)
{
	char text[4];

	if (confGetString(CONF_SYSCONF, key, text, sizeof(text)) != 0)
		return -1;
	return strcmp(text, "on") == 0;
}

static int
upnp_write(FILE *f)
{
	int natpmp;

	if (upnp_put_value(f, "ext_ifname=", CONF_RTCONF, "wan_if") != 0 ||
	    upnp_put_value(f, "listening_ip=", CONF_SYSCONF, "lan_ipaddr") != 0)
		return -1;
	fputs("enable_upnp=yes\n", f);
	natpmp = upnp_is_on("upnp_natpmp");
	if (natpmp < 0)
		return -1;
	fputs(natpmp ? "enable_natpmp=yes\n" : "enable_natpmp=no\n", f);
	fputs("secure_mode=yes\n"
	      "upnp_forward_chain=UPNP_FORWARD_CHAIN\n"
	      "upnp_nat_chain=UPNP_NAT_PREROUTING_CHAIN\n"
	      "system_uptime=yes\n"
	      "lease_file=" UPNP_LEASES "\n", f);
	return 0;
}

int
upnp_renewConf(void)
{
	FILE *f = fopen(UPNP_CONF, "w");
	int ret;

	if (f == NULL)
		return -1;
	ret = upnp_write(f);
	if (fclose(f) != 0)
		ret = -1;
	return ret;
}

int
upnp_start(void)
{
	int on = upnp_is_on("upnp");

	if (on <= 0)
		return on;
	if (upnp_renewConf() != 0)
		return -1;
	puts(UPNP_START);
	do_system(UPNP_START);
	return 0;
}

int
upnp_stop(void)
{
	do_system("/usr/bin/killall miniupnpd");
	unlink(UPNP_PID);
	do_system("/opt/sbin/iptables -t nat -F UPNP_NAT_PREROUTING_CHAIN");
	do_system("/opt/sbin/iptables -F UPNP_FORWARD_CHAIN");
	unlink(UPNP_LEASES);
	return 0;
}

int
upnp_restart(void)
{
	upnp_stop();
	return upnp_start();
}

const char *
_revalidate_upnp(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *name, *error;

	(void)reply_arguments;
	(void)deferred;
	error = ipc_target_check(value, "invalid arguments");
	if (error != NULL)
		return error;
	name = json_object_get_string(json_object_object_get(value, "action"));
	if (name == NULL)
		return NULL;
	printf("action:%s\n", name);
	puts("revalidate_setUpnp");
	if (strcmp(name, "start") == 0 || strcmp(name, "restart") == 0)
		upnp_restart();
	return NULL;
}
