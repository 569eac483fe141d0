// The access point: its configuration file, the driver control, the
// associated stations and the country table.
#ifndef HX_WIFI_AP_H
#define HX_WIFI_AP_H

#include <array>
#include <optional>
#include <string>
#include <string_view>

struct json_object;

// The access point's associated stations ("/sbin/uaputl.exe sta_list"),
// each field as the utility prints it, bounded.
inline constexpr int WL_STA_MAX = 32;
struct wl_sta {
	char mac[18];
	char rssi[6];
};
struct wl_sta_list {
	int count;
	std::array<wl_sta, WL_STA_MAX> sta;
};
// Fills list from the utility's output; sets count also on failure: 0, or
// -1 when the utility cannot be run.
int wl_getStaList(wl_sta_list *list);
// One line of that output: "MAC Address: %s" starts a station (ignored
// once the list is full), "Rssi : %s dBm" gives the last one its signal.
void wl_staListParseLine(std::string_view line, wl_sta_list *list);

// Writes "/mnt/rwdata/uaputl.conf" from the Wi-Fi settings; 0 (also when
// "wl" is "off", a setting does not parse or the file cannot be opened).
int wifi_ap_reconfig();
int wifi_ap_start();
int wifi_ap_stop();
int wifi_ap_restart();
int wl_start();
int wl_stop();
int wl_restart();
int wl_update();
int wl_setRadioOn();
int wl_setRadioOff();
int wl_setpowersavemode();
int wifi_start();
int wifi_stop();
int wifi_restart();
// value with a backslash before each "," and "=".
std::string UapEscape(std::string_view value);

const char *_revalidate_wl(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_wlRadio(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_wlPowerSaveMode(json_object *value, json_object *reply_arguments,
					void *deferred);

namespace hx::wifi {

// What the country table says of a country: whether it is listed, and the
// channel count of its domain's last entry (nullopt for a malformed entry).
struct CountryEntry {
	bool listed = false;
	std::optional<int> count;
};
CountryEntry find_country_channels(std::string_view table, std::string_view country);

// The channel count of country in the table file at path, with the
// lookup's messages on standard output; 0 when it is not found.
int country_channel_count(const char *path, const std::string &country);

}  // namespace hx::wifi

#endif
