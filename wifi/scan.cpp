// Access-point scanning on a thread of its own ("iwlist mlan0 scan"), the
// access-point lists, the station's link and the access point's channel.
#include "wifi/scan.h"

#include <ctype.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <optional>

#include "conf/store.h"
#include "core/json.h"
#include "ipc/info_parse.h"
#include "wifi/lines.h"

namespace hx::wifi {
namespace {

constexpr unsigned sec_key = 1, sec_wpa = 2, sec_wpa2 = 4, sec_eap = 8;

std::string_view skip_blanks(std::string_view s)
{
	return s.substr(std::min(s.find_first_not_of(" \t"), s.size()));
}

// The text after key and its ':' or '=' in line, blanks skipped.
std::optional<std::string_view> field_after(std::string_view line, std::string_view key)
{
	size_t at = line.find(key);
	if (at == std::string_view::npos)
		return std::nullopt;
	line.remove_prefix(at + key.size());
	if (line.empty() || (line[0] != ':' && line[0] != '='))
		return std::nullopt;
	return skip_blanks(line.substr(1));
}

// The quoted text of an ESSID field up to its last quote (a quote inside
// an SSID stays), at most 32 bytes.
std::string quoted(std::string_view field)
{
	size_t end = field.rfind('"');
	if (field.empty() || field[0] != '"' || end == 0)
		return {};
	return std::string(field.substr(1, std::min<size_t>(end - 1, 32)));
}

// The leading decimal number of text, clamped to +-99999.
int to_int(std::string_view text)
{
	long value = strtol(std::string(text).c_str(), nullptr, 10);
	return static_cast<int>(std::clamp(value, -99999L, 99999L));
}

void start_cell(ScanList &list, std::string_view line)
{
	if (list.cells.size() >= scan_cell_max) {
		list.full = true;
		return;
	}
	ScanCell &cell = list.cells.emplace_back();
	size_t at = line.find("Address: ");
	if (at != std::string_view::npos && is_mac_prefix(line.substr(at + 9)))
		cell.bssid = line.substr(at + 9, 17);
}

void fill_cell(ScanCell &cell, std::string_view line)
{
	if (std::optional<std::string_view> essid = field_after(line, "ESSID")) {
		cell.ssid = quoted(*essid);
		return;
	}
	std::optional<std::string_view> v;
	if (size_t at = line.find("(Channel "); at != std::string_view::npos)
		cell.channel = to_int(line.substr(at + 9));
	else if ((v = field_after(line, "Channel")))
		cell.channel = to_int(*v);
	else if ((v = field_after(line, "Frequency")) && cell.channel == 0)
		cell.channel = freq_channel(*v);
	if ((v = field_after(line, "Signal level")))
		cell.signal = to_int(*v);
	if (line.find("Encryption key:on") != std::string_view::npos)
		cell.flags |= sec_key;
	if (line.starts_with("IE: WPA Version"))
		cell.flags |= sec_wpa;
	if (line.starts_with("IE: IEEE 802.11i/WPA2"))
		cell.flags |= sec_wpa2;
	if (line.starts_with("Authentication Suites") && line.find("802.1x") != std::string_view::npos)
		cell.flags |= sec_eap;
}

}  // namespace

std::string ScanCell::security() const
{
	const char *kind = (flags & sec_wpa) && (flags & sec_wpa2) ? "WPA/WPA2"
			   : (flags & sec_wpa2)			  ? "WPA2"
			   : (flags & sec_wpa)			  ? "WPA"
								  : nullptr;
	if (kind == nullptr)
		return (flags & sec_key) ? "WEP" : "NONE";
	return std::string(kind) + ((flags & sec_eap) ? "-EAP" : "-PSK");
}

bool is_mac_prefix(std::string_view text)
{
	if (text.size() < 17)
		return false;
	for (size_t i = 0; i < 17; i++) {
		if (i % 3 == 2 ? text[i] != ':' : !isxdigit(static_cast<unsigned char>(text[i])))
			return false;
	}
	return true;
}

int freq_channel(std::string_view field)
{
	double ghz = strtod(std::string(field).c_str(), nullptr);
	int mhz = ghz > 0 && ghz < 10 ? static_cast<int>(ghz * 1000 + 0.5) : 0;
	if (mhz == 2484)
		return 14;
	if (mhz >= 2412 && mhz <= 2472)
		return (mhz - 2407) / 5;
	if (mhz >= 5000 && mhz <= 5900)
		return (mhz - 5000) / 5;
	return 0;
}

void parse_scan_line(std::string_view line, ScanList &list)
{
	line = skip_blanks(line);
	if (line.starts_with("Cell ") && line.find(" - Address:") != std::string_view::npos)
		start_cell(list, line);
	else if (!list.cells.empty() && !list.full)
		fill_cell(list.cells.back(), line);
}

void parse_link_line(std::string_view line, Link &link)
{
	std::optional<std::string_view> v;
	if ((v = field_after(line, "ESSID")))
		link.ssid = quoted(*v);
	if (size_t at = line.find("Access Point: ");
	    at != std::string_view::npos && is_mac_prefix(line.substr(at + 14)))
		link.bssid = line.substr(at + 14, 17);
	if ((v = field_after(line, "Frequency")) && freq_channel(*v) != 0)
		link.channel = freq_channel(*v);
	if ((v = field_after(line, "Signal level")))
		link.signal = to_int(*v);
	if ((v = field_after(line, "Bit Rate"))) {
		std::string_view rate = v->substr(0, std::min<size_t>(v->find(' '), 15));
		if (!rate.empty())
			link.bitrate = std::string(rate) + " Mb/s";
	}
}

int sys_config_channel(std::string_view line)
{
	line = skip_blanks(line);
	if (!line.starts_with("Channel = "))
		return 0;
	int channel = to_int(line.substr(10));
	return channel > 0 && channel < 200 ? channel : 0;
}

}  // namespace hx::wifi

namespace {

using hx::wifi::ScanCell;
using hx::wifi::ScanList;

enum class ScanState { idle, running, done };

struct Aplist {
	ScanState state = ScanState::idle;
	ScanList list;
};

constexpr const char *invalid = "Invalid arguments.";

// What the scan thread shares with the event loop.  Never destroyed: a
// scan may still be running while the process exits.
std::mutex lock_aplist;
Aplist &aplist = *new Aplist;

void *scan_thread(void *)
{
	ScanList found;
	try {
		hx::wifi::command_lines("/sbin/iwlist mlan0 scan", [&](std::string_view line) {
			hx::wifi::parse_scan_line(line, found);
		});
	} catch (const std::bad_alloc &) {
		found = {};
	}
	std::lock_guard lock(lock_aplist);
	std::swap(aplist.list, found);
	aplist.state = ScanState::done;
	return nullptr;
}

// A detached thread, started with every signal blocked: the signals are
// the event loop's.
bool start_scan_thread()
{
	sigset_t all, old;
	sigfillset(&all);
	pthread_sigmask(SIG_SETMASK, &all, &old);
	pthread_t thread;
	int rc = pthread_create(&thread, nullptr, scan_thread, nullptr);
	pthread_sigmask(SIG_SETMASK, &old, nullptr);
	if (rc == 0)
		pthread_detach(thread);
	return rc == 0;
}

const char *start_scan()
{
	ScanState before;
	{
		std::lock_guard lock(lock_aplist);
		before = std::exchange(aplist.state, ScanState::running);
	}
	if (before == ScanState::running)
		return "busy";
	if (start_scan_thread())
		return "scanning";
	std::lock_guard lock(lock_aplist);
	aplist.state = before;
	return "failed";
}

bool add_cell(json_object *array, const ScanCell &cell)
{
	hx::json::Ptr object(json_object_new_object());
	if (!object)
		return false;
	info_set_string(object.get(), "ssid", cell.ssid.c_str());
	info_set_string(object.get(), "bssid", cell.bssid.c_str());
	info_set_string(object.get(), "channel", std::to_string(cell.channel).c_str());
	info_set_string(object.get(), "signal", std::to_string(cell.signal).c_str());
	info_set_string(object.get(), "security", cell.security().c_str());
	json_object_array_add(array, object.release());
	return true;
}

// Named networks only, the strongest cell of each SSID, strongest first;
// ties keep the scan's order.
std::vector<const ScanCell *> strongest(const ScanList &list)
{
	std::vector<const ScanCell *> best;
	for (const ScanCell &cell : list.cells) {
		if (cell.ssid.empty())
			continue;
		auto same = std::find_if(best.begin(), best.end(),
					 [&](const ScanCell *b) { return b->ssid == cell.ssid; });
		if (same == best.end())
			best.push_back(&cell);
		else if (cell.signal > (*same)->signal)
			*same = &cell;
	}
	std::stable_sort(best.begin(), best.end(),
			 [](const ScanCell *a, const ScanCell *b) { return a->signal > b->signal; });
	return best;
}

const char *state_text(ScanState state)
{
	return state == ScanState::running ? "scanning" : state == ScanState::done ? "done" : "idle";
}

}  // namespace

const char *info_s_scanap(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	info_add_string(infos, name, start_scan());
	return nullptr;
}

const char *info_s_scanapresult(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	json_object *object = info_add_object(infos, name);
	hx::json::Ptr array(json_object_new_array());
	if (object == nullptr || !array)
		return "ERROR";
	json_object *aps = array.get();
	std::lock_guard lock(lock_aplist);
	info_set_string(object, "state", state_text(aplist.state));
	hx::json::add(object, "aps", std::move(array));
	for (const ScanCell &cell : aplist.list.cells) {
		if (!add_cell(aps, cell))
			return "ERROR";
	}
	return nullptr;
}

const char *info_s_aplist(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	json_object *array = info_add_array(infos, name);
	if (array == nullptr)
		return "ERROR";
	std::lock_guard lock(lock_aplist);
	for (const ScanCell *cell : strongest(aplist.list)) {
		if (!add_cell(array, *cell))
			return "ERROR";
	}
	return nullptr;
}

const char *info_s_staconninfo(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	json_object *object = info_add_object(infos, name);
	if (object == nullptr)
		return "ERROR";
	hx::wifi::Link link;
	hx::wifi::command_lines("/usr/sbin/iwconfig mlan0", [&](std::string_view line) {
		hx::wifi::parse_link_line(line, link);
	});
	bool up = !link.bssid.empty();
	info_set_string(object, "state", up ? "connected" : "disconnected");
	info_set_string(object, "ssid", up ? link.ssid.c_str() : "");
	info_set_string(object, "bssid", link.bssid.c_str());
	info_set_string(object, "channel", up ? std::to_string(link.channel).c_str() : "");
	info_set_string(object, "signal", up ? std::to_string(link.signal).c_str() : "");
	info_set_string(object, "bitrate", up ? link.bitrate.c_str() : "");
	return nullptr;
}

const char *info_s_wl_channel(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	int channel = 0;
	hx::wifi::command_lines("/sbin/uaputl.exe sys_config", [&](std::string_view line) {
		if (channel == 0)
			channel = hx::wifi::sys_config_channel(line);
	});
	// The stored channel is answered in at most 11 characters.
	std::string text = channel > 0 ? std::to_string(channel)
		: hx::conf::text(hx::conf::Store::sysconf, "wl_channel").value_or("0").substr(0, 11);
	info_add_string(infos, name, text.c_str());
	return nullptr;
}
