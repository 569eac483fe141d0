// Station mode: the supplicant's file, connecting and disconnecting with
// either tool chain, the DHCP client, the supplicant's events, and starting
// and stopping the supplicant itself (target "wpa").
#include "wifi/sta.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/owned.h"
#include "core/util.h"
#include "ipc/target.h"
#include "wifi/ap.h"
#include "wifi/scan.h"

namespace {

using hx::conf::Store;
using Text = tl::expected<std::string, hx::conf::Error>;

constexpr const char *wpa_conf = "/etc/wpa_supplicant.conf";
constexpr const char *wpa_socket = "/var/run/wpa_supplicant/mlan0";
constexpr const char *wpa_pid = "/var/run/wpa_supplicant.pid";
constexpr size_t cmd_size = 512;

int nothing() { return 0; }
int nothing_for(const char *, int) { return 0; }
hx::wifi::WanLink wan = {nothing, nothing, nothing_for, nothing};

enum class Tool { none, wt, wpa };

// rtconf "wl_tool_type", set by the device's start-up scripts: absent,
// unreadable or any other word is no tool at all.
Tool tool_type()
{
	Text name = hx::conf::text(Store::rtconf, "wl_tool_type");
	return !name ? Tool::none : *name == "WT" ? Tool::wt : *name == "WPA" ? Tool::wpa : Tool::none;
}

enum class Sec { other, wpa, open, wep };

// Security words are known by their beginning, "none" before "on".
Sec security(std::string_view word)
{
	if (word.starts_with("wpapsk") || word.starts_with("WPA"))
		return Sec::wpa;
	if (word.starts_with("none"))
		return Sec::open;
	if (word.starts_with("on") || word.starts_with("WEP"))
		return Sec::wep;
	return Sec::other;
}

Text sys(const char *key) { return hx::conf::text(Store::sysconf, key); }

std::optional<std::string_view> view(const Text &text)
{
	return text ? std::optional<std::string_view>(*text) : std::nullopt;
}

void put_quoted(FILE *file, const char *name, std::string_view value)
{
	fprintf(file, "\t%s=\"%.*s\"\n", name, static_cast<int>(value.size()), value.data());
}

void put_network(FILE *file, const StaNetworkParams &p)
{
	put_quoted(file, "ssid", *p.ssid);
	Sec sec = security(*p.sec);
	if (sec == Sec::wpa) {
		fputs("\tkey_mgmt=WPA-PSK\n", file);
		put_quoted(file, "psk", *p.pass);
	} else if (sec == Sec::open) {
		fputs("\tkey_mgmt=NONE\n", file);
	} else if (sec == Sec::wep) {
		fputs("\tkey_mgmt=NONE\n\tauth_alg=OPEN SHARED\n", file);
		put_quoted(file, "wep_key0", *p.pass);
		fputs("\twep_tx_keyidx=0\n", file);
	}
	fputs("\tscan_ssid=1\n", file);
}

// The security command of the wireless tools, with texts escaped for it.
int wt_security(Sec sec, const char *ssid, const char *pass)
{
	if (sec == Sec::wpa)
		return do_systemf(cmd_size, "/usr/sbin/iwpriv mlan0 passphrase '1;ssid=%s;passphrase=%s'",
				  ssid, pass);
	if (sec != Sec::open && sec != Sec::wep)
		return 0;
	bool open = sec == Sec::open;
	if ((open ? do_systemf(cmd_size, "/usr/sbin/iwpriv mlan0 passphrase '2;ssid=%s'", ssid)
		  : do_systemf(cmd_size, "/usr/sbin/iwconfig mlan0 key '%s'", pass)) != 0)
		return -1;
	do_system(open ? "/usr/sbin/iwconfig mlan0 key off" : "/usr/sbin/iwconfig mlan0 key on");
	return 0;
}

int wt_associate()
{
	Text sec = sys("wan_sta_sec"), ssid = sys("wan_sta_ssid"), pass = sys("wan_sta_pass");
	if (!sec || !ssid || !pass)
		return -1;
	constexpr unsigned int flags = ESCAPE_QUOTE | ESCAPE_SEMICOLON | ESCAPE_SLASH;
	std::string s = _escape_delimiter(*ssid, flags), p = _escape_delimiter(*pass, flags);
	if (wt_security(security(*sec), s.c_str(), p.c_str()) != 0)
		return -1;
	std::string essid = _escape_delimiter(*ssid, ESCAPE_QUOTE);
	return do_systemf(cmd_size, "/usr/sbin/iwconfig mlan0 essid '%s'", essid.c_str());
}

int wt_connect()
{
	if (wt_associate() != 0) {
		puts("WiFi: Wireless Link disconnected.");
		hx::wifi::wan_link().stop();
	} else {
		puts("WiFi: Wireless Link connected.");
		wifi_sta_get_ip();
	}
	return 0;
}

// Sends cmd to the supplicant, printing failed when it is not taken.
bool request(const char *cmd, const char *failed)
{
	if (wpa_cli_send(cmd, nullptr, nullptr) == 0)
		return true;
	puts(failed);
	return false;
}

int wpa_select()
{
	Text ssid = sys("wan_sta_ssid"), pass = sys("wan_sta_pass"), sec = sys("wan_sta_sec");
	if ((!ssid || ssid->empty()) && (!sec || sec->empty()))
		return -1;
	if (wifi_sta_reconfig({view(sec), view(ssid), view(pass)}) != 0)
		return -1;
	return request("RECONFIGURE", "WiFi: Send reconfigure to WPA failed") &&
	       request("SELECT_NETWORK 0", "WiFi: Send select network to WPA failed") ? 0 : -1;
}

void rt_set(const char *key, std::string_view text) { hx::conf::set(Store::rtconf, key, text); }

void status_reason(const char *reason)
{
	rt_set("wifi_sta_status", "\"Disconnected\"");
	rt_set("wifi_sta_reason", reason);
}

// The fall-back to the second hotspot, while it is armed.
void auto_retry()
{
	Text armed = hx::conf::text(Store::rtconf, "wan_auto_retry_times");
	if (armed && *armed == "1")
		hx::wifi::wan_link().fallback();
}

void disconnected()
{
	hx::wifi::wan_link().services_stop();
	wifi_ap_start();
	status_reason("0");
	if (Text lan_if = hx::conf::text(Store::rtconf, "lan_if")) {
		hx::wifi::wan_link().ctrl_interface(lan_if->c_str(), 1);
		auto_retry();
	}
}

struct StaEvent {
	std::string_view name;
	void (*run)();
};

constexpr StaEvent sta_events[] = {
	{"CTRL-EVENT-CONNECTED ", [] { wifi_sta_get_ip(); rt_set("wan_auto_retry_times", "0"); }},
	{"CTRL-EVENT-DISCONNECTED ", disconnected},
	{"CTRL-EVENT-ASSOC-REJECT ", [] { status_reason("2"); }},
	{"CTRL-EVENT-SSID-TEMP-DISABLED ", [] { status_reason("1"); }},
	{"CTRL-EVENT-SSID-NO-MATCH ", [] { status_reason("2"); auto_retry(); }},
};

int tdls_event(const char *event, const char *arg, wpa_cli_eh *slot)
{
	wpa_tdls_event_handler(event, arg, slot);
	return 0;
}

// Waits up to 5 s until path exists (or, when gone, no longer exists).
bool wait_path(const char *path, bool gone)
{
	constexpr timespec step{0, 50 * 1000 * 1000};
	for (int i = 0; i < 100; i++) {
		if ((access(path, F_OK) == 0) != gone)
			return true;
		nanosleep(&step, nullptr);
	}
	return false;
}

// rtconf "wl_wpa_driver", absent for the driver's own nl80211 and wext
// interfaces.  It reaches the shell unquoted: only lower-case letters,
// digits, '_' and ',' pass, and at most 63 of them.
std::optional<std::string> wpa_driver()
{
	Text name = hx::conf::text(Store::rtconf, "wl_wpa_driver");
	if (!name && name.error() == hx::conf::Error::bad_json)
		return std::nullopt;
	std::string driver = name ? *name : "nl80211,wext";
	if (driver.empty() || driver.size() >= 64 ||
	    driver.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_,") != driver.npos)
		return std::nullopt;
	return driver;
}

// Starts the supplicant idle (no network) unless it runs already.
int supplicant_run()
{
	if (access(wpa_socket, F_OK) == 0)
		return 0;
	std::optional<std::string> driver = wpa_driver();
	if (!driver || wifi_sta_reconfig({}) != 0)
		return -1;
	if (do_system(hx::format("wpa_supplicant -B -P %s -D %s -i mlan0 -c %s >/dev/console 2>&1",
				 wpa_pid, driver->c_str(), wpa_conf).c_str()) != 0)
		return -1;
	// The daemonised child writes the pid file after the socket exists.
	return wait_path(wpa_socket, false) && wait_path(wpa_pid, false) ? 0 : -1;
}

constexpr hx::ipc::Action wpa_actions[] = {
	{"start", hx::ipc::run_checked<gw_wpa_start>},
	{"stop", hx::ipc::run<gw_wpa_stop>},
};

}  // namespace

void hx::wifi::set_wan_link(const WanLink &link) { wan = link; }
const hx::wifi::WanLink &hx::wifi::wan_link() { return wan; }

int wifi_sta_reconfig(const StaNetworkParams &p)
{
	// The supplicant reads a quoted value up to the last quote of its line,
	// so quotes inside are the value's own; a newline would add a line.
	for (auto text : {p.ssid, p.pass})
		if (text && text->find('\n') != text->npos)
			return -1;
	hx::FilePtr file = hx::open_file(wpa_conf, "w");
	if (!file) {
		printf("WiFi: wifi_sta_reconfig, open %s file failed\n", wpa_conf);
		return -1;
	}
	fputs("update_config=1\nctrl_interface=/var/run/wpa_supplicant\nap_scan=1\n"
	      "ctrl_interface_group=0\nbss_expiration_age=600\n\nnetwork={\n", file.get());
	if (p.sec && p.ssid && p.pass)
		put_network(file.get(), p);
	fputs("}\n", file.get());
	file.reset();
	puts("WiFi: wifi_sta_reconfig, Configuration file updated successfully");
	return 0;
}

int wifi_sta_connect()
{
	switch (tool_type()) {
	case Tool::wt:
		return wt_connect();
	case Tool::wpa:
		if (wpa_select() == 0)
			return 0;
		puts("WiFi: Do STA connect by wpa_supplicant failed");
		return -1;
	case Tool::none:
		break;
	}
	puts("WiFi: Error, Wireless tool type is none");
	return 0;
}

int wifi_sta_disconnect()
{
	switch (tool_type()) {
	case Tool::wt:
		do_system("iwpriv mlan0 deauth");
		return 0;
	case Tool::wpa:
		return request("REMOVE_NETWORK 0", "WiFi: Send REMOVE to WPA failed") ? 0 : -1;
	case Tool::none:
		break;
	}
	puts("WiFi: Error, None wireless tool type");
	return 0;
}

int wl_connect() { return wifi_sta_connect(); }
int wl_disconnect() { return wifi_sta_disconnect(); }

int wifi_sta_get_ip()
{
	do_system("udhcpc -i mlan0 -H $(/bin/hostname) -p /var/run/udhcpc.pid -b "
		  "-s /etc/app/gw_udhcpc.script -S &");
	return 0;
}

int wpa_ctrl_event_handler(const char *event, const char *, wpa_cli_eh *)
{
	if (event == nullptr)
		return 0;
	auto e = std::find_if(std::begin(sta_events), std::end(sta_events),
			      [&](const StaEvent &s) { return s.name == event; });
	if (e != std::end(sta_events))
		e->run();
	return 0;
}

int wifi_sta_wpa_if_init()
{
	if (wpa_cli_init() != 0)
		return -1;
	wpa_cli_eh_register("CTRL", wpa_ctrl_event_handler);
	wpa_cli_eh_register("TDLS", tdls_event);
	return 0;
}

void wifi_sta_wpa_if_deinit() { wpa_cli_deinit(); }

int gw_wpa_start()
{
	if (supplicant_run() != 0)
		return -1;
	return wifi_sta_wpa_if_init();
}

int gw_wpa_stop()
{
	wifi_sta_wpa_if_deinit();
	if (access(wpa_pid, F_OK) == 0 && kill_pidfile(wpa_pid) == 0)
		wait_path(wpa_socket, true);
	return 0;
}

const char *_revalidate_wpa(json_object *value, json_object *, void *)
{
	if (const char *error = hx::ipc::check_target(value, "invalid arguments"))
		return error;
	// Unlike the other services' targets, a missing action is an error.
	if (!hx::json::string_member(value, "action"))
		return "internal error";
	return hx::ipc::run_target(value, {wpa_actions});
}
