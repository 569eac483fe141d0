// Client side of the supplicant's control interface: one Unix datagram
// socket per connection, bound to a path of its own so that the supplicant
// can answer, connected to the supplicant's socket.  Replies are single
// datagrams; unsolicited events start with "<N>".  Nothing here throws.
#include "wpa_ctrl.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <new>
#include <string_view>

// Owns its socket, and the local path once it is bound.
struct wpa_ctrl {
	int s = -1;
	sockaddr_un local{};
	bool bound = false;

	wpa_ctrl() = default;
	wpa_ctrl(const wpa_ctrl &) = delete;
	wpa_ctrl &operator=(const wpa_ctrl &) = delete;
	~wpa_ctrl()
	{
		if (bound)
			unlink(local.sun_path);
		if (s >= 0)
			close(s);
	}
};

namespace {

constexpr int timeout_ms = 10000;
constexpr size_t event_max = 4096;
unsigned int counter;

bool set_path(sockaddr_un &addr, std::string_view path)
{
	if (path.size() >= sizeof(addr.sun_path))
		return false;
	addr = sockaddr_un{};
	addr.sun_family = AF_UNIX;
	path.copy(addr.sun_path, path.size());
	return true;
}

bool bind_to(const wpa_ctrl &ctrl)
{
	return bind(ctrl.s, reinterpret_cast<const sockaddr *>(&ctrl.local), sizeof(ctrl.local)) == 0;
}

bool bind_local(wpa_ctrl &ctrl)
{
	char *path = ctrl.local.sun_path;
	snprintf(path, sizeof(ctrl.local.sun_path), "/tmp/wpa_ctrl_%d-%u",
		 static_cast<int>(getpid()), ++counter);
	ctrl.local.sun_family = AF_UNIX;
	// A left-over of an earlier process with the same pid is replaced.
	if (!bind_to(ctrl) && (errno != EADDRINUSE || unlink(path) != 0 || !bind_to(ctrl)))
		return false;
	ctrl.bound = true;
	return true;
}

// 1 when a datagram is waiting, 0 after the time-out, -1 on error.
int wait_readable(int s)
{
	pollfd pfd{s, POLLIN, 0};
	int n;
	do
		n = poll(&pfd, 1, timeout_ms);
	while (n < 0 && errno == EINTR);
	return n;
}

// Receives an unsolicited event and hands it, NUL-terminated, to msg_cb.
bool take_event(int s, void (*msg_cb)(char *msg, size_t len))
{
	std::array<char, event_max + 1> msg;
	ssize_t n = recv(s, msg.data(), event_max, 0);
	if (n < 0)
		return false;
	msg[static_cast<size_t>(n)] = '\0';
	if (msg_cb != nullptr)
		msg_cb(msg.data(), static_cast<size_t>(n));
	return true;
}

int ok_request(wpa_ctrl *ctrl, std::string_view cmd)
{
	std::array<char, 16> reply;
	size_t len = reply.size();
	int ret = wpa_ctrl_request(ctrl, cmd.data(), cmd.size(), reply.data(), &len, nullptr);
	return ret != 0 ? ret : std::string_view(reply.data(), len) == "OK\n" ? 0 : -1;
}

}  // namespace

struct wpa_ctrl *wpa_ctrl_open(const char *ctrl_path)
{
	sockaddr_un dest;
	if (ctrl_path == nullptr || !set_path(dest, ctrl_path))
		return nullptr;
	std::unique_ptr<wpa_ctrl> ctrl(new (std::nothrow) wpa_ctrl);
	if (!ctrl)
		return nullptr;
	ctrl->s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (ctrl->s < 0 || !bind_local(*ctrl) ||
	    connect(ctrl->s, reinterpret_cast<const sockaddr *>(&dest), sizeof(dest)) != 0)
		return nullptr;
	return ctrl.release();
}

void wpa_ctrl_close(struct wpa_ctrl *ctrl) { delete ctrl; }

int wpa_ctrl_request(struct wpa_ctrl *ctrl, const char *cmd, size_t cmd_len, char *reply,
		     size_t *reply_len, void (*msg_cb)(char *msg, size_t len))
{
	if (ctrl == nullptr || cmd == nullptr || reply_len == nullptr ||
	    (reply == nullptr && *reply_len > 0))
		return -1;
	if (send(ctrl->s, cmd, cmd_len, 0) < 0)
		return -1;
	for (;;) {
		ssize_t n = wait_readable(ctrl->s);
		if (n == 0)
			return -2;
		char first;
		if (n > 0)
			n = recv(ctrl->s, &first, 1, MSG_PEEK);
		if (n < 0)
			return -1;
		if (n == 0 || first != '<')
			break;
		if (!take_event(ctrl->s, msg_cb))
			return -1;
	}
	ssize_t n = recv(ctrl->s, reply, *reply_len, 0);
	if (n < 0)
		return -1;
	*reply_len = static_cast<size_t>(n);
	return 0;
}

int wpa_ctrl_attach(struct wpa_ctrl *ctrl) { return ok_request(ctrl, "ATTACH"); }
int wpa_ctrl_detach(struct wpa_ctrl *ctrl) { return ok_request(ctrl, "DETACH"); }
int wpa_ctrl_get_fd(struct wpa_ctrl *ctrl) { return ctrl == nullptr ? -1 : ctrl->s; }
