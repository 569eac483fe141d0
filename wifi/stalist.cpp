// The access point's associated stations, from the micro-AP utility.
#include <stdio.h>

#include <string>

#include "core/owned.h"
#include "wifi/ap.h"
#include "wifi/lines.h"

void wl_staListParseLine(std::string_view line, wl_sta_list *list)
{
	if (list->count < 0 || list->count > WL_STA_MAX)
		return;
	std::string text(line);
	wl_sta sta{};
	if (sscanf(text.c_str(), "MAC Address: %17s", sta.mac) == 1) {
		if (list->count < WL_STA_MAX)
			list->sta[list->count++] = sta;
	} else if (list->count > 0 && list->sta[list->count - 1].rssi[0] == '\0') {
		sscanf(text.c_str(), "Rssi : %5s dBm", list->sta[list->count - 1].rssi);
	}
}

int wl_getStaList(wl_sta_list *list)
{
	list->count = 0;
	hx::PipePtr out = hx::open_pipe("/sbin/uaputl.exe sta_list", "re");
	if (!out)
		return -1;
	hx::wifi::each_piece(out.get(), [list](std::string_view piece) { wl_staListParseLine(piece, list); });
	return 0;
}
