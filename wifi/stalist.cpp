/* The access point's associated stations, from the micro-AP utility
 * (used by the status item "s_stalist", Part 2.5). */
#include <stdio.h>

#include "core/util.h"
#include "wifi/wifi.h"

void
wl_staListParseLine(const char *line, struct wl_sta_list *list)
{
	char text[18];
	struct wl_sta *last;

	if (list->count < 0 || list->count > WL_STA_MAX)
		return;
	last = list->count > 0 ? &list->sta[list->count - 1] : NULL;
	if (sscanf(line, "MAC Address: %17s", text) == 1) {
		if (list->count == WL_STA_MAX)
			return;
		last = &list->sta[list->count++];
		strlcpy(last->mac, text, sizeof(last->mac));
		last->rssi[0] = '\0';
	} else if (sscanf(line, "Rssi : %5s dBm", text) == 1 && last != NULL &&
		   last->rssi[0] == '\0') {
		strlcpy(last->rssi, text, sizeof(last->rssi));
	}
}

int
wl_getStaList(struct wl_sta_list *list)
{
	char line[256];
	FILE *fp;

	list->count = 0;
	fp = popen("/sbin/uaputl.exe sta_list", "r");
	if (fp == NULL)
		return -1;
	while (fgets(line, sizeof(line), fp) != NULL)
		wl_staListParseLine(line, list);
	pclose(fp);
	return 0;
}
