// Wi-Fi scanning, the access-point lists, the station's link, TDLS peer
// links and cut-through.
#ifndef HX_WIFI_SCAN_H
#define HX_WIFI_SCAN_H

#include <stddef.h>

#include <string>
#include <string_view>
#include <vector>

struct json_object;

namespace hx::wifi {

inline constexpr size_t scan_cell_max = 64;

// One access point of an "iwlist mlan0 scan" listing.
struct ScanCell {
	std::string bssid;
	std::string ssid;	// at most 32 bytes
	int channel = 0;
	int signal = 0;		// dBm
	unsigned flags = 0;	// the security elements seen so far

	// "NONE", "WEP", "WPA-PSK", "WPA2-PSK", "WPA/WPA2-PSK", or the same
	// with "-EAP".
	std::string security() const;
};
struct ScanList {
	std::vector<ScanCell> cells;
	bool full = false;	// a further cell was dropped
};

// One line of the listing: "Cell NN - Address: MAC" starts a cell (dropped
// once the list is full), the lines after it fill it.
void parse_scan_line(std::string_view line, ScanList &list);
// Whether text begins with "xx:xx:xx:xx:xx:xx" (hexadecimal digits).
bool is_mac_prefix(std::string_view text);
// The channel of a frequency field "2.437 GHz" (0 when unknown).
int freq_channel(std::string_view field);

// The station's link as "iwconfig mlan0" shows it; no bssid when it is not
// associated ("Access Point: Not-Associated").
struct Link {
	std::string ssid;
	std::string bssid;
	std::string bitrate;
	int channel = 0;
	int signal = 0;
};
void parse_link_line(std::string_view line, Link &link);
// The N of a "Channel = N" line of "uaputl.exe sys_config", else 0.
int sys_config_channel(std::string_view line);

}  // namespace hx::wifi

// The handler of the supplicant's "TDLS" events.
void wpa_tdls_event_handler(const char *event, const char *arg, void *slot);
// Sends "TDLS_SETUP <peer>" to the supplicant; -1 (refused) while a TDLS
// link is being set up, for a peer that is not a MAC address or when the
// request fails, else 0.
int wifi_sta_tdls_setup(const char *peer);

const char *info_s_aplist(json_object *name, json_object *infos, void *context);
const char *info_s_scanap(json_object *name, json_object *infos, void *context);
const char *info_s_scanapresult(json_object *name, json_object *infos, void *context);
const char *info_s_staconninfo(json_object *name, json_object *infos, void *context);
const char *info_s_wl_channel(json_object *name, json_object *infos, void *context);
const char *info_s_scantdlsdevice(json_object *name, json_object *infos, void *context);
const char *info_s_scantdlsdeviceresult(json_object *name, json_object *infos, void *context);
const char *info_s_tdlsstatus(json_object *name, json_object *infos, void *context);
const char *info_cutthrough_status(json_object *name, json_object *infos, void *context);
const char *_revalidate_tdls(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_cutThrough(json_object *value, json_object *reply_arguments, void *deferred);

#endif
