/* Part 5.1: the WPA supplicant control client. */
#include "wifi/wifi.h"

#include <dirent.h>
#include <event.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/server.h"
#include "core/util.h"
#include "wpa_ctrl.h"

#define WPA_CTRL_DIR "/var/run/wpa_supplicant"
#define WPA_CLI_EH_MAX 4
#define WPA_CLI_PATH_MAX 4096
#define WPA_CLI_REPLY_MAX 2048
#define WPA_CLI_MAC_LEN 17

typedef struct {
	char *ifname;
	struct wpa_ctrl *ctrl_conn;
	struct wpa_ctrl *mon_conn;
	struct bufferevent *bev;
	struct wpa_cli_eh eh[WPA_CLI_EH_MAX];
} WpaCliClient;

static WpaCliClient wpa_cli_rec;
static WpaCliClient *wpa_cli;
static int wpa_cli_attached;
static char wpa_cli_path[WPA_CLI_PATH_MAX + 1];

static const char *const wpa_cli_events[] = {
	"TDLS-DISC-RESP ",
	"CTRL-EVENT-CONNECTED ",
	"CTRL-EVENT-DISCONNECTED ",
	"CTRL-EVENT-ASSOC-REJECT ",
	"CTRL-EVENT-SSID-TEMP-DISABLED ",
	"TDLS-LINK-UP ",
	"TDLS-LINK-DOWN ",
	"CTRL-EVENT-SSID-NO-MATCH ",
};

static char *
wpa_cli_choose_ifname(void)
{
	struct dirent *entry;
	char *name = NULL;
	DIR *dir = opendir(WPA_CTRL_DIR);

	if (dir == NULL)
		return NULL;
	while ((entry = readdir(dir)) != NULL) {
		if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
			continue;
		printf("WPACli: Selected interface '%s'\n", entry->d_name);
		name = strdup(entry->d_name);
		break;
	}
	closedir(dir);
	return name;
}

/* Without a control socket the path names the directory itself, which is
 * not opened: the open fails with its message. */
static int
wpa_cli_set_path(const char *ifname)
{
	int len;

	if (ifname == NULL) {
		strlcpy(wpa_cli_path, WPA_CTRL_DIR, sizeof(wpa_cli_path));
		return -1;
	}
	len = snprintf(wpa_cli_path, sizeof(wpa_cli_path), "%s/%s", WPA_CTRL_DIR, ifname);
	return len < 0 || (size_t)len >= sizeof(wpa_cli_path) ? -1 : 0;
}

void
wpa_cli_event_dispatch(const char *msg)
{
	const char *text = msg, *name = NULL, *arg = NULL;
	size_t i, len;

	if (msg[0] == '<' && strchr(msg, '>') != NULL)
		text = strchr(msg, '>') + 1;
	if (str_match(text, "CTRL-EVENT-BSS-REMOVED "))
		return;
	printf("WPACli: Event from WPA [%s]\n", msg);
	for (i = 0; i < sizeof(wpa_cli_events) / sizeof(wpa_cli_events[0]); i++) {
		if (str_match(text, wpa_cli_events[i])) {
			name = wpa_cli_events[i];
			break;
		}
	}
	if (name == NULL || wpa_cli == NULL)
		return;
	len = strlen(msg);
	if (i == 0)
		arg = msg + (len > WPA_CLI_MAC_LEN ? len - WPA_CLI_MAC_LEN : 0);
	for (i = 0; i < WPA_CLI_EH_MAX; i++) {
		struct wpa_cli_eh *eh = &wpa_cli->eh[i];

		if (eh->handler != NULL && str_match(name, eh->prefix))
			eh->handler(name, arg, eh);
	}
}

static void
wpa_cli_read(struct bufferevent *bev, void *arg)
{
	struct evbuffer *in = EVBUFFER_INPUT(bev);
	int r;

	(void)arg;
	/* libevent 2 freezes the input's end outside its own reads. */
	evbuffer_unfreeze(in, 0);
	r = evbuffer_add(in, "", 1);
	evbuffer_freeze(in, 0);
	if (r != 0)
		return;
	wpa_cli_event_dispatch((const char *)EVBUFFER_DATA(in));
	evbuffer_drain(in, EVBUFFER_LENGTH(in));
}

static int
wpa_cli_open(void)
{
	wpa_cli->ctrl_conn = wpa_ctrl_open(wpa_cli_path);
	if (wpa_cli->ctrl_conn == NULL) {
		printf("WPACli: Failed to open connection to wpa_supplicant on %s\n",
		       wpa_cli_path);
		return -1;
	}
	wpa_cli->mon_conn = wpa_ctrl_open(wpa_cli_path);
	if (wpa_cli->mon_conn == NULL)
		return -1;
	if (wpa_ctrl_attach(wpa_cli->mon_conn) != 0) {
		puts("WPACli: Failed to attach to wpa_supplicant");
		return -1;
	}
	return 0;
}

static int
wpa_cli_listen(void)
{
	struct bufferevent *bev = bufferevent_new(wpa_ctrl_get_fd(wpa_cli->mon_conn),
						  wpa_cli_read, NULL, NULL, wpa_cli);

	if (bev == NULL)
		return -1;
	wpa_cli->bev = bev;
	if (bufferevent_base_set(get_event_base(), bev) != 0 ||
	    bufferevent_enable(bev, EV_READ) != 0)
		return -1;
	return 0;
}

/* A failed initialisation closes what it opened; the record stays
 * pointed at, as the spec's step 2 leaves it. */
static void
wpa_cli_close_all(void)
{
	if (wpa_cli->bev != NULL)
		bufferevent_free(wpa_cli->bev);
	wpa_ctrl_close(wpa_cli->mon_conn);
	wpa_ctrl_close(wpa_cli->ctrl_conn);
	free(wpa_cli->ifname);
	wpa_cli->bev = NULL;
	wpa_cli->mon_conn = NULL;
	wpa_cli->ctrl_conn = NULL;
	wpa_cli->ifname = NULL;
}

int
wpa_cli_init(void)
{
	if (wpa_cli_attached)
		return 0;
	memset(&wpa_cli_rec, 0, sizeof(wpa_cli_rec));
	wpa_cli = &wpa_cli_rec;
	wpa_cli->ifname = wpa_cli_choose_ifname();
	if (wpa_cli_set_path(wpa_cli->ifname) != 0) {
		printf("WPACli: Failed to open connection to wpa_supplicant on %s\n",
		       wpa_cli_path);
		wpa_cli_close_all();
		return -1;
	}
	if (wpa_cli_open() != 0 || wpa_cli_listen() != 0) {
		wpa_cli_close_all();
		return -1;
	}
	wpa_cli_attached = 1;
	puts("WPACli: Initialize interface for wpa_supplicant successful");
	return 0;
}

void
wpa_cli_deinit(void)
{
	if (wpa_cli != NULL) {
		if (wpa_cli->mon_conn != NULL)
			wpa_ctrl_detach(wpa_cli->mon_conn);
		wpa_cli_close_all();
	}
	wpa_cli_attached = 0;
	memset(&wpa_cli_rec, 0, sizeof(wpa_cli_rec));
	wpa_cli = NULL;
}

static void
wpa_cli_msg_cb(char *msg, size_t len)
{
	(void)len;
	printf("WPACli: Show event message from WPA: [%s]\n", msg);
}

int
wpa_cli_send(const char *cmd, char *reply, size_t *reply_len)
{
	char own[WPA_CLI_REPLY_MAX];
	size_t len = 0;
	int ret;

	if (reply == NULL)
		reply = own;
	if (wpa_cli == NULL || wpa_cli->ctrl_conn == NULL) {
		printf("WPACli: Not connected to wpa_supplicant, command %s dropped\n", cmd);
		return -1;
	}
	/* Reply size 0: the reply is consumed, not kept (no caller reads it). */
	ret = wpa_ctrl_request(wpa_cli->ctrl_conn, cmd, strlen(cmd), reply, &len,
			       wpa_cli_msg_cb);
	if (ret < 0) {
		if (ret == -2)
			printf("WPACli: '%s' command timed out.\n", cmd);
		else
			printf("WPACli: '%s' command failed.\n", cmd);
		printf("WPACli: wpa_cli_send: Failed, %d\n", ret);
		return -1;
	}
	if (len != 0 && reply_len != NULL)
		*reply_len = len;
	if (len >= 1 && len < WPA_CLI_REPLY_MAX) {
		reply[len] = '\0';
		printf("WPACli: wpa_cli_send: WPA reply %s\n", reply);
	}
	return 0;
}

int
wpa_cli_eh_register(const char *prefix, wpa_cli_eh_fn handler)
{
	size_t i;

	if (wpa_cli == NULL || handler == NULL)
		return 0;
	for (i = 0; i < WPA_CLI_EH_MAX; i++) {
		if (wpa_cli->eh[i].handler == NULL) {
			wpa_cli->eh[i].prefix = prefix;
			wpa_cli->eh[i].handler = handler;
			return 0;
		}
	}
	puts("WPACli: Exceed Maximum EH count");
	return -1;
}
