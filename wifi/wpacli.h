// The supplicant's control client: one command connection and one attached
// event connection, events dispatched by prefix to four handler slots.
#ifndef HX_WIFI_WPACLI_H
#define HX_WIFI_WPACLI_H

#include <stddef.h>

struct wpa_cli_eh;
// (canonical event name with its trailing blank, argument or NULL, its own
// slot); the result is ignored.
using wpa_cli_eh_fn = int (*)(const char *event, const char *arg, wpa_cli_eh *slot);
struct wpa_cli_eh {
	const char *prefix;
	wpa_cli_eh_fn handler;
};

// 0 when attached (also when it already was), -1 on failure.
int wpa_cli_init();
// Closes everything and frees the handler slots; safe in any state.
void wpa_cli_deinit();
// Sends cmd; the reply is consumed, not kept.  0 or -1.
int wpa_cli_send(const char *cmd, char *reply, size_t *reply_len);
// 0, or -1 when the four slots are taken; nothing is done without a client.
int wpa_cli_eh_register(const char *prefix, wpa_cli_eh_fn handler);
// One event message as the event reader dispatches it.
void wpa_cli_event_dispatch(const char *msg);

#endif
