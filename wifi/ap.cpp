/* Part 5.3: access point configuration. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/registry.h"
#include "wifi/wifi.h"

#define UAP_CONF     "/mnt/rwdata/uaputl.conf"
#define DOMAIN_CONF  "/etc/config/80211d_domain.conf"
#define UAPUTL       "/sbin/uaputl.exe"
#define HELD_MAX     40

#define CHANS_11     "1,2,3,4,5,6,7,8,9,10,11"
#define JSON_11      "[ 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11"
#define CHANS_5G     "36,40,44,48,149,153,157,161,165"
#define JSON_5G      "[ 36, 40, 44, 48, 149, 153, 157, 161, 165 ]"

/* One rewrite of the file: the file and the values read so far. */
struct uap {
	FILE *fp;
	struct json_object *held[HELD_MAX];
	int nheld;
	int band5;		/* 1 for 5 GHz */
	int channel;		/* number of the band's channel */
};

char *
UapEscape(const char *value)
{
	static char *buf;
	size_t len = strlen(value), i, n = 0;
	char *grown;

	if (len > (SIZE_MAX - 1) / 2)
		return NULL;
	grown = (char *)realloc(buf, 2 * len + 1);
	if (grown == NULL)
		return NULL;
	buf = grown;
	for (i = 0; i < len; i++) {
		if (value[i] == ',' || value[i] == '=')
			buf[n++] = '\\';
		buf[n++] = value[i];
	}
	buf[n] = '\0';
	return buf;
}

/* The text of a missing optional key: "", told apart by its address. */
static const char uap_absent[] = "";

/* The string form of sysconf key, held until the rewrite ends.  NULL when
 * it is missing (unless optional: uap_absent), does not parse, or holds a
 * newline, which would add a line to the file (DESIGN.md section 8). */
static const char *
uap_read(struct uap *u, const char *key, int optional)
{
	struct json_object *value;
	const char *text;
	int ret;

	if (u->nheld == HELD_MAX)
		return NULL;
	ret = confGetJson(CONF_SYSCONF, key, &value);
	if (ret == CONF_MISSING && optional)
		return uap_absent;
	if (ret != 0)
		return NULL;
	u->held[u->nheld++] = value;
	text = json_object_get_string(value);
	return strchr(text, '\n') == NULL ? text : NULL;
}

static const char *
uap_get(struct uap *u, const char *key)
{
	return uap_read(u, key, 0);
}

/* Writes before, the text of key, after. */
static int
uap_put(struct uap *u, const char *before, const char *key, const char *after)
{
	const char *text = uap_get(u, key);

	if (text == NULL)
		return -1;
	fprintf(u->fp, "%s%s%s", before, text, after);
	return 0;
}

static int
is_value(struct uap *u, const char *key, const char *expected, int *result)
{
	const char *text = uap_get(u, key);

	if (text == NULL)
		return -1;
	*result = strcmp(text, expected) == 0;
	return 0;
}

/* Rules 3 to 5. */
static int
put_band_channel(struct uap *u)
{
	const char *band = uap_get(u, "wl_band"), *channel;

	if (band == NULL)
		return -1;
	u->band5 = strcmp(band, "5GHz") == 0;
	if (!u->band5 && strcmp(band, "2.4GHz") != 0)
		puts("Band Setting Error!");
	if (uap_put(u, "BeaconPeriod=", "wl_beacon_period", "\n") != 0)
		return -1;
	channel = uap_get(u, u->band5 ? "wl_channel_5g" : "wl_channel");
	if (channel == NULL)
		return -1;
	u->channel = gw_atoi(channel);
	if (strcmp(channel, "0") == 0)
		fputs("Channel=0 1\n", u->fp);
	else if (!u->band5)
		fprintf(u->fp, "Channel=%s,%d\n", channel, u->channel > 6 ? 4 : 2);
	else if (u->channel == 36 || u->channel == 44 || u->channel == 149 ||
		 u->channel == 157)
		fprintf(u->fp, "Channel=%s,2\n", channel);
	else if (u->channel == 40 || u->channel == 48 || u->channel == 153 ||
		 u->channel == 161)
		fprintf(u->fp, "Channel=%s,4\n", channel);
	else
		fprintf(u->fp, "Channel=%s\n", channel);
	return 0;
}

/* Rules 6 to 10. */
static int
put_mac_chanlist(struct uap *u, int count)
{
	const char *mac = uap_read(u, "wl_ap_mac", 1);
	const char *more = count == 13 ? ",12,13" : count == 14 ? ",12,13,14" : "";
	const char *json = count == 13 ? ", 12, 13" : count == 14 ? ", 12, 13, 14" : "";

	if (mac == NULL)
		return -1;
	if (mac[0] != '\0')
		fprintf(u->fp, "AP_MAC=%s\n", mac);
	if (u->band5) {
		fputs("ChanList=" CHANS_5G "\n", u->fp);
		confSetf(CONF_SYSCONF, "wl_channel_list", "%s", JSON_5G);
	} else {
		fprintf(u->fp, "ChanList=" CHANS_11 "%s\n", more);
		confSetf(CONF_SYSCONF, "wl_channel_list", JSON_11 "%s ]", json);
	}
	fprintf(u->fp, "Band=%d\nRxAntenna=0\nTxAntenna=1\n", u->band5);
	fputs(u->band5 ? "Rate=0x8c,0x98,0xb0,0x48,0x60,0x6c\n" :
	      "Rate=0x82,0x84,0x8b,0x96,0x0c,0x12,0x18,0x24,0x30,0x48,0x60,0x6c\n",
	      u->fp);
	return 0;
}

/* Rules 11 to 17. */
static int
put_radio(struct uap *u)
{
	struct json_object *mode;
	int on, max;

	if (uap_put(u, "TxPowerLevel=", "wl_tx_power_level", "\n") != 0 ||
	    is_value(u, "wl_broadcast_ssid", "on", &on) != 0)
		return -1;
	fprintf(u->fp, "BroadcastSSID=%d\n", on);
	if (uap_put(u, "RTSThreshold=", "wl_rts_threshold", "\n") != 0 ||
	    uap_put(u, "FragThreshold=", "wl_frag_threshold", "\n") != 0 ||
	    uap_put(u, "DTIMPeriod=", "wl_dtim_period", "\n") != 0)
		return -1;
	fputs("RadioControl=1\nMCBCdataRate=0\nTxDataRate=0\nPktFwdCtl=1\n"
	      "StaAgeoutTimer=1800\nPSStaAgeoutTimer=288000\n", u->fp);
	if (confGetJson(CONF_SYSCONF, "wl_fw_mode", &mode) != 0)
		return -1;
	max = json_object_get_int(mode) != 0 ? 8 : 6;
	json_object_put(mode);
	fprintf(u->fp, "MaxStaNum=%d\n", max);
	confSetf(CONF_SYSCONF, "wl_max_sta_number", "%d", max);
	if (is_value(u, "wl_preamble_type", "short", &on) != 0)
		return -1;
	fprintf(u->fp, "PreambleType=%d\nRetrylimit=7\n", on ? 0 : 1);
	return 0;
}

/* Rules 18 and 19; *wpa_auth is the WPA auth mode, NULL without WPA. */
static int
put_auth(struct uap *u, const char **security, const char **wpa_auth)
{
	int open;

	*wpa_auth = NULL;
	if (is_value(u, "wl_wep_auth_mode", "open", &open) != 0)
		return -1;
	*security = uap_get(u, "wl_security");
	if (*security == NULL)
		return -1;
	open = open || strcmp(*security, "none") == 0;
	fprintf(u->fp, "AuthMode=%d\n", open ? 0 : 1);
	if (strcmp(*security, "none") == 0) {
		fputs("Protocol=1\n", u->fp);
	} else if (strcmp(*security, "wep") == 0) {
		fputs("Protocol=2\n", u->fp);
	} else if (strcmp(*security, "wpapsk/wpa2psk") == 0) {
		*wpa_auth = uap_get(u, "wl_wpa_auth_mode");
		if (*wpa_auth == NULL)
			return -1;
		if (strcmp(*wpa_auth, "wpapsk") == 0)
			fputs("Protocol=8\n", u->fp);
		else if (strcmp(*wpa_auth, "wpa2psk") == 0)
			fputs("Protocol=32\n", u->fp);
		else if (strcmp(*wpa_auth, "wpapskwpa2pskmixed") == 0)
			fputs("Protocol=40\n", u->fp);
	}
	fputs("RSNReplayProtection=0\nPairwiseUpdateTimeout=100\n"
	      "PairwiseHandshakeRetries=3\nGroupwiseUpdateTimeout=100\n"
	      "GroupwiseHandshakeRetries=3\n", u->fp);
	return 0;
}

/* Rules 21 and 22. */
static int
put_wep_keys(struct uap *u)
{
	char key[16];
	const char *text, *escaped;
	size_t len;
	int i;

	if (uap_put(u, "KeyIndex=", "wl_wep_key_index", "\n") != 0)
		return -1;
	for (i = 0; i < 4; i++) {
		snprintf(key, sizeof(key), "wl_wep_key%d", i);
		text = uap_read(u, key, 1);
		if (text == NULL)
			return -1;
		len = strlen(text);
		if (len == 0) {
			fprintf(u->fp, "Key_%d=0000000000\n", i);
			continue;
		}
		escaped = UapEscape(text);
		if (escaped == NULL)
			return -1;
		if (len == 5 || len == 13)
			fprintf(u->fp, "Key_%d=\"%s\"\n", i, escaped);
		else
			fprintf(u->fp, "Key_%d=%s\n", i, escaped);
	}
	return 0;
}

/* Rule 23 for WPA security with auth mode wpa_auth. */
static void
put_ciphers(struct uap *u, const char *wpa_auth, const char *encryption)
{
	int wpa = strcmp(wpa_auth, "wpapsk") == 0, wpa2 = strcmp(wpa_auth, "wpa2psk") == 0;
	int pairwise, group;

	if (strcmp(wpa_auth, "wpapskwpa2pskmixed") == 0)
		wpa = wpa2 = 1;
	if (strcmp(encryption, "tkip") == 0)
		pairwise = group = 4;
	else if (strcmp(encryption, "aes") == 0)
		pairwise = group = 8;
	else if (strcmp(encryption, "tkipaesmixed") == 0)
		pairwise = 12, group = 4;
	else
		return;
	if (wpa)
		fprintf(u->fp, "PwkCipherWPA=%d\n", pairwise);
	if (wpa2)
		fprintf(u->fp, "PwkCipherWPA2=%d\n", pairwise);
	fprintf(u->fp, "GwkCipher=%d\n", group);
}

/* Rules 23 to 29. */
static int
put_wpa_tail(struct uap *u, const char *security, const char *wpa_auth,
	     const char *country, int count)
{
	const char *encryption = uap_get(u, "wl_wpa_encryption"), *psk, *escaped;
	int off11n;

	if (encryption == NULL)
		return -1;
	if (wpa_auth != NULL)
		put_ciphers(u, wpa_auth, encryption);
	psk = uap_read(u, "wl_wpa_key", 1);
	if (psk == NULL)
		return -1;
	if (psk[0] != '\0') {
		escaped = UapEscape(psk);
		if (escaped == NULL)
			return -1;
		fprintf(u->fp, "PSK=\"%s\"\n", escaped);
	}
	fputs("GroupRekeyTime= 86400\n", u->fp);
	off11n = strcmp(security, "wep") == 0 || strcmp(encryption, "tkip") == 0;
	if (off11n)
		fputs("Enable11n=0\n", u->fp);
	else
		fprintf(u->fp, "Enable11n=1\nHTCapInfo=%s\nAMPDU=0x03\n",
			u->channel == 165 ? "0x117c" : "0x117e");
	fprintf(u->fp, "11d_enable=1\ncountry=%s\n}\n", count != 0 ? country : "US");
	fputs("ap_mac_filter={\nFilterMode=0\nCount=0\n}\n", u->fp);
	return 0;
}

/* Rules 1 to 29; -1 where a key stops the rewrite. */
static int
put_conf(struct uap *u, const char *country, int count)
{
	const char *ssid, *security, *wpa_auth;

	fputs("ap_config={\n", u->fp);
	ssid = uap_get(u, "wl_ssid");
	if (ssid == NULL || (ssid = UapEscape(ssid)) == NULL)
		return -1;
	fprintf(u->fp, "SSID=\"%s\"\n", ssid);
	if (put_band_channel(u) != 0 || put_mac_chanlist(u, count) != 0 ||
	    put_radio(u) != 0 || put_auth(u, &security, &wpa_auth) != 0 ||
	    put_wep_keys(u) != 0)
		return -1;
	return put_wpa_tail(u, security, wpa_auth, country, count);
}

/* The country code (first 3 characters) and its channel count; -1 when
 * the key does not parse. */
static int
country_count(struct uap *u, char country[4], int *count)
{
	const char *text;

	*count = 0;
	country[0] = '\0';
	text = uap_read(u, "wl_country", 1);
	if (text == NULL)
		return -1;
	if (text == uap_absent)
		puts("[WIFI] Country Code key not exist in sysconf!");
	else if (text[0] == '\0')
		puts("[WIFI] Country Code value error in sysconf!");
	else {
		strlcpy(country, text, 4);
		*count = wl_countryChanCount(DOMAIN_CONF, country);
	}
	return 0;
}

static void
uap_release(struct uap *u)
{
	while (u->nheld > 0)
		json_object_put(u->held[--u->nheld]);
}

int
wifi_ap_reconfig(void)
{
	struct uap u = {};
	char country[4];
	int off, count;

	if (is_value(&u, "wl", "off", &off) != 0 || off)
		goto out;
	uap_release(&u);
	if (country_count(&u, country, &count) != 0)
		goto out;
	u.fp = fopen(UAP_CONF, "w");
	if (u.fp == NULL)
		goto out;
	(void)put_conf(&u, country, count);
	fclose(u.fp);
	confSetf(CONF_RTCONF, "wl_radio", "%s", "");
out:
	uap_release(&u);
	return 0;
}

int
wifi_ap_start(void)
{
	do_system(UAPUTL " sys_cfg_11n 0");
	do_system(UAPUTL " sys_config " UAP_CONF);
	do_system(UAPUTL " sys_cfg_2040_coex 0");
	do_system(UAPUTL " sys_cfg_pkt_fwd_ctl 1");
	do_system(UAPUTL " bss_start >/dev/console 2>&1");
	return 0;
}

int
wifi_ap_stop(void)
{
	do_system(UAPUTL " bss_stop >/dev/console 2>&1");
	return 0;
}

int
wifi_ap_restart(void)
{
	wifi_ap_stop();
	wifi_ap_reconfig();
	return wifi_ap_start();
}

/* The radio as a whole: rewrite the file and start the BSS. */
int
wifi_start(void)
{
	wifi_ap_reconfig();
	return wifi_ap_start();
}

int
wifi_stop(void)
{
	return wifi_ap_stop();
}

int
wifi_restart(void)
{
	wifi_stop();
	return wifi_start();
}

/* 1 when sysconf "wl" reads other than "off". */
static int
wl_enabled(void)
{
	struct uap u = {};
	int off, ret;

	ret = is_value(&u, "wl", "off", &off) == 0 && !off;
	uap_release(&u);
	return ret;
}

int
wl_start(void)
{
	return wl_enabled() ? wifi_start() : 0;
}

int
wl_stop(void)
{
	return wifi_stop();
}

int
wl_restart(void)
{
	wl_stop();
	return wl_start();
}

int
wl_update(void)
{
	return wifi_ap_reconfig();
}

int
wl_setRadioOn(void)
{
	do_system(UAPUTL " sys_cfg_radio_ctl 1");
	return confSetf(CONF_RTCONF, "wl_radio", "\"on\"");
}

int
wl_setRadioOff(void)
{
	do_system(UAPUTL " sys_cfg_radio_ctl 0");
	return confSetf(CONF_RTCONF, "wl_radio", "\"off\"");
}

/* Inactivity-based power save with the firmware's default timings. */
int
wl_setpowersavemode(void)
{
	do_system(UAPUTL " pscfg 2");
	return 0;
}

const char *
_revalidate_wl(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *action;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL)
		return NULL;
	if (strcmp(action, "start") == 0)
		wl_start();
	else if (strcmp(action, "restart") == 0)
		wl_restart();
	else if (strcmp(action, "stop") == 0)
		wl_stop();
	else if (strcmp(action, "update") == 0)
		wl_update();
	return NULL;
}

const char *
_revalidate_wlRadio(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *action;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	printf("action:%s\n", action != NULL ? action : "(null)");
	puts("revalidate_setWlRadio");
	if (action == NULL)
		return NULL;
	if (strcmp(action, "on") == 0)
		wl_setRadioOn();
	else if (strcmp(action, "off") == 0)
		wl_setRadioOff();
	return NULL;
}

const char *
_revalidate_wlPowerSaveMode(struct json_object *value, struct json_object *reply_arguments,
			    void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *action;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	puts("revalidate_setWlPowerSaveMode");
	action = ipc_target_action(value);
	if (action != NULL && (strcmp(action, "start") == 0 || strcmp(action, "restart") == 0))
		wl_setpowersavemode();
	return NULL;
}
