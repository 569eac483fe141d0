// The supplicant's control client.  One process-wide record; the monitor
// connection's events are read by the event loop and handed to every slot
// whose prefix begins the event's name.
#include "wifi/wpacli.h"

#include <dirent.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "core/event.h"
#include "core/owned.h"
#include "core/server.h"
#include "core/util.h"
#include "wpa_ctrl.h"

namespace {

using Ctrl = hx::Owned<wpa_ctrl, wpa_ctrl_close>;
using Reader = hx::BufferEventPtr;

constexpr const char *ctrl_dir = "/var/run/wpa_supplicant";
constexpr size_t reply_max = 2048;
constexpr size_t mac_len = 17;

// The events handed on, in the order they are recognised; only the first
// carries an argument, the peer's MAC address that ends the message.
constexpr const char *events[] = {
	"TDLS-DISC-RESP ", "CTRL-EVENT-CONNECTED ", "CTRL-EVENT-DISCONNECTED ",
	"CTRL-EVENT-ASSOC-REJECT ", "CTRL-EVENT-SSID-TEMP-DISABLED ", "TDLS-LINK-UP ",
	"TDLS-LINK-DOWN ", "CTRL-EVENT-SSID-NO-MATCH ",
};

}  // namespace

// Destroyed in reverse order: the reader goes before the connection it reads.
struct WpaCliClient {
	std::optional<std::string> ifname;
	Ctrl ctrl_conn;
	Ctrl mon_conn;
	Reader bev;
	std::array<wpa_cli_eh, 4> eh{};
};

namespace {

// Engaged from the first initialisation on, also after one that failed, so
// that handlers can be registered; attached once its reader runs.
std::optional<WpaCliClient> client;

std::optional<std::string> choose_ifname()
{
	hx::DirPtr dir = hx::open_dir(ctrl_dir);
	for (const dirent *entry; dir && (entry = readdir(dir.get())) != nullptr;) {
		std::string_view name = entry->d_name;
		if (name != "." && name != "..") {
			printf("WPACli: Selected interface '%s'\n", entry->d_name);
			return std::string(name);
		}
	}
	return std::nullopt;
}

void read_events(bufferevent *bev, void *)
{
	evbuffer *in = EVBUFFER_INPUT(bev);
	if (!hx::terminate_input(in))
		return;
	wpa_cli_event_dispatch(reinterpret_cast<const char *>(evbuffer_pullup(in, -1)));
	evbuffer_drain(in, evbuffer_get_length(in));
}

// Without a control socket the path is the directory itself, never opened.
bool open_connections(WpaCliClient &c)
{
	std::string path = c.ifname ? std::string(ctrl_dir) + "/" + *c.ifname : ctrl_dir;
	if (c.ifname)
		c.ctrl_conn.reset(wpa_ctrl_open(path.c_str()));
	if (!c.ctrl_conn) {
		printf("WPACli: Failed to open connection to wpa_supplicant on %s\n", path.c_str());
		return false;
	}
	c.mon_conn.reset(wpa_ctrl_open(path.c_str()));
	if (!c.mon_conn)
		return false;
	if (wpa_ctrl_attach(c.mon_conn.get()) != 0) {
		puts("WPACli: Failed to attach to wpa_supplicant");
		return false;
	}
	return true;
}

bool listen(WpaCliClient &c)
{
	c.bev.reset(bufferevent_new(wpa_ctrl_get_fd(c.mon_conn.get()), read_events, nullptr,
				    nullptr, nullptr));
	return c.bev && bufferevent_base_set(get_event_base(), c.bev.get()) == 0 &&
	       bufferevent_enable(c.bev.get(), EV_READ) == 0;
}

void show_event(char *msg, size_t) { printf("WPACli: Show event message from WPA: [%s]\n", msg); }

}  // namespace

int wpa_cli_init()
{
	if (client && client->bev)
		return 0;
	WpaCliClient &c = client.emplace();
	c.ifname = choose_ifname();
	if (!open_connections(c) || !listen(c)) {
		client.emplace();
		return -1;
	}
	puts("WPACli: Initialize interface for wpa_supplicant successful");
	return 0;
}

void wpa_cli_deinit()
{
	if (client && client->mon_conn)
		wpa_ctrl_detach(client->mon_conn.get());
	client.reset();
}

void wpa_cli_event_dispatch(const char *msg)
{
	std::string_view raw = msg, text = raw;
	if (size_t end = raw.find('>'); raw.starts_with('<') && end != raw.npos)
		text.remove_prefix(end + 1);
	if (text.starts_with("CTRL-EVENT-BSS-REMOVED "))
		return;
	printf("WPACli: Event from WPA [%s]\n", msg);
	auto name = std::find_if(std::begin(events), std::end(events),
				 [&](std::string_view e) { return text.starts_with(e); });
	if (name == std::end(events) || !client)
		return;
	const char *arg = nullptr;
	if (name == std::begin(events))
		arg = msg + raw.size() - std::min(raw.size(), mac_len);
	for (wpa_cli_eh &eh : client->eh)
		if (eh.handler != nullptr && str_match(*name, eh.prefix))
			eh.handler(*name, arg, &eh);
}

int wpa_cli_send(const char *cmd, char *reply, size_t *reply_len)
{
	std::array<char, reply_max> own;
	if (reply == nullptr)
		reply = own.data();
	if (!client || !client->ctrl_conn) {
		printf("WPACli: Not connected to wpa_supplicant, command %s dropped\n", cmd);
		return -1;
	}
	// A reply size of 0: the reply is consumed, not kept (no caller reads it).
	size_t len = 0;
	int ret = wpa_ctrl_request(client->ctrl_conn.get(), cmd, strlen(cmd), reply, &len,
				   show_event);
	if (ret < 0) {
		printf(ret == -2 ? "WPACli: '%s' command timed out.\n"
				 : "WPACli: '%s' command failed.\n", cmd);
		printf("WPACli: wpa_cli_send: Failed, %d\n", ret);
		return -1;
	}
	if (len != 0 && reply_len != nullptr)
		*reply_len = len;
	if (len >= 1 && len < reply_max) {
		reply[len] = '\0';
		printf("WPACli: wpa_cli_send: WPA reply %s\n", reply);
	}
	return 0;
}

int wpa_cli_eh_register(const char *prefix, wpa_cli_eh_fn handler)
{
	if (!client || handler == nullptr)
		return 0;
	auto slot = std::find_if(client->eh.begin(), client->eh.end(),
				 [](const wpa_cli_eh &eh) { return eh.handler == nullptr; });
	if (slot == client->eh.end()) {
		puts("WPACli: Exceed Maximum EH count");
		return -1;
	}
	*slot = {prefix, handler};
	return 0;
}
