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

#endif
