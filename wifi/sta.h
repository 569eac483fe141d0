// Station mode: joining a hotspot through the supplicant or the wireless
// tools.
#ifndef HX_WIFI_STA_H
#define HX_WIFI_STA_H

#include "wifi/wpacli.h"

struct json_object;

typedef struct {
	const char *sec;	/* security word */
	const char *ssid;
	const char *pass;	/* pass phrase or WEP key */
} StaNetworkParams;
int wl_connect(void);
int wl_disconnect(void);
int wifi_sta_connect(void);
int wifi_sta_disconnect(void);
/* Writes "/etc/wpa_supplicant.conf": 0, -1 when it cannot be opened or a
 * value holds a newline or a double quote (README, safety choices). */
int wifi_sta_reconfig(StaNetworkParams *params);
int wifi_sta_get_ip(void);
int wifi_sta_wpa_if_init(void);
void wifi_sta_wpa_if_deinit(void);
int gw_wpa_start(void);
int gw_wpa_stop(void);
int wpa_ctrl_event_handler(const char *event, const char *arg, struct wpa_cli_eh *slot);
const char *_revalidate_wpa(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif
