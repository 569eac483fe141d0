// The access point: "/mnt/rwdata/uaputl.conf" written from the Wi-Fi
// settings, and the micro-AP utility that starts, stops and tunes it.
#include "wifi/ap.h"

#include <stdio.h>

#include <algorithm>
#include <vector>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/owned.h"
#include "core/util.h"
#include "ipc/target.h"

namespace hx::wifi {
namespace {

using conf::Store;

constexpr const char *uap_conf = "/mnt/rwdata/uaputl.conf";
constexpr const char *domain_conf = "/etc/config/80211d_domain.conf";

// A setting's text for the file; nullopt (missing unless optional, not
// JSON, or holding a newline) ends the file at that line.
std::optional<std::string> setting(const char *key, bool optional = false)
{
	return conf::file_text(Store::sysconf, key, optional);
}

std::optional<bool> is(const char *key, std::string_view expected)
{
	std::optional<std::string> text = setting(key);
	return text ? std::optional<bool>(*text == expected) : std::nullopt;
}

struct Country {
	std::string code;	// its first 3 characters
	int count = 0;		// channels in the table, 0 when not found
};

// One rewrite of the file: the text so far and what later lines depend on.
struct Uap {
	Country country;
	std::string out;
	bool band5 = false;
	int channel = 0;
	std::string security;
	std::optional<std::string> wpa_auth;	// with WPA security only

	// Appends "name=TEXT" with the text of key.
	bool put(const char *name, const char *key)
	{
		std::optional<std::string> text = setting(key);
		if (text)
			out += format("%s=%s\n", name, text->c_str());
		return text.has_value();
	}
};

bool put_ssid(Uap &u)
{
	u.out += "ap_config={\n";
	std::optional<std::string> ssid = setting("wl_ssid");
	if (ssid)
		u.out += "SSID=\"" + UapEscape(*ssid) + "\"\n";
	return ssid.has_value();
}

// Where the 40 MHz secondary channel lies, for the firmware: ",2" above,
// ",4" below, "" without one.
const char *channel_side(bool band5, int channel)
{
	if (!band5)
		return channel > 6 ? ",4" : ",2";
	switch (channel) {
	case 36: case 44: case 149: case 157:
		return ",2";
	case 40: case 48: case 153: case 161:
		return ",4";
	default:
		return "";
	}
}

bool put_band_channel(Uap &u)
{
	std::optional<std::string> band = setting("wl_band");
	if (!band)
		return false;
	u.band5 = *band == "5GHz";
	if (!u.band5 && *band != "2.4GHz")
		puts("Band Setting Error!");
	if (!u.put("BeaconPeriod", "wl_beacon_period"))
		return false;
	std::optional<std::string> channel = setting(u.band5 ? "wl_channel_5g" : "wl_channel");
	if (!channel)
		return false;
	u.channel = gw_atoi(channel->c_str());
	if (*channel == "0")
		u.out += "Channel=0 1\n";	// automatic selection
	else
		u.out += format("Channel=%s%s\n", channel->c_str(), channel_side(u.band5, u.channel));
	return true;
}

// The band's channels into the file and into "wl_channel_list": 1 to 11,
// or to 13 or 14 where the country allows them.
void put_channel_list(Uap &u)
{
	std::vector<int> channels{36, 40, 44, 48, 149, 153, 157, 161, 165};
	if (!u.band5) {
		int last = u.country.count == 13 || u.country.count == 14 ? u.country.count : 11;
		channels.clear();
		for (int c = 1; c <= last; c++)
			channels.push_back(c);
	}
	std::string list, json;
	for (int c : channels) {
		list += format("%s%d", list.empty() ? "" : ",", c);
		json += format("%s%d", json.empty() ? "[ " : ", ", c);
	}
	u.out += "ChanList=" + list + "\n";
	conf::set(Store::sysconf, "wl_channel_list", json + " ]");
}

bool put_mac_channels(Uap &u)
{
	std::optional<std::string> mac = setting("wl_ap_mac", true);
	if (!mac)
		return false;
	if (!mac->empty())
		u.out += "AP_MAC=" + *mac + "\n";
	put_channel_list(u);
	u.out += format("Band=%d\nRxAntenna=0\nTxAntenna=1\n", u.band5 ? 1 : 0);
	u.out += u.band5 ? "Rate=0x8c,0x98,0xb0,0x48,0x60,0x6c\n"
			 : "Rate=0x82,0x84,0x8b,0x96,0x0c,0x12,0x18,0x24,0x30,0x48,0x60,0x6c\n";
	return true;
}

bool put_radio(Uap &u)
{
	if (!u.put("TxPowerLevel", "wl_tx_power_level"))
		return false;
	std::optional<bool> broadcast = is("wl_broadcast_ssid", "on");
	if (!broadcast)
		return false;
	u.out += format("BroadcastSSID=%d\n", *broadcast ? 1 : 0);
	if (!u.put("RTSThreshold", "wl_rts_threshold") || !u.put("FragThreshold", "wl_frag_threshold") ||
	    !u.put("DTIMPeriod", "wl_dtim_period"))
		return false;
	u.out += "RadioControl=1\nMCBCdataRate=0\nTxDataRate=0\nPktFwdCtl=1\n"
		 "StaAgeoutTimer=1800\nPSStaAgeoutTimer=288000\n";
	tl::expected<json::Ptr, conf::Error> mode = conf::json(Store::sysconf, "wl_fw_mode");
	if (!mode)
		return false;
	int max = json_object_get_int(mode->get()) != 0 ? 8 : 6;
	u.out += format("MaxStaNum=%d\n", max);
	conf::setf(Store::sysconf, "wl_max_sta_number", "%d", max);
	std::optional<bool> preamble = is("wl_preamble_type", "short");
	if (!preamble)
		return false;
	u.out += format("PreambleType=%d\nRetrylimit=7\n", *preamble ? 0 : 1);
	return true;
}

const char *protocol_line(const std::string &wpa_auth)
{
	return wpa_auth == "wpapsk" ? "Protocol=8\n" : wpa_auth == "wpa2psk" ? "Protocol=32\n"
		: wpa_auth == "wpapskwpa2pskmixed" ? "Protocol=40\n" : "";
}

bool put_auth(Uap &u)
{
	std::optional<bool> open = is("wl_wep_auth_mode", "open");
	std::optional<std::string> security = open ? setting("wl_security") : std::nullopt;
	if (!security)
		return false;
	u.security = *security;
	u.out += format("AuthMode=%d\n", *open || u.security == "none" ? 0 : 1);
	if (u.security == "none") {
		u.out += "Protocol=1\n";
	} else if (u.security == "wep") {
		u.out += "Protocol=2\n";
	} else if (u.security == "wpapsk/wpa2psk") {
		u.wpa_auth = setting("wl_wpa_auth_mode");
		if (!u.wpa_auth)
			return false;
		u.out += protocol_line(*u.wpa_auth);
	}
	u.out += "RSNReplayProtection=0\nPairwiseUpdateTimeout=100\nPairwiseHandshakeRetries=3\n"
		 "GroupwiseUpdateTimeout=100\nGroupwiseHandshakeRetries=3\n";
	return true;
}

// A key of 5 or 13 characters is in ASCII form (quoted), any other length
// in hexadecimal.
bool put_wep_keys(Uap &u)
{
	if (!u.put("KeyIndex", "wl_wep_key_index"))
		return false;
	for (int i = 0; i < 4; i++) {
		std::optional<std::string> key = setting(format("wl_wep_key%d", i).c_str(), true);
		if (!key)
			return false;
		const char *quote = key->size() == 5 || key->size() == 13 ? "\"" : "";
		if (key->empty())
			u.out += format("Key_%d=0000000000\n", i);
		else
			u.out += format("Key_%d=%s%s%s\n", i, quote, UapEscape(*key).c_str(), quote);
	}
	return true;
}

void put_ciphers(Uap &u, const std::string &encryption)
{
	struct Cipher {
		std::string_view name;
		int pairwise, group;
	};
	static constexpr Cipher ciphers[] = {{"tkip", 4, 4}, {"aes", 8, 8}, {"tkipaesmixed", 12, 4}};
	const Cipher *c = std::find_if(std::begin(ciphers), std::end(ciphers),
				       [&](const Cipher &row) { return row.name == encryption; });
	if (c == std::end(ciphers))
		return;
	bool mixed = *u.wpa_auth == "wpapskwpa2pskmixed";
	if (mixed || *u.wpa_auth == "wpapsk")
		u.out += format("PwkCipherWPA=%d\n", c->pairwise);
	if (mixed || *u.wpa_auth == "wpa2psk")
		u.out += format("PwkCipherWPA2=%d\n", c->pairwise);
	u.out += format("GwkCipher=%d\n", c->group);
}

bool put_tail(Uap &u)
{
	std::optional<std::string> encryption = setting("wl_wpa_encryption");
	if (!encryption)
		return false;
	if (u.wpa_auth)
		put_ciphers(u, *encryption);
	std::optional<std::string> psk = setting("wl_wpa_key", true);
	if (!psk)
		return false;
	if (!psk->empty())
		u.out += "PSK=\"" + UapEscape(*psk) + "\"\n";
	u.out += "GroupRekeyTime= 86400\n";
	if (u.security == "wep" || *encryption == "tkip")
		u.out += "Enable11n=0\n";
	else
		u.out += format("Enable11n=1\nHTCapInfo=%s\nAMPDU=0x03\n",
				u.channel == 165 ? "0x117c" : "0x117e");
	u.out += format("11d_enable=1\ncountry=%s\n}\n",
			u.country.count != 0 ? u.country.code.c_str() : "US");
	u.out += "ap_mac_filter={\nFilterMode=0\nCount=0\n}\n";
	return true;
}

// The file in order; a step that meets a setting it cannot write ends it.
constexpr bool (*steps[])(Uap &) = {put_ssid, put_band_channel, put_mac_channels, put_radio,
				     put_auth, put_wep_keys, put_tail};

// nullopt when the setting does not parse (nothing is written then).
std::optional<Country> read_country()
{
	std::optional<std::string> code = setting("wl_country", true);
	if (!code)
		return std::nullopt;
	if (code->empty()) {
		// Missing and empty read alike as text; the record tells them apart.
		puts(conf::get(Store::sysconf, "wl_country") ? "[WIFI] Country Code value error in sysconf!"
							      : "[WIFI] Country Code key not exist in sysconf!");
		return Country{};
	}
	code->resize(std::min<size_t>(code->size(), 3));
	return Country{*code, country_channel_count(domain_conf, *code)};
}

constexpr const char *start_commands[] = {
	"/sbin/uaputl.exe sys_cfg_11n 0",
	"/sbin/uaputl.exe sys_config /mnt/rwdata/uaputl.conf",
	"/sbin/uaputl.exe sys_cfg_2040_coex 0",
	"/sbin/uaputl.exe sys_cfg_pkt_fwd_ctl 1",
	"/sbin/uaputl.exe bss_start >/dev/console 2>&1",
};

}  // namespace
}  // namespace hx::wifi

using hx::conf::Store;

std::string UapEscape(std::string_view value)
{
	std::string out;
	for (char c : value) {
		if (c == ',' || c == '=')
			out += '\\';
		out += c;
	}
	return out;
}

int wifi_ap_reconfig()
{
	using namespace hx::wifi;
	std::optional<bool> off = is("wl", "off");
	if (!off || *off)
		return 0;
	std::optional<Country> country = read_country();
	if (!country)
		return 0;
	hx::FilePtr file = hx::open_file(uap_conf, "w");
	if (!file)
		return 0;
	Uap u;
	u.country = std::move(*country);
	for (bool (*step)(Uap &) : steps)
		if (!step(u))
			break;
	fwrite(u.out.data(), 1, u.out.size(), file.get());
	file.reset();
	hx::conf::set(Store::rtconf, "wl_radio", "");
	return 0;
}

int wifi_ap_start()
{
	for (const char *command : hx::wifi::start_commands)
		do_system(command);
	return 0;
}

int wifi_ap_stop()
{
	do_system("/sbin/uaputl.exe bss_stop >/dev/console 2>&1");
	return 0;
}

int wifi_ap_restart()
{
	wifi_ap_stop();
	wifi_ap_reconfig();
	return wifi_ap_start();
}

int wifi_start()
{
	wifi_ap_reconfig();
	return wifi_ap_start();
}

int wifi_stop()
{
	return wifi_ap_stop();
}

int wifi_restart()
{
	wifi_stop();
	return wifi_start();
}

// Starts the radio unless "wl" is "off" or cannot be read.
int wl_start()
{
	std::optional<bool> off = hx::wifi::is("wl", "off");
	return off && !*off ? wifi_start() : 0;
}

int wl_stop()
{
	return wifi_stop();
}

int wl_restart()
{
	wl_stop();
	return wl_start();
}

int wl_update()
{
	return wifi_ap_reconfig();
}

int wl_setRadioOn()
{
	do_system("/sbin/uaputl.exe sys_cfg_radio_ctl 1");
	return hx::conf::set(Store::rtconf, "wl_radio", "\"on\"");
}

int wl_setRadioOff()
{
	do_system("/sbin/uaputl.exe sys_cfg_radio_ctl 0");
	return hx::conf::set(Store::rtconf, "wl_radio", "\"off\"");
}

// Inactivity-based power save with the firmware's default timings.
int wl_setpowersavemode()
{
	do_system("/sbin/uaputl.exe pscfg 2");
	return 0;
}

namespace {

using hx::ipc::Action;
using hx::ipc::run;

constexpr Action wl_actions[] = {
	{"start", run<wl_start>},
	{"restart", run<wl_restart>},
	{"stop", run<wl_stop>},
	{"update", run<wl_update>},
};
constexpr Action radio_actions[] = {{"on", run<wl_setRadioOn>}, {"off", run<wl_setRadioOff>}};
constexpr Action power_save_actions[] = {
	{"start", run<wl_setpowersavemode>},
	{"restart", run<wl_setpowersavemode>},
};

// The radio target traces its action whatever it is, even when missing.
void announce_radio(const char *action)
{
	printf("action:%s\n", action);
	puts("revalidate_setWlRadio");
}

}  // namespace

const char *_revalidate_wl(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {wl_actions});
}

const char *_revalidate_wlRadio(json_object *value, json_object *, void *)
{
	if (const char *error = hx::ipc::check_target(value, "invalid arguments"))
		return error;
	if (!hx::json::string_member(value, "action"))
		announce_radio("(null)");
	hx::ipc::Target radio{radio_actions};
	radio.announce = announce_radio;
	return hx::ipc::run_target(value, radio);
}

const char *_revalidate_wlPowerSaveMode(json_object *value, json_object *, void *)
{
	if (const char *error = hx::ipc::check_target(value, "invalid arguments"))
		return error;
	puts("revalidate_setWlPowerSaveMode");
	return hx::ipc::run_target(value, {power_save_actions});
}
