// The two saved hotspot profiles.
#ifndef HX_WIFI_PROFILES_H
#define HX_WIFI_PROFILES_H

struct json_object;

// Remembers the hotspot in use (called once the station has an address).
int gw_profiles_set();
// Forgets each SSID of the JSON array essids, or all for an empty array.
int gw_profiles_forget(json_object *essids);
int profile_set();
// essid_text: the SSID's JSON text, quotes included.
int profile_forget(const char *essid_text);
int profiles_forget_all();
// Stops the WAN when it is up on the hotspot essid_text.
int gw_wan_status_check(const char *essid_text);
const char *_revalidate_apProfiles(json_object *value, json_object *reply_arguments, void *deferred);

namespace hx::wifi {
// The keys of the two remembered hotspots, older first: SSID, security
// word, pass phrase, trust mode.
inline constexpr const char *slot_keys[2][4] = {
	{"wan_sta_ssid1", "wan_sta_sec1", "wan_sta_pass1", "wan_sta_trustmode1"},
	{"wan_sta_ssid2", "wan_sta_sec2", "wan_sta_pass2", "wan_sta_trustmode2"},
};
// The WAN types that use the station, and the trust-mode text that the
// profile slots keep for each.
struct TrustMode {
	const char *wan_type;
	const char *text;
};
inline constexpr TrustMode trust_modes[] = {
	{"wireless_sta_trust", "Station Mode"},
	{"wireless_sta", "Public Bridge Mode"},
	{"wireless_sta_private", "Private Bridge Mode"},
};
}  // namespace hx::wifi

#endif
