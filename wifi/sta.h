// Station mode: joining a hotspot through the supplicant or the wireless
// tools, and the supplicant's events.
#ifndef HX_WIFI_STA_H
#define HX_WIFI_STA_H

#include <optional>
#include <string_view>

#include "wifi/wpacli.h"

struct json_object;

// The network written into the supplicant's file; the network block stays
// empty unless all three texts are there.
struct StaNetworkParams {
	std::optional<std::string_view> sec;	// security word
	std::optional<std::string_view> ssid;
	std::optional<std::string_view> pass;	// pass phrase or WEP key
};

int wl_connect();
int wl_disconnect();
int wifi_sta_connect();
int wifi_sta_disconnect();
// Writes "/etc/wpa_supplicant.conf": 0, -1 when it cannot be opened or the
// SSID or pass phrase holds a newline.
int wifi_sta_reconfig(const StaNetworkParams &params);
int wifi_sta_get_ip();
// Attaches to the supplicant (once) and registers the station's and the
// TDLS handlers (on every call).
int wifi_sta_wpa_if_init();
void wifi_sta_wpa_if_deinit();
int gw_wpa_start();
int gw_wpa_stop();
int wpa_ctrl_event_handler(const char *event, const char *arg, wpa_cli_eh *slot);
const char *_revalidate_wpa(json_object *value, json_object *reply_arguments, void *deferred);

namespace hx::wifi {
// What the station asks of the WAN that drives it.  The WAN installs its
// own functions at start-up; until then the requests do nothing.
struct WanLink {
	int (*stop)();			// the connect failed, or its hotspot was forgotten
	int (*services_stop)();		// the link went down
	int (*ctrl_interface)(const char *ifname, int up);
	int (*fallback)();		// the one switch to the second remembered hotspot
};
void set_wan_link(const WanLink &link);
const WanLink &wan_link();
}  // namespace hx::wifi

#endif
