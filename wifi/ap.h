// The access point: its configuration file, the driver control, the
// associated stations and the country table.
#ifndef HX_WIFI_AP_H
#define HX_WIFI_AP_H

struct json_object;

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

#endif
