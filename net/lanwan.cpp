/* Part 4.2: LAN and WAN control. */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <json-c/json.h>

#include "conf/confdb.h"
#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/registry.h"
#include "net/net.h"
#include "wifi/wifi.h"

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

#define CMD_SIZE 256
#define NAME_SIZE 64

static int
sys_string(const char *key, char *buf, size_t size)
{
	return confGetString(CONF_SYSCONF, key, buf, size) == 0 ? 0 : -1;
}

/* A stored interface name or address that reaches the shell unquoted: a
 * text with any character that gwutil_shell_safe refuses is refused (-1),
 * as a key that cannot be read (DESIGN.md section 8). */
static int
sys_word(const char *key, char *buf, size_t size)
{
	if (sys_string(key, buf, size) != 0)
		return -1;
	if (gwutil_shell_safe(buf))
		return 0;
	printf("%s refused: unsafe characters\n", key);
	return -1;
}

int
dlna_restart(void)
{
	do_system("/etc/demo/minidlna_stop.sh");
	do_system("/etc/demo/minidlna_start.sh &");
	return 0;
}

int
ctrl_interface(const char *ifname, int up)
{
	if (up == 0)
		return do_systemf(CMD_SIZE, "/sbin/ifconfig %s down", ifname);
	if (up == 1)
		return do_systemf(CMD_SIZE, "/sbin/ifconfig %s up", ifname);
	do_system("");
	return 0;
}

static int
lan_set_bridge(const char *lan_if, const char *wan_if)
{
	dhcp_stop();
	wan_stop();
	if (do_systemf(CMD_SIZE, "/usr/sbin/brctl addif %s %s", lan_if, wan_if) != 0 ||
	    do_systemf(CMD_SIZE, "/sbin/udhcpc -i  %s -H $(/bin/hostname) -p /var/run/udhcpc_lan.pid -b -s /etc/app/gw_udhcpc_lan.script -S &", lan_if) != 0)
		return -1;
	return confSetf(CONF_RTCONF, "lan_if", "\"%s\"", lan_if);
}

static int
lan_set_router(const char *lan_if)
{
	char ipaddr[NAME_SIZE], netmask[NAME_SIZE], stp[NAME_SIZE];

	if (sys_word("lan_ipaddr", ipaddr, sizeof(ipaddr)) != 0 ||
	    sys_word("lan_netmask", netmask, sizeof(netmask)) != 0)
		return -1;
	if (do_systemf(CMD_SIZE, "/sbin/ifconfig %s %s netmask %s ", lan_if, ipaddr, netmask) != 0)
		return -1;
	if (sys_string("lan_bridgestp", stp, sizeof(stp)) != 0)
		stp[0] = '\0';
	if (do_systemf(CMD_SIZE, "/usr/sbin/brctl stp %s %s", lan_if, strcmp(stp, "on") == 0 ? "on" : "off") != 0 ||
	    do_systemf(CMD_SIZE, "/usr/sbin/brctl setfd %s 0", lan_if) != 0 ||
	    do_systemf(CMD_SIZE, "/usr/sbin/brctl sethello %s 1", lan_if) != 0 ||
	    confSetf(CONF_RTCONF, "lan_if", "\"%s\"", lan_if) != 0)
		return -1;
	do_system("/usr/sbin/lan_callup.sh > /dev/console 2>&1 &");
	return 0;
}

int
lan_set(void)
{
	char mode[NAME_SIZE], wan_if[NAME_SIZE], lan_if[NAME_SIZE];
	int bridge = sys_string("work_mode", mode, sizeof(mode)) == 0 &&
		     strcmp(mode, "bridge") == 0;

	if (sys_word("wan_if", wan_if, sizeof(wan_if)) != 0 ||
	    sys_word("lan_if", lan_if, sizeof(lan_if)) != 0)
		return -1;
	return bridge ? lan_set_bridge(lan_if, wan_if) : lan_set_router(lan_if);
}

int
wan_start(void)
{
	char wan_if[NAME_SIZE], type[NAME_SIZE];

	confSetf(CONF_RTCONF, "wifi_sta_status", "\"Connecting\"");
	if (sys_word("wan_if", wan_if, sizeof(wan_if)) != 0 ||
	    sys_string("wan_type", type, sizeof(type)) != 0)
		return -1;
	if (do_systemf(CMD_SIZE, "/usr/sbin/brctl delif br0 %s", wan_if) != 0)
		return -1;
	if (strcmp(type, "none") == 0) {
		puts("[SYS] Enter AP only mode.");
		return 0;
	}
	if (strcmp(type, "wireless_sta_trust") == 0)
		puts("[SYS] Enter STA only mode.");
	else if (strcmp(type, "wireless_sta") == 0)
		puts("[SYS] Enter Public Bridge (AP+STA, firewall open) mode.");
	else if (strcmp(type, "wireless_sta_private") == 0)
		puts("[SYS] Enter Public Bridge (AP+STA, firewall close) mode.");
	else {
		puts("[SYS] wan_type setting ERROR!");
		return 0;
	}
	wl_connect();
	return 0;
}

int
wan_stop(void)
{
	wan_service_stop();
	wl_disconnect();
	return 0;
}

int
wan_restart(void)
{
	wan_stop();
	return wan_start();
}

int
wan_service_start(void)
{
	char type[NAME_SIZE];

	dhcp_restart();
	do_system("/etc/app/gw_ssdpd.sh > /dev/null 2>&1");
	dlna_restart();
	if (sys_string("wan_type", type, sizeof(type)) != 0)
		return -1;
	if (strcmp(type, "wireless_sta_trust") != 0)
		do_system("/etc/app/gw_simplefw.sh > /dev/null 2>&1");
	return 0;
}

int
wan_service_stop(void)
{
	char wan_if[NAME_SIZE];

	do_system("/usr/bin/killall udhcpc >/dev/null 2>&1");
	confSetf(CONF_RTCONF, "wan_status", "\"WAN_DOWN\"");
	confSetf(CONF_RTCONF, "wan_if", "\"\"");
	confSetf(CONF_RTCONF, "wan_up_time", "\"\"");
	if (sys_word("wan_if", wan_if, sizeof(wan_if)) != 0 ||
	    do_systemf(CMD_SIZE, "/sbin/ifconfig %s 0.0.0.0", wan_if) != 0)
		return -1;
	do_system("/sbin/ifconfig mlan0 0.0.0.0 > /dev/null 2>&1");
	do_system("/etc/app/gw_simplefw.sh reset> /dev/null 2>&1");
	do_system("/etc/app/gw_ssdpd.sh > /dev/null 2>&1");
	dlna_restart();
	return 0;
}

/* The WAN type of a slot's trust-mode text; "" for a text outside the table. */
static const char *
trustmode_wan_type(const char *key)
{
	char mode[NAME_SIZE];

	if (sys_string(key, mode, sizeof(mode)) != 0)
		return "";
	if (strcmp(mode, "Station Mode") == 0)
		return "\"wireless_sta_trust\"";
	if (strcmp(mode, "Public Bridge Mode") == 0)
		return "\"wireless_sta\"";
	if (strcmp(mode, "Private Bridge Mode") == 0)
		return "\"wireless_sta_private\"";
	return "";
}

static int
wan_auto_swap(void)
{
	static const char *const keys[] = { "wan_sta_ssid", "wan_sta_sec",
					     "wan_sta_pass", "wan_sta_trustmode" };
	char a[NAME_SIZE], b[NAME_SIZE];
	size_t i;

	for (i = 0; i < sizeof(keys) / sizeof(keys[0]); i++) {
		snprintf(a, sizeof(a), "%s1", keys[i]);
		snprintf(b, sizeof(b), "%s2", keys[i]);
		sysConfSwap(a, b);
	}
	return 0;
}

/* Slot n's hotspot becomes the current one ("wan_sta_ssid", "wan_sta_sec",
 * "wan_sta_pass" and "wan_type"). */
static void
wan_use_slot(int n)
{
	char src[NAME_SIZE];

	snprintf(src, sizeof(src), "wan_sta_ssid%d", n);
	sysConfCopy("wan_sta_ssid", src);
	snprintf(src, sizeof(src), "wan_sta_sec%d", n);
	sysConfCopy("wan_sta_sec", src);
	snprintf(src, sizeof(src), "wan_sta_pass%d", n);
	sysConfCopy("wan_sta_pass", src);
	snprintf(src, sizeof(src), "wan_sta_trustmode%d", n);
	confSetf(CONF_SYSCONF, "wan_type", "%s", trustmode_wan_type(src));
}

static void
slot_ssid(const char *key, char *buf, size_t size)
{
	if (sys_string(key, buf, size) != 0)
		buf[0] = '\0';
}

/* Nothing else arms the one fall-back to slot 2, so wan_auto does when slot 2
 * holds a hotspot; not while the WAN is up, since tearing that link down
 * posts a disconnection that would fall back at once. */
static void
wan_auto_arm(const char *ssid2)
{
	char status[NAME_SIZE];

	if (ssid2[0] == '\0')
		return;
	if (confGetString(CONF_RTCONF, "wan_status", status, sizeof(status)) == 0 &&
	    strcmp(status, "WAN_UP") == 0)
		return;
	confSetf(CONF_RTCONF, "wan_auto_retry_times", "1");
}

int
wan_auto(void)
{
	char current[NAME_SIZE], ssid1[NAME_SIZE], ssid2[NAME_SIZE];

	slot_ssid("wan_sta_ssid", current, sizeof(current));
	slot_ssid("wan_sta_ssid1", ssid1, sizeof(ssid1));
	slot_ssid("wan_sta_ssid2", ssid2, sizeof(ssid2));
	if (ssid1[0] == '\0') {
		puts("Wifi: No suitable prefer BSS, stop wan auto connecting");
		return 0;
	}
	if (ssid2[0] != '\0' && strcmp(ssid2, current) == 0) {
		wan_auto_swap();
	} else {
		wan_use_slot(1);
		puts("WiFi: Wan auto connecting by wan_sta_ssid1");
	}
	wan_auto_arm(ssid2);
	return wan_restart();
}

int
wan_auto_retry_handler(void)
{
	char ssid2[NAME_SIZE];

	slot_ssid("wan_sta_ssid2", ssid2, sizeof(ssid2));
	if (ssid2[0] != '\0') {
		wan_use_slot(2);
		wan_restart();
	}
	confSetf(CONF_RTCONF, "wan_auto_retry_times", "0");
	return 0;
}

int
check_wifi_ap_status(void)
{
	char type[NAME_SIZE], lan_if[NAME_SIZE];

	if (sys_string("wan_type", type, sizeof(type)) != 0 ||
	    strcmp(type, "wireless_sta_trust") != 0)
		return 0;
	wifi_ap_stop();
	if (confGetString(CONF_RTCONF, "lan_if", lan_if, sizeof(lan_if)) == 0)
		ctrl_interface(lan_if, 0);
	return 1;
}

int
check_wifi_fw_version(void)
{
	struct json_object *mode;
	char type[NAME_SIZE];
	int fw_mode;

	if (sys_string("wan_type", type, sizeof(type)) != 0 ||
	    confGetJson(CONF_SYSCONF, "wl_fw_mode", &mode) != 0)
		return 0;
	fw_mode = json_object_get_int(mode);
	json_object_put(mode);
	if (fw_mode == 0 && strcmp(type, "wireless_sta") == 0)
		confSetf(CONF_SYSCONF, "wl_fw_mode", "1");
	else if (fw_mode == 1 && strcmp(type, "wireless_sta_trust") == 0)
		confSetf(CONF_SYSCONF, "wl_fw_mode", "0");
	else
		return 0;
	wifi_ap_reconfig();
	wifi_restart();
	return 1;
}

int
sys_event_handler(const char *event, const char *arg)
{
	if (event == NULL)
		return -1;
	if (strcmp(event, "SYS_EVENT_DHCP_SUCCESS") == 0) {
		confSetf(CONF_RTCONF, "wan_status", "\"WAN_UP\"");
		confSetf(CONF_RTCONF, "wifi_sta_status", "\"Connected\"");
		wan_service_start();
		check_wifi_ap_status();
		return gw_profiles_set();
	}
	if (strcmp(event, "SYS_EVENT_DHCP_FAILED") == 0) {
		confSetf(CONF_RTCONF, "wifi_sta_status", "\"Disconnected\"");
		wan_service_stop();
		wl_disconnect();
	} else if (strcmp(event, "SYS_EVENT_WIFI_LOADED") == 0) {
		wan_auto();
	} else if (strcmp(event, "TDLS_EVENT_RESOLVE_SUCCESS") == 0 && arg != NULL) {
		wifi_sta_tdls_setup(arg);
	}
	return 0;
}

const char *
_revalidate_wan(struct json_object *value, struct json_object *reply_arguments,
		void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *name;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	name = ipc_target_action(value);
	if (name == NULL)
		return NULL;
	if (strcmp(name, "restart") == 0)
		wan_restart();
	else if (strcmp(name, "start") == 0)
		wan_start();
	else if (strcmp(name, "auto") == 0)
		wan_auto();
	else if (strcmp(name, "stop") == 0)
		wan_stop();
	return NULL;
}

const char *
_revalidate_lan(struct json_object *value, struct json_object *reply_arguments,
		void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *name;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	name = ipc_target_action(value);
	if (name != NULL && (strcmp(name, "start") == 0 || strcmp(name, "restart") == 0))
		lan_set();
	return NULL;
}

const char *
_revalidate_sysEvent(struct json_object *value, struct json_object *reply_arguments,
		     void *deferred)
{
	struct json_object *arg;
	const char *name;

	(void)reply_arguments;
	(void)deferred;
	if (value == NULL)
		return "invalid arguments";
	if (!json_object_is_type(value, json_type_object)) {
		puts("Unexpected json type.");
		return "invalid arguments";
	}
	name = ipc_target_action(value);
	if (name == NULL || !json_object_object_get_ex(value, "arg", &arg) ||
	    !json_object_is_type(arg, json_type_string))
		return "internal error";
	return sys_event_handler(name, json_object_get_string(arg)) == 0 ?
	       NULL : "internal error";
}
