// TDLS peer links through the supplicant, and the cut-through mode.
// Everything here runs on the event-loop thread.
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/fmt.h"
#include "core/json.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "ipc/target.h"
#include "wifi/scan.h"
#include "wifi/wpacli.h"

namespace {

enum class Tdls { idle, connecting, connected };

constexpr const char *invalid = "Invalid arguments.";
constexpr size_t peer_max = 16;

Tdls tdls_state = Tdls::idle;
std::string tdls_peer;
std::vector<std::string> discovered;	// at most peer_max, told apart without regard to case
bool cutthrough_on = false;

// "xx:xx:xx:xx:xx:xx" in hexadecimal digits, nothing after it.
bool is_mac(const char *text)
{
	return text != nullptr && strlen(text) == 17 && hx::wifi::is_mac_prefix(text);
}

void discover(const char *mac)
{
	auto same = [mac](const std::string &peer) { return strcasecmp(peer.c_str(), mac) == 0; };
	if (discovered.size() < peer_max && std::none_of(discovered.begin(), discovered.end(), same))
		discovered.emplace_back(mac);
}

// The "peer" member (present but not a string: none), else the first
// discovered peer.
const char *start_peer(json_object *value)
{
	json_object *peer;
	if (json_object_object_get_ex(value, "peer", &peer))
		return hx::json::is(peer, json_type_string) ? hx::json::text(peer) : nullptr;
	return discovered.empty() ? nullptr : discovered.front().c_str();
}

const char *tdls_start(json_object *value)
{
	const char *peer = start_peer(value);
	if (!is_mac(peer))
		return "invalid arguments";
	return wifi_sta_tdls_setup(peer) == 0 ? nullptr : "internal error";
}

// Ends the link, or its set-up, with the current peer.
const char *tdls_stop(json_object *)
{
	int rc = 0;
	if (tdls_state != Tdls::idle && !tdls_peer.empty())
		rc = wpa_cli_send(hx::format("TDLS_TEARDOWN %s", tdls_peer.c_str()).c_str(), nullptr, nullptr);
	tdls_state = Tdls::idle;
	tdls_peer.clear();
	return rc == 0 ? nullptr : "internal error";
}

template <bool On>
const char *cut_through(json_object *)
{
	if (do_system(On ? "/etc/app/gw_cutthrough.sh start" : "/etc/app/gw_cutthrough.sh stop") != 0)
		return "internal error";
	cutthrough_on = On;
	return nullptr;
}

constexpr hx::ipc::Action tdls_actions[] = {{"start", tdls_start}, {"stop", tdls_stop}};
constexpr hx::ipc::Action cut_through_actions[] = {
	{"start", cut_through<true>},
	{"stop", cut_through<false>},
};

}  // namespace

void wpa_tdls_event_handler(const char *event, const char *arg, void *)
{
	if (event == nullptr)
		return;
	std::string_view name = event;
	if (name == "TDLS-DISC-RESP " && is_mac(arg)) {
		printf("TDLS: Discovered peer %s\n", arg);
		discover(arg);
	} else if (name == "TDLS-LINK-UP ") {
		puts("TDLS: Link up");
		tdls_state = Tdls::connected;
	} else if (name == "TDLS-LINK-DOWN ") {
		puts("TDLS: Link down");
		tdls_state = Tdls::idle;
		tdls_peer.clear();
	}
}

int wifi_sta_tdls_setup(const char *peer)
{
	if (tdls_state == Tdls::connecting) {
		puts("TDLS: Connecting, reject TDLS setup request");
		return -1;
	}
	if (!is_mac(peer)) {
		puts("TDLS: Invalid peer address");
		return -1;
	}
	if (wpa_cli_send(hx::format("TDLS_SETUP %s", peer).c_str(), nullptr, nullptr) != 0)
		return -1;
	tdls_state = Tdls::connecting;
	tdls_peer = peer;
	return 0;
}

const char *info_s_scantdlsdevice(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	discovered.clear();
	bool sent = wpa_cli_send("TDLS_DISCOVER ff:ff:ff:ff:ff:ff", nullptr, nullptr) == 0;
	info_add_string(infos, name, sent ? "scanning" : "failed");
	return nullptr;
}

const char *info_s_scantdlsdeviceresult(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	json_object *array = info_add_array(infos, name);
	if (array == nullptr)
		return "ERROR";
	for (const std::string &mac : discovered) {
		hx::json::Ptr object(json_object_new_object());
		if (!object)
			return "ERROR";
		info_set_string(object.get(), "mac", mac.c_str());
		json_object_array_add(array, object.release());
	}
	return nullptr;
}

const char *info_s_tdlsstatus(json_object *name, json_object *infos, void *)
{
	static constexpr const char *state_text[] = {"idle", "connecting", "connected"};
	if (info_args_missing(name, infos))
		return invalid;
	json_object *object = info_add_object(infos, name);
	if (object == nullptr)
		return "ERROR";
	info_set_string(object, "state", state_text[static_cast<int>(tdls_state)]);
	info_set_string(object, "peer", tdls_peer.c_str());
	return nullptr;
}

const char *info_cutthrough_status(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid;
	info_add_string(infos, name, cutthrough_on ? "on" : "off");
	return nullptr;
}

const char *_revalidate_tdls(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {tdls_actions});
}

const char *_revalidate_cutThrough(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {cut_through_actions});
}
