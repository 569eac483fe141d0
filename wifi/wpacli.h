// The WPA supplicant control client: one command connection and one
// attached event connection, events dispatched by prefix.
#ifndef HX_WIFI_WPACLI_H
#define HX_WIFI_WPACLI_H

#include <stddef.h>

struct wpa_cli_eh;
/* (canonical event name with its trailing blank, argument or NULL, its own
 * slot); the result is ignored. */
typedef int (*wpa_cli_eh_fn)(const char *event, const char *arg,
			     struct wpa_cli_eh *slot);
struct wpa_cli_eh {
	const char *prefix;
	wpa_cli_eh_fn handler;
};
int wpa_cli_init(void);
void wpa_cli_deinit(void);
int wpa_cli_send(const char *cmd, char *reply, size_t *reply_len);
int wpa_cli_eh_register(const char *prefix, wpa_cli_eh_fn handler);
/* One event message as the event reader dispatches it (exposed for tests). */
void wpa_cli_event_dispatch(const char *msg);

#endif
