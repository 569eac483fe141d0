/* Client side of wpa_supplicant's control interface, written from the
 * protocol: one Unix datagram socket per connection, bound to a path of its
 * own so the supplicant can answer, connected to the supplicant's socket.
 * Replies are single datagrams; unsolicited events start with "<N>". */
#include "wpa_ctrl.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define WPA_CTRL_TIMEOUT_MS 10000
#define WPA_CTRL_EVENT_MAX 4096

struct wpa_ctrl {
	int s;
	struct sockaddr_un local;
};

static unsigned int wpa_ctrl_counter;

static int
wpa_ctrl_set_path(struct sockaddr_un *addr, const char *path)
{
	size_t n = strlen(path);

	if (n >= sizeof(addr->sun_path))
		return -1;
	memset(addr, 0, sizeof(*addr));
	addr->sun_family = AF_UNIX;
	memcpy(addr->sun_path, path, n + 1);
	return 0;
}

static int
wpa_ctrl_bind_local(struct wpa_ctrl *ctrl)
{
	char path[sizeof(ctrl->local.sun_path)];
	int len = snprintf(path, sizeof(path), "/tmp/wpa_ctrl_%d-%u",
			   (int)getpid(), ++wpa_ctrl_counter);

	if (len < 0 || (size_t)len >= sizeof(path) ||
	    wpa_ctrl_set_path(&ctrl->local, path) != 0)
		return -1;
	if (bind(ctrl->s, (struct sockaddr *)&ctrl->local, sizeof(ctrl->local)) == 0)
		return 0;
	/* A left-over of an earlier process with the same pid. */
	if (errno != EADDRINUSE || unlink(path) != 0)
		return -1;
	return bind(ctrl->s, (struct sockaddr *)&ctrl->local, sizeof(ctrl->local));
}

struct wpa_ctrl *
wpa_ctrl_open(const char *ctrl_path)
{
	struct sockaddr_un dest;
	struct wpa_ctrl *ctrl;

	if (ctrl_path == NULL || wpa_ctrl_set_path(&dest, ctrl_path) != 0)
		return NULL;
	ctrl = static_cast<struct wpa_ctrl *>(calloc(1, sizeof(*ctrl)));
	if (ctrl == NULL)
		return NULL;
	ctrl->s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (ctrl->s < 0) {
		free(ctrl);
		return NULL;
	}
	if (wpa_ctrl_bind_local(ctrl) != 0) {
		close(ctrl->s);
		free(ctrl);
		return NULL;
	}
	if (connect(ctrl->s, (struct sockaddr *)&dest, sizeof(dest)) != 0) {
		wpa_ctrl_close(ctrl);
		return NULL;
	}
	return ctrl;
}

void
wpa_ctrl_close(struct wpa_ctrl *ctrl)
{
	if (ctrl == NULL)
		return;
	unlink(ctrl->local.sun_path);
	close(ctrl->s);
	free(ctrl);
}

/* 1 when a datagram is waiting, 0 after the time-out, -1 on error. */
static int
wpa_ctrl_wait(int s)
{
	struct pollfd pfd = { s, POLLIN, 0 };
	int n;

	do
		n = poll(&pfd, 1, WPA_CTRL_TIMEOUT_MS);
	while (n < 0 && errno == EINTR);
	return n;
}

/* Receives an unsolicited event and hands it, NUL-terminated, to msg_cb. */
static int
wpa_ctrl_take_event(int s, void (*msg_cb)(char *msg, size_t len))
{
	char msg[WPA_CTRL_EVENT_MAX + 1];
	ssize_t n = recv(s, msg, WPA_CTRL_EVENT_MAX, 0);

	if (n < 0)
		return -1;
	msg[n] = '\0';
	if (msg_cb != NULL)
		msg_cb(msg, (size_t)n);
	return 0;
}

int
wpa_ctrl_request(struct wpa_ctrl *ctrl, const char *cmd, size_t cmd_len,
		 char *reply, size_t *reply_len,
		 void (*msg_cb)(char *msg, size_t len))
{
	ssize_t n;
	char first;

	if (ctrl == NULL || cmd == NULL || reply_len == NULL ||
	    (reply == NULL && *reply_len > 0))
		return -1;
	if (send(ctrl->s, cmd, cmd_len, 0) < 0)
		return -1;
	for (;;) {
		n = wpa_ctrl_wait(ctrl->s);
		if (n == 0)
			return -2;
		if (n > 0)
			n = recv(ctrl->s, &first, 1, MSG_PEEK);
		if (n < 0)
			return -1;
		if (n == 0 || first != '<')
			break;
		if (wpa_ctrl_take_event(ctrl->s, msg_cb) != 0)
			return -1;
	}
	n = recv(ctrl->s, reply, *reply_len, 0);
	if (n < 0)
		return -1;
	*reply_len = (size_t)n;
	return 0;
}

static int
wpa_ctrl_ok_request(struct wpa_ctrl *ctrl, const char *cmd)
{
	char reply[16];
	size_t len = sizeof(reply);
	int ret = wpa_ctrl_request(ctrl, cmd, strlen(cmd), reply, &len, NULL);

	if (ret != 0)
		return ret;
	return len == 3 && memcmp(reply, "OK\n", 3) == 0 ? 0 : -1;
}

int
wpa_ctrl_attach(struct wpa_ctrl *ctrl)
{
	return wpa_ctrl_ok_request(ctrl, "ATTACH");
}

int
wpa_ctrl_detach(struct wpa_ctrl *ctrl)
{
	return wpa_ctrl_ok_request(ctrl, "DETACH");
}

int
wpa_ctrl_get_fd(struct wpa_ctrl *ctrl)
{
	return ctrl == NULL ? -1 : ctrl->s;
}
