/* Part 5.2: station mode. */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/registry.h"
#include "net/net.h"
#include "wifi/wifi.h"

#define WPA_CONF        "/etc/wpa_supplicant.conf"
#define WPA_CTRL_DIR    "/var/run/wpa_supplicant"
#define WPA_CTRL_SOCKET WPA_CTRL_DIR "/mlan0"
#define WPA_PID         "/var/run/wpa_supplicant.pid"
/* The Marvell driver answers nl80211 or wext; rtconf "wl_wpa_driver" (README). */
#define WPA_DRIVER      "nl80211,wext"
#define WPA_DRIVER_SIZE 64
#define WPA_WAIT_STEPS  100	/* of 50 ms: 5 s for the control socket */
#define CMD_SIZE        512

enum { TOOL_ERROR = -1, TOOL_NONE = 0, TOOL_WT = 1, TOOL_WPA = 2 };

/* The current hotspot: each text NULL when its key is missing or does not
 * parse; the values own the texts. */
struct sta_hotspot {
	struct json_object *value[3];
	StaNetworkParams params;
	int complete;		/* all three read */
};

static int wpa_if_attached;

/* rtconf "wl_tool_type"; absent means "WPA", the device's own chain (README). */
static int
sta_tool_type(void)
{
	struct json_object *value;
	const char *name;
	int ret = confGetJson(CONF_RTCONF, "wl_tool_type", &value);
	int type = TOOL_NONE;

	if (ret == CONF_MISSING)
		return TOOL_WPA;
	if (ret != 0)
		return TOOL_ERROR;
	name = json_object_get_string(value);
	if (strcmp(name, "WT") == 0)
		type = TOOL_WT;
	else if (strcmp(name, "WPA") == 0)
		type = TOOL_WPA;
	json_object_put(value);
	return type;
}

static int
sec_is_wpa(const char *sec)
{
	return str_match(sec, "wpapsk") || str_match(sec, "WPA");
}

static int
sec_is_none(const char *sec)
{
	return str_match(sec, "none");
}

static int
sec_is_wep(const char *sec)
{
	return str_match(sec, "on") || str_match(sec, "WEP");
}

static const char *
hotspot_text(struct json_object **value, const char *key)
{
	if (confGetJson(CONF_SYSCONF, key, value) != 0)
		return NULL;
	return json_object_get_string(*value);
}

static void
sta_hotspot_get(struct sta_hotspot *h)
{
	memset(h, 0, sizeof(*h));
	h->params.sec = hotspot_text(&h->value[0], "wan_sta_sec");
	h->params.ssid = hotspot_text(&h->value[1], "wan_sta_ssid");
	h->params.pass = hotspot_text(&h->value[2], "wan_sta_pass");
	h->complete = h->params.sec != NULL && h->params.ssid != NULL &&
		      h->params.pass != NULL;
}

static void
sta_hotspot_put(struct sta_hotspot *h)
{
	int i;

	for (i = 0; i < 3; i++)
		json_object_put(h->value[i]);
}

/* A double quote would end the quoted value, a newline add a line. */
static int
wpa_conf_value_ok(const char *text)
{
	return text == NULL || strpbrk(text, "\n\"") == NULL;
}

static void
wpa_conf_network(FILE *fp, const StaNetworkParams *p)
{
	fprintf(fp, "\tssid=\"%s\"\n", p->ssid);
	if (sec_is_wpa(p->sec)) {
		fputs("\tkey_mgmt=WPA-PSK\n", fp);
		fprintf(fp, "\tpsk=\"%s\"\n", p->pass);
	} else if (sec_is_none(p->sec)) {
		fputs("\tkey_mgmt=NONE\n", fp);
	} else if (sec_is_wep(p->sec)) {
		fputs("\tkey_mgmt=NONE\n", fp);
		fputs("\tauth_alg=OPEN SHARED\n", fp);
		fprintf(fp, "\twep_key0=\"%s\"\n", p->pass);
		fputs("\twep_tx_keyidx=0\n", fp);
	}
	fputs("\tscan_ssid=1\n", fp);
}

int
wifi_sta_reconfig(StaNetworkParams *params)
{
	FILE *fp;

	if (!wpa_conf_value_ok(params->ssid) || !wpa_conf_value_ok(params->pass))
		return -1;
	fp = fopen(WPA_CONF, "w");
	if (fp == NULL) {
		printf("WiFi: wifi_sta_reconfig, open %s file failed\n", WPA_CONF);
		return -1;
	}
	fputs("update_config=1\n", fp);
	fprintf(fp, "ctrl_interface=%s\n", WPA_CTRL_DIR);
	fputs("ap_scan=1\nctrl_interface_group=0\nbss_expiration_age=600\n", fp);
	fputs("\nnetwork={\n", fp);
	if (params->sec != NULL && params->ssid != NULL && params->pass != NULL)
		wpa_conf_network(fp, params);
	fputs("}\n", fp);
	fclose(fp);
	puts("WiFi: wifi_sta_reconfig, Configuration file updated successfully");
	return 0;
}

/* The security command of the wireless tools; ssid and pass escaped with 7. */
static int
wt_security(const char *sec, const char *ssid, const char *pass)
{
	if (sec_is_none(sec)) {
		if (do_systemf(CMD_SIZE, "/usr/sbin/iwpriv mlan0 passphrase '2;ssid=%s'", ssid) != 0)
			return -1;
		do_system("/usr/sbin/iwconfig mlan0 key off");
	} else if (sec_is_wep(sec)) {
		if (do_systemf(CMD_SIZE, "/usr/sbin/iwconfig mlan0 key '%s'", pass) != 0)
			return -1;
		do_system("/usr/sbin/iwconfig mlan0 key on");
	} else if (sec_is_wpa(sec)) {
		return do_systemf(CMD_SIZE, "/usr/sbin/iwpriv mlan0 passphrase '1;ssid=%s;passphrase=%s'",
			       ssid, pass);
	}
	return 0;
}

static int
wt_associate(const struct sta_hotspot *h)
{
	char *ssid = NULL, *pass = NULL, *essid = NULL;
	int ret = -1;

	if (!h->complete)
		return -1;
	ssid = _escape_delimiter(h->params.ssid, ESCAPE_QUOTE | ESCAPE_SEMICOLON | ESCAPE_SLASH);
	pass = _escape_delimiter(h->params.pass, ESCAPE_QUOTE | ESCAPE_SEMICOLON | ESCAPE_SLASH);
	if (ssid == NULL || pass == NULL || wt_security(h->params.sec, ssid, pass) != 0)
		goto out;
	essid = _escape_delimiter(h->params.ssid, ESCAPE_QUOTE);
	if (essid != NULL)
		ret = do_systemf(CMD_SIZE, "/usr/sbin/iwconfig mlan0 essid '%s'", essid);
out:
	free(ssid);
	free(pass);
	free(essid);
	return ret;
}

static int
wt_connect(void)
{
	struct sta_hotspot h;
	int ret;

	sta_hotspot_get(&h);
	ret = wt_associate(&h);
	sta_hotspot_put(&h);
	if (ret != 0) {
		puts("WiFi: Wireless Link disconnected.");
		wan_stop();
	} else {
		puts("WiFi: Wireless Link connected.");
		wifi_sta_get_ip();
	}
	return 0;
}

static int
is_empty(const char *text)
{
	return text == NULL || text[0] == '\0';
}

static int
wpa_select(StaNetworkParams *params)
{
	if (is_empty(params->ssid) && is_empty(params->sec))
		return -1;
	if (wifi_sta_reconfig(params) != 0)
		return -1;
	if (wpa_cli_send("RECONFIGURE", NULL, NULL) != 0) {
		puts("WiFi: Send reconfigure to WPA failed");
		return -1;
	}
	if (wpa_cli_send("SELECT_NETWORK 0", NULL, NULL) != 0) {
		puts("WiFi: Send select network to WPA failed");
		return -1;
	}
	return 0;
}

static int
wpa_connect(void)
{
	struct sta_hotspot h;
	int ret;

	sta_hotspot_get(&h);
	ret = wpa_select(&h.params);
	sta_hotspot_put(&h);
	if (ret != 0)
		puts("WiFi: Do STA connect by wpa_supplicant failed");
	return ret;
}

int
wifi_sta_connect(void)
{
	switch (sta_tool_type()) {
	case TOOL_WT:
		return wt_connect();
	case TOOL_WPA:
		return wpa_connect();
	default:
		puts("WiFi: Error, Wireless tool type is none");
		return 0;
	}
}

int
wifi_sta_disconnect(void)
{
	switch (sta_tool_type()) {
	case TOOL_WT:
		do_system("iwpriv mlan0 deauth");
		return 0;
	case TOOL_WPA:
		if (wpa_cli_send("REMOVE_NETWORK 0", NULL, NULL) != 0) {
			puts("WiFi: Send REMOVE to WPA failed");
			return -1;
		}
		return 0;
	default:
		puts("WiFi: Error, None wireless tool type");
		return 0;
	}
}

int
wl_connect(void)
{
	return wifi_sta_connect();
}

int
wl_disconnect(void)
{
	return wifi_sta_disconnect();
}

int
wifi_sta_get_ip(void)
{
	do_system("udhcpc -i mlan0 -H $(/bin/hostname) -p /var/run/udhcpc.pid -b "
		  "-s /etc/app/gw_udhcpc.script -S &");
	return 0;
}

/* Event effects */

static void
sta_status_reason(const char *reason)
{
	confSetf(CONF_RTCONF, "wifi_sta_status", "\"Disconnected\"");
	confSetf(CONF_RTCONF, "wifi_sta_reason", "%s", reason);
}

/* The fall-back to slot 2 while rtconf "wan_auto_retry_times" reads "1". */
static void
sta_auto_retry(void)
{
	struct json_object *value;
	int armed;

	if (confGetJson(CONF_RTCONF, "wan_auto_retry_times", &value) != 0)
		return;
	armed = strcmp(json_object_get_string(value), "1") == 0;
	json_object_put(value);
	if (armed)
		wan_auto_retry_handler();
}

static void
sta_disconnected(void)
{
	struct json_object *lan_if;

	wan_service_stop();
	wifi_ap_start();
	sta_status_reason("0");
	if (confGetJson(CONF_RTCONF, "lan_if", &lan_if) != 0)
		return;
	ctrl_interface(json_object_get_string(lan_if), 1);
	json_object_put(lan_if);
	sta_auto_retry();
}

int
wpa_ctrl_event_handler(const char *event, const char *arg, struct wpa_cli_eh *slot)
{
	(void)arg;
	(void)slot;
	if (event == NULL)
		return 0;
	if (strcmp(event, "CTRL-EVENT-CONNECTED ") == 0) {
		wifi_sta_get_ip();
		confSetf(CONF_RTCONF, "wan_auto_retry_times", "0");
	} else if (strcmp(event, "CTRL-EVENT-DISCONNECTED ") == 0) {
		sta_disconnected();
	} else if (strcmp(event, "CTRL-EVENT-ASSOC-REJECT ") == 0) {
		sta_status_reason("2");
	} else if (strcmp(event, "CTRL-EVENT-SSID-TEMP-DISABLED ") == 0) {
		sta_status_reason("1");
	} else if (strcmp(event, "CTRL-EVENT-SSID-NO-MATCH ") == 0) {
		sta_status_reason("2");
		sta_auto_retry();
	}
	return 0;
}

/* Control interface */

/* Calls the TDLS handler whatever its own result and slot types. */
static int
tdls_event(const char *event, const char *arg, struct wpa_cli_eh *slot)
{
	wpa_tdls_event_handler(event, arg, slot);
	return 0;
}

int
wifi_sta_wpa_if_init(void)
{
	if (wpa_if_attached)
		return 0;
	if (wpa_cli_init() != 0)
		return -1;
	wpa_cli_eh_register("CTRL", wpa_ctrl_event_handler);
	wpa_cli_eh_register("TDLS", tdls_event);
	wpa_if_attached = 1;
	return 0;
}

void
wifi_sta_wpa_if_deinit(void)
{
	wpa_cli_deinit();
	wpa_if_attached = 0;
}

/* Waits up to 5 s until path exists (or, with gone, no longer exists). */
static int
wpa_wait_path(const char *path, int gone)
{
	static const struct timespec step = { 0, 50 * 1000 * 1000 };
	int i;

	for (i = 0; i < WPA_WAIT_STEPS; i++) {
		if ((access(path, F_OK) == 0) != gone)
			return 0;
		nanosleep(&step, NULL);
	}
	return -1;
}

/* rtconf "wl_wpa_driver" (absent: WPA_DRIVER); it reaches the shell
 * unquoted, so only lower-case letters, digits, '_' and ',' pass. */
static int
wpa_driver(char *buf, size_t size)
{
	struct json_object *value;
	const char *name = WPA_DRIVER;
	int ret = confGetJson(CONF_RTCONF, "wl_wpa_driver", &value);

	if (ret == CONF_BAD_JSON)
		return -1;
	if (ret == 0)
		name = json_object_get_string(value);
	ret = name[0] != '\0' &&
	      strspn(name, "abcdefghijklmnopqrstuvwxyz0123456789_,") == strlen(name) &&
	      strlcpy(buf, name, size) < size ? 0 : -1;
	json_object_put(value);
	return ret;
}

/* Starts the supplicant idle (no network selected) unless it runs already. */
static int
wpa_supplicant_run(void)
{
	StaNetworkParams idle = { NULL, NULL, NULL };
	char driver[WPA_DRIVER_SIZE], cmd[CMD_SIZE];
	int len;

	if (access(WPA_CTRL_SOCKET, F_OK) == 0)
		return 0;
	if (wpa_driver(driver, sizeof(driver)) != 0 || wifi_sta_reconfig(&idle) != 0)
		return -1;
	len = snprintf(cmd, sizeof(cmd), "wpa_supplicant -B -P %s -D %s -i mlan0 -c %s "
		       ">/dev/console 2>&1", WPA_PID, driver, WPA_CONF);
	if (len < 0 || (size_t)len >= sizeof(cmd) || do_system(cmd) != 0)
		return -1;
	/* The daemonised child writes the pid file after the socket exists. */
	if (wpa_wait_path(WPA_CTRL_SOCKET, 0) != 0)
		return -1;
	return wpa_wait_path(WPA_PID, 0);
}

int
gw_wpa_start(void)
{
	if (wpa_supplicant_run() != 0)
		return -1;
	return wifi_sta_wpa_if_init();
}

int
gw_wpa_stop(void)
{
	wifi_sta_wpa_if_deinit();
	if (access(WPA_PID, F_OK) == 0 && kill_pidfile(WPA_PID) == 0)
		wpa_wait_path(WPA_CTRL_SOCKET, 1);
	return 0;
}

const char *
_revalidate_wpa(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *name;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	name = ipc_target_action(value);
	if (name == NULL)
		return "internal error";
	if (strcmp(name, "start") == 0)
		return gw_wpa_start() == 0 ? NULL : "internal error";
	if (strcmp(name, "stop") == 0)
		gw_wpa_stop();
	return NULL;
}
