// LAN and WAN control: the LAN bridge, the WAN modes over the station, the
// services that follow the upstream link, the choice between the two
// remembered hotspots and the system events of the DHCP client scripts.
#include "net/lanwan.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "conf/confdb.h"
#include "conf/store.h"
#include "core/fmt.h"
#include "core/util.h"
#include "ipc/target.h"
#include "net/dhcp.h"
#include "net/ifstat.h"
#include "wifi/ap.h"
#include "wifi/profiles.h"
#include "wifi/scan.h"
#include "wifi/sta.h"

namespace {

using hx::conf::Store;
using Text = tl::expected<std::string, hx::conf::Error>;

constexpr size_t cmd_size = 256;
constexpr size_t field_size = 64;

// Settings are read into fields of 64 bytes: a longer text is cut there.
Text field(Text text)
{
	if (text && text->size() >= field_size)
		text->resize(field_size - 1);
	return text;
}

Text sys(const char *key) { return field(hx::conf::text(Store::sysconf, key)); }
Text rt(const char *key) { return field(hx::conf::text(Store::rtconf, key)); }
void rt_set(const char *key, std::string_view text) { hx::conf::set(Store::rtconf, key, text); }

// A stored interface name or address reaches the shell unquoted: one with
// a character the shell would interpret is refused like a key that cannot
// be read.
std::optional<std::string> sys_word(const char *key)
{
	Text text = sys(key);
	if (!text)
		return std::nullopt;
	if (gwutil_shell_safe(text->c_str()))
		return std::move(*text);
	printf("%s refused: unsafe characters\n", key);
	return std::nullopt;
}

int set_lan_if(const char *lan_if)
{
	return hx::conf::set(Store::rtconf, "lan_if", hx::format("\"%s\"", lan_if));
}

int lan_set_bridge(const char *lan_if, const char *wan_if)
{
	dhcp_stop();
	wan_stop();
	if (do_systemf(cmd_size, "/usr/sbin/brctl addif %s %s", lan_if, wan_if) != 0 ||
	    do_systemf(cmd_size, "/sbin/udhcpc -i  %s -H $(/bin/hostname) -p /var/run/udhcpc_lan.pid"
		       " -b -s /etc/app/gw_udhcpc_lan.script -S &", lan_if) != 0)
		return -1;
	return set_lan_if(lan_if);
}

int lan_set_router(const std::string &lan_if)
{
	std::optional<std::string> ipaddr = sys_word("lan_ipaddr");
	std::optional<std::string> netmask = ipaddr ? sys_word("lan_netmask") : std::nullopt;
	if (!netmask || do_systemf(cmd_size, "/sbin/ifconfig %s %s netmask %s ", lan_if.c_str(),
				   ipaddr->c_str(), netmask->c_str()) != 0)
		return -1;
	Text stp = sys("lan_bridgestp");
	const char *lan = lan_if.c_str();
	const char *on = stp && *stp == "on" ? "on" : "off";
	if (do_systemf(cmd_size, "/usr/sbin/brctl stp %s %s", lan, on) != 0 ||
	    do_systemf(cmd_size, "/usr/sbin/brctl setfd %s 0", lan) != 0 ||
	    do_systemf(cmd_size, "/usr/sbin/brctl sethello %s 1", lan) != 0 || set_lan_if(lan) != 0)
		return -1;
	do_system("/usr/sbin/lan_callup.sh > /dev/console 2>&1 &");
	return 0;
}

struct WanMode {
	std::string_view type;
	const char *line;
	bool station;
};

constexpr WanMode wan_modes[] = {
	{"none", "[SYS] Enter AP only mode.", false},
	{"wireless_sta_trust", "[SYS] Enter STA only mode.", true},
	{"wireless_sta", "[SYS] Enter Public Bridge (AP+STA, firewall open) mode.", true},
	{"wireless_sta_private", "[SYS] Enter Public Bridge (AP+STA, firewall close) mode.", true},
};

// A slot's SSID, "" when it cannot be read.
std::string ssid_of(const char *key) { return sys(key).value_or(""); }

// The slot's hotspot becomes the current one, with the WAN type of its
// trust mode ("" for a text outside the table).
void use_slot(const char *const (&keys)[4])
{
	sysConfCopy("wan_sta_ssid", keys[0]);
	sysConfCopy("wan_sta_sec", keys[1]);
	sysConfCopy("wan_sta_pass", keys[2]);
	Text mode = sys(keys[3]);
	auto found = std::find_if(std::begin(hx::wifi::trust_modes), std::end(hx::wifi::trust_modes),
				  [&](const hx::wifi::TrustMode &m) { return mode && *mode == m.text; });
	bool known = found != std::end(hx::wifi::trust_modes);
	hx::conf::set(Store::sysconf, "wan_type", known ? hx::format("\"%s\"", found->wan_type) : "");
}

// Nothing else arms the one fall-back to slot 2, so wan_auto does when slot
// 2 holds a hotspot; not while the WAN is up, since tearing that link down
// posts a disconnection that would fall back at once.
void arm_fallback(const std::string &ssid2)
{
	Text status = rt("wan_status");
	if (!ssid2.empty() && !(status && *status == "WAN_UP"))
		rt_set("wan_auto_retry_times", "1");
}

int dhcp_success(const char *)
{
	rt_set("wan_status", "\"WAN_UP\"");
	rt_set("wifi_sta_status", "\"Connected\"");
	wan_service_start();
	check_wifi_ap_status();
	return gw_profiles_set();
}

struct SysEvent {
	std::string_view name;
	int (*run)(const char *arg);
};

constexpr SysEvent sys_events[] = {
	{"SYS_EVENT_DHCP_SUCCESS", dhcp_success},
	{"SYS_EVENT_DHCP_FAILED", [](const char *) {
		 rt_set("wifi_sta_status", "\"Disconnected\"");
		 wan_service_stop();
		 wl_disconnect();
		 return 0;
	 }},
	{"SYS_EVENT_WIFI_LOADED", [](const char *) { wan_auto(); return 0; }},
	{"TDLS_EVENT_RESOLVE_SUCCESS",
	 [](const char *arg) { if (arg != nullptr) wifi_sta_tdls_setup(arg); return 0; }},
};

using hx::ipc::run;

constexpr hx::ipc::Action wan_actions[] = {
	{"restart", run<wan_restart>},
	{"start", run<wan_start>},
	{"auto", run<wan_auto>},
	{"stop", run<wan_stop>},
};

constexpr hx::ipc::Action lan_actions[] = {
	{"start", run<lan_set>},
	{"restart", run<lan_set>},
};

}  // namespace

void hx::net::lanwan_init()
{
	hx::wifi::set_wan_link({wan_stop, wan_service_stop, ctrl_interface, wan_auto_retry_handler});
}

int wan_get_state()
{
	Text type = sys("wan_type"), wan_if = sys("wan_if"), rt_wan_if = rt("wan_if");
	if (!type || !wan_if || !rt_wan_if)
		return -1;
	if (*type == "none") {
		puts("***** wan_type: none *****");
		return 1;
	}
	if (*type != "wireless_sta_trust" && *type != "wireless_sta") {
		puts("***** what? *****");	// "wireless_sta_private" too
		return 1;
	}
	if_record rec;
	if (if_fetch(rt_wan_if->c_str(), &rec) == 0 && rec.has_ipv4)
		return 0;
	return access("/var/run/udhcpc.pid", F_OK) == 0 ? 2 : 1;
}

unsigned long wan_get_uptime()
{
	Text value = hx::conf::text(Store::rtconf, "wan_uptime");
	if (!value)
		return static_cast<unsigned long>(-1);
	unsigned long start = strtoul(value->c_str(), nullptr, 10);
	printf("uptime_start:%ld\n", static_cast<long>(start));
	struct sysinfo info;
	if (sysinfo(&info) != 0)
		return static_cast<unsigned long>(-1);
	return static_cast<unsigned long>(info.uptime) - start;
}

int dlna_restart()
{
	do_system("/etc/demo/minidlna_stop.sh");
	do_system("/etc/demo/minidlna_start.sh &");
	return 0;
}

int ctrl_interface(const char *ifname, int up)
{
	if (up == 0 || up == 1)
		return do_systemf(cmd_size, up == 1 ? "/sbin/ifconfig %s up" : "/sbin/ifconfig %s down",
				  ifname);
	do_system("");
	return 0;
}

int lan_set()
{
	Text mode = sys("work_mode");
	std::optional<std::string> wan_if = sys_word("wan_if");
	std::optional<std::string> lan_if = wan_if ? sys_word("lan_if") : std::nullopt;
	if (!lan_if)
		return -1;
	if (mode && *mode == "bridge")
		return lan_set_bridge(lan_if->c_str(), wan_if->c_str());
	return lan_set_router(*lan_if);
}

int wan_start()
{
	rt_set("wifi_sta_status", "\"Connecting\"");
	std::optional<std::string> wan_if = sys_word("wan_if");
	Text type = sys("wan_type");
	if (!wan_if || !type ||
	    do_systemf(cmd_size, "/usr/sbin/brctl delif br0 %s", wan_if->c_str()) != 0)
		return -1;
	auto mode = std::find_if(std::begin(wan_modes), std::end(wan_modes),
				 [&](const WanMode &m) { return m.type == *type; });
	bool known = mode != std::end(wan_modes);
	puts(known ? mode->line : "[SYS] wan_type setting ERROR!");
	if (known && mode->station)
		wl_connect();
	return 0;
}

int wan_stop()
{
	wan_service_stop();
	wl_disconnect();
	return 0;
}

int wan_restart()
{
	wan_stop();
	return wan_start();
}

int wan_service_start()
{
	dhcp_restart();
	do_system("/etc/app/gw_ssdpd.sh > /dev/null 2>&1");
	dlna_restart();
	Text type = sys("wan_type");
	if (!type)
		return -1;
	if (*type != "wireless_sta_trust")
		do_system("/etc/app/gw_simplefw.sh > /dev/null 2>&1");
	return 0;
}

int wan_service_stop()
{
	do_system("/usr/bin/killall udhcpc >/dev/null 2>&1");
	rt_set("wan_status", "\"WAN_DOWN\"");
	rt_set("wan_if", "\"\"");
	rt_set("wan_up_time", "\"\"");
	std::optional<std::string> wan_if = sys_word("wan_if");
	if (!wan_if || do_systemf(cmd_size, "/sbin/ifconfig %s 0.0.0.0", wan_if->c_str()) != 0)
		return -1;
	do_system("/sbin/ifconfig mlan0 0.0.0.0 > /dev/null 2>&1");
	do_system("/etc/app/gw_simplefw.sh reset> /dev/null 2>&1");
	do_system("/etc/app/gw_ssdpd.sh > /dev/null 2>&1");
	dlna_restart();
	return 0;
}

int wan_auto()
{
	std::string current = ssid_of("wan_sta_ssid"), ssid1 = ssid_of("wan_sta_ssid1"),
		    ssid2 = ssid_of("wan_sta_ssid2");
	if (ssid1.empty()) {
		puts("Wifi: No suitable prefer BSS, stop wan auto connecting");
		return 0;
	}
	if (!ssid2.empty() && ssid2 == current) {
		// The hotspot in use becomes slot 1.
		for (size_t k = 0; k < std::size(hx::wifi::slot_keys[0]); k++)
			sysConfSwap(hx::wifi::slot_keys[0][k], hx::wifi::slot_keys[1][k]);
	} else {
		use_slot(hx::wifi::slot_keys[0]);
		puts("WiFi: Wan auto connecting by wan_sta_ssid1");
	}
	arm_fallback(ssid2);
	return wan_restart();
}

int wan_auto_retry_handler()
{
	if (!ssid_of("wan_sta_ssid2").empty()) {
		use_slot(hx::wifi::slot_keys[1]);
		wan_restart();
	}
	rt_set("wan_auto_retry_times", "0");
	return 0;
}

int check_wifi_ap_status()
{
	Text type = sys("wan_type");
	if (!type || *type != "wireless_sta_trust")
		return 0;
	wifi_ap_stop();
	if (Text lan_if = rt("lan_if"))
		ctrl_interface(lan_if->c_str(), 0);
	return 1;
}

int check_wifi_fw_version()
{
	Text type = sys("wan_type");
	auto mode = hx::conf::json(Store::sysconf, "wl_fw_mode");
	if (!type || !mode)
		return 0;
	int fw_mode = json_object_get_int(mode->get());
	bool to_bridge = fw_mode == 0 && *type == "wireless_sta";
	if (!to_bridge && !(fw_mode == 1 && *type == "wireless_sta_trust"))
		return 0;
	hx::conf::set(Store::sysconf, "wl_fw_mode", to_bridge ? "1" : "0");
	wifi_ap_reconfig();
	wifi_restart();
	return 1;
}

int sys_event_handler(const char *event, const char *arg)
{
	if (event == nullptr)
		return -1;
	auto found = std::find_if(std::begin(sys_events), std::end(sys_events),
				  [&](const SysEvent &e) { return e.name == event; });
	return found != std::end(sys_events) ? found->run(arg) : 0;
}

const char *_revalidate_wan(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {wan_actions});
}

const char *_revalidate_lan(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {lan_actions});
}

const char *_revalidate_sysEvent(json_object *value, json_object *, void *)
{
	// The scripts' events: a null one is refused without a line, and the
	// event needs its argument.
	if (value == nullptr)
		return "invalid arguments";
	if (const char *error = hx::ipc::check_target(value, "invalid arguments"))
		return error;
	auto event = hx::json::string_member(value, "action");
	auto arg = hx::json::string_member(value, "arg");
	if (!event || !arg)
		return "internal error";
	return sys_event_handler(event->data(), arg->data()) == 0 ? nullptr : "internal error";
}
