/* Subsystem 5, Wi-Fi: the parts used so far. */
#ifndef HX_WIFI_WIFI_H
#define HX_WIFI_WIFI_H

#define WL_STA_MAX 32

/* The access point's associated stations ("/sbin/uaputl.exe sta_list"). */
struct wl_sta {
	char mac[18];
	char rssi[6];
};
struct wl_sta_list {
	int count;
	struct wl_sta sta[WL_STA_MAX];
};
/* Fills list from the utility's output; sets count also on failure
 * (Part 2.5): 0, or -1 when the utility cannot be run. */
int wl_getStaList(struct wl_sta_list *list);
/* One line of that output: "MAC Address: %s" starts a station (ignored
 * once the list is full), "Rssi : %s dBm" gives the last one its signal. */
void wl_staListParseLine(const char *line, struct wl_sta_list *list);

/* TDLS peer links (wifi/tdls.c; not specified further).  The handler of
 * the "TDLS" supplicant events (Part 5.1's handler signature). */
void wpa_tdls_event_handler(const char *event, const char *arg, void *slot);
/* Sends "TDLS_SETUP <peer>" to the supplicant; -1 (refused) while a TDLS
 * link is being set up or when the request fails, else 0. */
int wifi_sta_tdls_setup(const char *peer);


/* Part 5.1: the WPA supplicant control client (wifi/wpacli.c). */
#include <stddef.h>
struct wpa_cli_eh;
/* (canonical event name with its trailing blank, argument or NULL, its own
 * slot); the result is ignored. */
typedef int (*wpa_cli_eh_fn)(const char *event, const char *arg,
			     struct wpa_cli_eh *slot);
struct wpa_cli_eh {
	const char *prefix;
	wpa_cli_eh_fn handler;
};
int wpa_cli_init(void);
void wpa_cli_deinit(void);
int wpa_cli_send(const char *cmd, char *reply, size_t *reply_len);
int wpa_cli_eh_register(const char *prefix, wpa_cli_eh_fn handler);
/* One event message as the event reader dispatches it (exposed for tests). */
void wpa_cli_event_dispatch(const char *msg);

/* Part 5.3: access point configuration (wifi/ap.c). */
struct json_object;
/* Writes "/mnt/rwdata/uaputl.conf" from the sysconf Wi-Fi keys; 0 (also
 * when "wl" is "off", a key does not parse or the file cannot be opened). */
int wifi_ap_reconfig(void);
int wifi_ap_start(void);
int wifi_ap_stop(void);
int wifi_ap_restart(void);
int wl_start(void);
int wl_stop(void);
int wl_restart(void);
int wl_update(void);
int wl_setRadioOn(void);
int wl_setRadioOff(void);
int wl_setpowersavemode(void);
int wifi_start(void);
int wifi_stop(void);
int wifi_restart(void);
/* value with "," and "=" escaped; valid until the next call (NULL when out of memory). */
char *UapEscape(const char *value);
/* The channel count of country in the country table at path (Part 5.3's
 * "Channel count by country", with its messages); 0 when not found. */
int wl_countryChanCount(const char *path, const char *country);
const char *_revalidate_wl(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_wlRadio(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_wlPowerSaveMode(struct json_object *value, struct json_object *reply_arguments, void *deferred);

/* Part 5.4 */
struct json_object;
int gw_profiles_set(void);
int gw_profiles_forget(struct json_object *essids);
int profile_set(void);
int profile_forget(const char *essid_text);
int profiles_forget_all(void);
int gw_wan_status_check(const char *essid_text);
const char *_revalidate_apProfiles(struct json_object *value, struct json_object *reply_arguments, void *deferred);

/* Part 5.2: station mode (wifi/sta.c). */
struct json_object;
typedef struct {
	const char *sec;	/* security word */
	const char *ssid;
	const char *pass;	/* pass phrase or WEP key */
} StaNetworkParams;
int wl_connect(void);
int wl_disconnect(void);
int wifi_sta_connect(void);
int wifi_sta_disconnect(void);
/* Writes "/etc/wpa_supplicant.conf": 0, -1 when it cannot be opened or a
 * value holds a newline or a double quote (README, safety choices). */
int wifi_sta_reconfig(StaNetworkParams *params);
int wifi_sta_get_ip(void);
int wifi_sta_wpa_if_init(void);
void wifi_sta_wpa_if_deinit(void);
int gw_wpa_start(void);
int gw_wpa_stop(void);
int wpa_ctrl_event_handler(const char *event, const char *arg, struct wpa_cli_eh *slot);
const char *_revalidate_wpa(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif
