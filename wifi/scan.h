/* Wi-Fi scanning, access-point lists, TDLS peer links and cut-through
 * (wifi/scan.c, wifi/tdls.c; not specified further, see README). */
#ifndef HX_WIFI_SCAN_H
#define HX_WIFI_SCAN_H

#include <stddef.h>

struct json_object;

#define SCAN_CELL_MAX 64

/* One access point of an "iwlist mlan0 scan" listing. */
struct scan_cell {
	char bssid[18];
	char ssid[33];
	int channel;
	int signal;		/* dBm */
	char security[16];	/* "NONE", "WEP", "WPA-PSK", "WPA2-EAP", "WPA/WPA2-PSK"... */
	unsigned int flags;	/* what the parser has seen so far */
};
struct scan_list {
	int count;
	int full;		/* a further cell was dropped */
	struct scan_cell cell[SCAN_CELL_MAX];
};

/* One line of "iwlist <if> scan" output: "Cell NN - Address: MAC" starts
 * a cell (dropped once the list is full), the lines after it fill it. */
void scan_parse_line(const char *line, struct scan_list *list);
/* A whole output, from an empty list; lines of 256 bytes or more are
 * dropped.  Returns the cell count. */
int scan_parse_iwlist(const char *text, struct scan_list *list);
/* 1 when text begins with a MAC address "xx:xx:xx:xx:xx:xx" (hexadecimal
 * digits), else 0. */
int scan_mac_prefix(const char *text);
/* The channel of a frequency field "2.437 GHz" (0 when unknown). */
int scan_freq_channel(const char *field);

/* The station's link as "iwconfig <if>" shows it; no bssid when it is not
 * associated ("Access Point: Not-Associated"). */
struct scan_link {
	char ssid[33];
	char bssid[18];
	int channel;
	int signal;
	char bitrate[24];
};
void scan_link_line(const char *line, struct scan_link *link);
/* The N of a "Channel = N" line of "uaputl.exe sys_config", else 0. */
int scan_sys_config_channel(const char *line);

/* TDLS peer links.  The handler of
 * the "TDLS" supplicant events. */
void wpa_tdls_event_handler(const char *event, const char *arg, void *slot);
/* Sends "TDLS_SETUP <peer>" to the supplicant; -1 (refused) while a TDLS
 * link is being set up or when the request fails, else 0. */
int wifi_sta_tdls_setup(const char *peer);


/* Items */
const char *info_s_aplist(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_scanap(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_scanapresult(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_staconninfo(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_wl_channel(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_scantdlsdevice(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_scantdlsdeviceresult(struct json_object *name, struct json_object *infos, void *context);
const char *info_s_tdlsstatus(struct json_object *name, struct json_object *infos, void *context);
const char *info_cutthrough_status(struct json_object *name, struct json_object *infos, void *context);
/* Targets */
const char *_revalidate_tdls(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_cutThrough(struct json_object *value, struct json_object *reply_arguments, void *deferred);

#endif
