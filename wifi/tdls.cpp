/* TDLS peer links through the supplicant and the cut-through mode (not
 * specified further; see README).  Everything here runs on the event-loop
 * thread. */
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <json-c/json.h>

#include "core/util.h"
#include "ipc/info_parse.h"
#include "ipc/registry.h"
#include "wifi/scan.h"
#include "wifi/wifi.h"

#define INVALID "Invalid arguments."
#define TDLS_PEER_MAX 16
#define CUTTHROUGH_SCRIPT "/etc/app/gw_cutthrough.sh"

enum tdls_state { TDLS_IDLE, TDLS_CONNECTING, TDLS_CONNECTED };

static enum tdls_state tdls_state;
static char tdls_peer[18];
static char tdls_found[TDLS_PEER_MAX][18];
static int tdls_found_count;
static int cutthrough_on;

/* "xx:xx:xx:xx:xx:xx" in hexadecimal digits, nothing after it. */
static int
tdls_is_mac(const char *text)
{
	return text != NULL && strlen(text) == 17 && scan_mac_prefix(text);
}

static void
tdls_found_add(const char *mac)
{
	int i;

	for (i = 0; i < tdls_found_count; i++)
		if (strcasecmp(tdls_found[i], mac) == 0)
			return;
	if (tdls_found_count < TDLS_PEER_MAX)
		strlcpy(tdls_found[tdls_found_count++], mac, sizeof(tdls_found[0]));
}

void
wpa_tdls_event_handler(const char *event, const char *arg, void *slot)
{
	(void)slot;
	if (event == NULL)
		return;
	if (strcmp(event, "TDLS-DISC-RESP ") == 0 && tdls_is_mac(arg)) {
		printf("TDLS: Discovered peer %s\n", arg);
		tdls_found_add(arg);
	} else if (strcmp(event, "TDLS-LINK-UP ") == 0) {
		puts("TDLS: Link up");
		tdls_state = TDLS_CONNECTED;
	} else if (strcmp(event, "TDLS-LINK-DOWN ") == 0) {
		puts("TDLS: Link down");
		tdls_state = TDLS_IDLE;
		tdls_peer[0] = '\0';
	}
}

int
wifi_sta_tdls_setup(const char *peer)
{
	char command[32];

	if (tdls_state == TDLS_CONNECTING) {
		puts("TDLS: Connecting, reject TDLS setup request");
		return -1;
	}
	if (!tdls_is_mac(peer)) {
		puts("TDLS: Invalid peer address");
		return -1;
	}
	if (gwutil_snprintf(command, sizeof(command), "TDLS_SETUP %s", peer) < 0 ||
	    wpa_cli_send(command, NULL, NULL) != 0)
		return -1;
	tdls_state = TDLS_CONNECTING;
	strlcpy(tdls_peer, peer, sizeof(tdls_peer));
	return 0;
}

/* Ends the link (or its set-up) with the current peer; 0 or -1. */
static int
tdls_teardown(void)
{
	char command[40];
	int rc = 0;

	if (tdls_state != TDLS_IDLE && tdls_peer[0] != '\0') {
		gwutil_snprintf(command, sizeof(command), "TDLS_TEARDOWN %s", tdls_peer);
		rc = wpa_cli_send(command, NULL, NULL);
	}
	tdls_state = TDLS_IDLE;
	tdls_peer[0] = '\0';
	return rc;
}

const char *
info_s_scantdlsdevice(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	tdls_found_count = 0;
	info_add_string(infos, name,
			wpa_cli_send("TDLS_DISCOVER ff:ff:ff:ff:ff:ff", NULL, NULL) == 0
				? "scanning" : "failed");
	return NULL;
}

const char *
info_s_scantdlsdeviceresult(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *array, *object;
	int i;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	array = info_add_array(infos, name);
	if (array == NULL)
		return "ERROR";
	for (i = 0; i < tdls_found_count; i++) {
		object = json_object_new_object();
		if (object == NULL)
			return "ERROR";
		info_set_string(object, "mac", tdls_found[i]);
		json_object_array_add(array, object);
	}
	return NULL;
}

const char *
info_s_tdlsstatus(struct json_object *name, struct json_object *infos, void *context)
{
	static const char *const text[] = { "idle", "connecting", "connected" };
	struct json_object *object;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	info_set_string(object, "state", text[tdls_state]);
	info_set_string(object, "peer", tdls_peer);
	return NULL;
}

const char *
info_cutthrough_status(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	info_add_string(infos, name, cutthrough_on ? "on" : "off");
	return NULL;
}

/* The peer member of value, else the first discovered peer, else NULL. */
static const char *
tdls_start_peer(struct json_object *value)
{
	struct json_object *peer;

	if (json_object_object_get_ex(value, "peer", &peer))
		return json_object_is_type(peer, json_type_string) ? json_object_get_string(peer)
								    : NULL;
	return tdls_found_count > 0 ? tdls_found[0] : NULL;
}

const char *
_revalidate_tdls(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *action, *peer;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL)
		return NULL;
	if (strcmp(action, "start") == 0) {
		peer = tdls_start_peer(value);
		if (!tdls_is_mac(peer))
			return "invalid arguments";
		return wifi_sta_tdls_setup(peer) == 0 ? NULL : "internal error";
	}
	if (strcmp(action, "stop") == 0)
		return tdls_teardown() == 0 ? NULL : "internal error";
	return NULL;
}

const char *
_revalidate_cutThrough(struct json_object *value, struct json_object *reply_arguments,
		       void *deferred)
{
	const char *error = ipc_target_check(value, "invalid arguments");
	const char *action;
	int on;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL)
		return NULL;
	if (strcmp(action, "start") == 0)
		on = 1;
	else if (strcmp(action, "stop") == 0)
		on = 0;
	else
		return NULL;
	if (do_system(on ? CUTTHROUGH_SCRIPT " start" : CUTTHROUGH_SCRIPT " stop") != 0)
		return "internal error";
	cutthrough_on = on;
	return NULL;
}
