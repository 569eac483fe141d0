/* Access-point scanning (a detached thread running "iwlist mlan0 scan"),
 * the access-point lists, the station's link and the AP's channel (not
 * specified further; see README). */
#include <ctype.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "wifi/scan.h"

#define INVALID "Invalid arguments."
#define SCAN_COMMAND "/sbin/iwlist mlan0 scan"
#define IWCONFIG_COMMAND "/usr/sbin/iwconfig mlan0"
#define SYS_CONFIG_COMMAND "/sbin/uaputl.exe sys_config"

enum scan_state { SCAN_IDLE, SCAN_RUNNING, SCAN_DONE };

/* Shared with the scan thread; everything below is guarded by lock_aplist. */
static pthread_mutex_t lock_aplist = PTHREAD_MUTEX_INITIALIZER;
static enum scan_state scan_state;
static struct scan_list scan_result;

static const char *
skip_blanks(const char *s)
{
	while (*s == ' ' || *s == '\t')
		s++;
	return s;
}

/* The text after key and its ':' or '=' separator in line, or NULL. */
static const char *
field_after(const char *line, const char *key)
{
	const char *p = strstr(line, key);

	if (p == NULL)
		return NULL;
	p += strlen(key);
	if (*p != ':' && *p != '=')
		return NULL;
	return skip_blanks(p + 1);
}

/* The quoted text of an ESSID field (up to its last quote) into ssid. */
static void
copy_quoted(char *ssid, size_t size, const char *field)
{
	const char *end;

	ssid[0] = '\0';
	if (*field != '"')
		return;
	end = strrchr(field + 1, '"');
	if (end == NULL)
		return;
	if ((size_t)(end - field - 1) < size)
		size = (size_t)(end - field);
	strlcpy(ssid, field + 1, size);
}

/* The leading decimal number of text, clamped to +-99999 (atoi's overflow
 * is undefined). */
static int
to_int(const char *text)
{
	long value = strtol(text, NULL, 10);

	return value > 99999 ? 99999 : value < -99999 ? -99999 : (int)value;
}

int
scan_freq_channel(const char *field)
{
	double ghz = strtod(field, NULL);
	int mhz = ghz > 0 && ghz < 10 ? (int)(ghz * 1000 + 0.5) : 0;

	if (mhz == 2484)
		return 14;
	if (mhz >= 2412 && mhz <= 2472)
		return (mhz - 2407) / 5;
	if (mhz >= 5000 && mhz <= 5900)
		return (mhz - 5000) / 5;
	return 0;
}

int
scan_mac_prefix(const char *text)
{
	int i;

	for (i = 0; i < 17; i++) {
		if (i % 3 == 2 ? text[i] != ':' : !isxdigit((unsigned char)text[i]))
			return 0;
	}
	return 1;
}

/* Cell flags while parsing */
#define SEC_KEY  1u
#define SEC_WPA  2u
#define SEC_WPA2 4u
#define SEC_EAP  8u

static void
cell_security(struct scan_cell *cell)
{
	unsigned int f = cell->flags;
	const char *kind = (f & SEC_WPA) && (f & SEC_WPA2) ? "WPA/WPA2"
			   : (f & SEC_WPA2) ? "WPA2" : (f & SEC_WPA) ? "WPA" : NULL;

	if (kind != NULL)
		gwutil_snprintf(cell->security, sizeof(cell->security), "%s-%s", kind,
				(f & SEC_EAP) ? "EAP" : "PSK");
	else
		strlcpy(cell->security, (f & SEC_KEY) ? "WEP" : "NONE", sizeof(cell->security));
}

static void
cell_start(struct scan_list *list, const char *line)
{
	const char *address = strstr(line, "Address: ");
	struct scan_cell *cell;

	if (list->count >= SCAN_CELL_MAX) {
		list->full = 1;
		return;
	}
	cell = &list->cell[list->count++];
	memset(cell, 0, sizeof(*cell));
	if (address != NULL && scan_mac_prefix(address + 9))
		strlcpy(cell->bssid, address + 9, sizeof(cell->bssid));
	cell_security(cell);
}

static void
cell_line(struct scan_cell *cell, const char *line)
{
	const char *v;

	if ((v = field_after(line, "ESSID")) != NULL) {
		copy_quoted(cell->ssid, sizeof(cell->ssid), v);
		return;
	}
	if ((v = strstr(line, "(Channel ")) != NULL)
		cell->channel = to_int(v + 9);
	else if ((v = field_after(line, "Channel")) != NULL)
		cell->channel = to_int(v);
	else if ((v = field_after(line, "Frequency")) != NULL && cell->channel == 0)
		cell->channel = scan_freq_channel(v);
	if ((v = field_after(line, "Signal level")) != NULL)
		cell->signal = to_int(v);
	if (strstr(line, "Encryption key:on") != NULL)
		cell->flags |= SEC_KEY;
	if (str_match(line, "IE: WPA Version"))
		cell->flags |= SEC_WPA;
	if (str_match(line, "IE: IEEE 802.11i/WPA2"))
		cell->flags |= SEC_WPA2;
	if (str_match(line, "Authentication Suites") && strstr(line, "802.1x") != NULL)
		cell->flags |= SEC_EAP;
	cell_security(cell);
}

void
scan_parse_line(const char *line, struct scan_list *list)
{
	line = skip_blanks(line);
	if (str_match(line, "Cell ") && strstr(line, " - Address:") != NULL)
		cell_start(list, line);
	else if (list->count > 0 && !list->full)
		cell_line(&list->cell[list->count - 1], line);
}

int
scan_parse_iwlist(const char *text, struct scan_list *list)
{
	char line[256];
	size_t n;

	memset(list, 0, sizeof(*list));
	while (*text != '\0') {
		n = strcspn(text, "\n");
		if (n < sizeof(line)) {
			memcpy(line, text, n);
			line[n] = '\0';
			scan_parse_line(line, list);
		}
		text += n + (text[n] == '\n');
	}
	return list->count;
}

/* Runs command and feeds each whole line of its output (longer lines are
 * dropped) to fn; -1 when it cannot be run. */
static int
read_command(const char *command, void (*fn)(const char *, void *), void *arg)
{
	char line[256];
	int whole = 1;
	FILE *fp = popen(command, "re");

	if (fp == NULL)
		return -1;
	while (fgets(line, sizeof(line), fp) != NULL) {
		size_t n = strlen(line);
		int ends = n > 0 && line[n - 1] == '\n';

		if (whole && ends)
			fn(line, arg);
		whole = ends;
	}
	pclose(fp);
	return 0;
}

static void
scan_feed(const char *line, void *list)
{
	scan_parse_line(line, static_cast<struct scan_list *>(list));
}

static void *
scan_thread(void *unused)
{
	struct scan_list *list = (struct scan_list *)calloc(1, sizeof(*list));

	(void)unused;
	if (list != NULL)
		read_command(SCAN_COMMAND, scan_feed, list);
	pthread_mutex_lock(&lock_aplist);
	if (list != NULL)
		scan_result = *list;
	else
		memset(&scan_result, 0, sizeof(scan_result));
	scan_state = SCAN_DONE;
	pthread_mutex_unlock(&lock_aplist);
	free(list);
	return NULL;
}

/* Starts the detached scan thread with every signal blocked (the loop
 * thread handles them); 0 or -1. */
static int
scan_thread_start(void)
{
	pthread_attr_t attr;
	pthread_t thread;
	sigset_t all, old;
	int rc;

	if (pthread_attr_init(&attr) != 0)
		return -1;
	pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
	sigfillset(&all);
	pthread_sigmask(SIG_SETMASK, &all, &old);
	rc = pthread_create(&thread, &attr, scan_thread, NULL);
	pthread_sigmask(SIG_SETMASK, &old, NULL);
	pthread_attr_destroy(&attr);
	return rc == 0 ? 0 : -1;
}

/* "scanning" (started), "busy" (one is running) or "failed". */
static const char *
scan_start(void)
{
	enum scan_state before;

	pthread_mutex_lock(&lock_aplist);
	before = scan_state;
	if (before != SCAN_RUNNING)
		scan_state = SCAN_RUNNING;
	pthread_mutex_unlock(&lock_aplist);
	if (before == SCAN_RUNNING)
		return "busy";
	if (scan_thread_start() == 0)
		return "scanning";
	pthread_mutex_lock(&lock_aplist);
	scan_state = before;
	pthread_mutex_unlock(&lock_aplist);
	return "failed";
}

static struct json_object *
cell_json(const struct scan_cell *cell)
{
	struct json_object *object = json_object_new_object();
	char number[12];

	if (object == NULL)
		return NULL;
	info_set_string(object, "ssid", cell->ssid);
	info_set_string(object, "bssid", cell->bssid);
	gwutil_snprintf(number, sizeof(number), "%d", cell->channel);
	info_set_string(object, "channel", number);
	gwutil_snprintf(number, sizeof(number), "%d", cell->signal);
	info_set_string(object, "signal", number);
	info_set_string(object, "security", cell->security);
	return object;
}

/* Adds the cells of list picked by order (count indexes) to array. */
static int
add_cells(struct json_object *array, const struct scan_list *list, const int *order, int count)
{
	int i;

	for (i = 0; i < count; i++) {
		struct json_object *object = cell_json(&list->cell[order[i]]);

		if (object == NULL)
			return -1;
		json_object_array_add(array, object);
	}
	return 0;
}

static const char *
scan_state_text(enum scan_state state)
{
	return state == SCAN_RUNNING ? "scanning" : state == SCAN_DONE ? "done" : "idle";
}

const char *
info_s_scanap(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	info_add_string(infos, name, scan_start());
	return NULL;
}

const char *
info_s_scanapresult(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *object, *array;
	int order[SCAN_CELL_MAX], i, rc;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	object = info_add_object(infos, name);
	array = json_object_new_array();
	if (object == NULL || array == NULL) {
		json_object_put(array);
		return "ERROR";
	}
	for (i = 0; i < SCAN_CELL_MAX; i++)
		order[i] = i;
	pthread_mutex_lock(&lock_aplist);
	info_set_string(object, "state", scan_state_text(scan_state));
	json_object_object_add(object, "aps", array);
	rc = add_cells(array, &scan_result, order, scan_result.count);
	pthread_mutex_unlock(&lock_aplist);
	return rc == 0 ? NULL : "ERROR";
}

/* The web UI's list: named networks only, one cell per SSID (the
 * strongest), strongest first; ties keep the scan's order. */
static int
aplist_order(const struct scan_list *list, int *order)
{
	int i, j, count = 0;

	for (i = 0; i < list->count; i++) {
		const struct scan_cell *cell = &list->cell[i];

		if (cell->ssid[0] == '\0')
			continue;
		for (j = 0; j < count && strcmp(list->cell[order[j]].ssid, cell->ssid) != 0; j++)
			;
		if (j < count) {
			if (cell->signal > list->cell[order[j]].signal)
				order[j] = i;
			continue;
		}
		order[count++] = i;
	}
	for (i = 1; i < count; i++) {
		int moving = order[i];

		for (j = i; j > 0 && list->cell[order[j - 1]].signal < list->cell[moving].signal; j--)
			order[j] = order[j - 1];
		order[j] = moving;
	}
	return count;
}

const char *
info_s_aplist(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *array;
	int order[SCAN_CELL_MAX], count, rc;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	array = info_add_array(infos, name);
	if (array == NULL)
		return "ERROR";
	pthread_mutex_lock(&lock_aplist);
	count = aplist_order(&scan_result, order);
	rc = add_cells(array, &scan_result, order, count);
	pthread_mutex_unlock(&lock_aplist);
	return rc == 0 ? NULL : "ERROR";
}

void
scan_link_line(const char *line, struct scan_link *link)
{
	const char *v;
	char rate[16];
	int channel;

	if ((v = field_after(line, "ESSID")) != NULL)
		copy_quoted(link->ssid, sizeof(link->ssid), v);
	if ((v = strstr(line, "Access Point: ")) != NULL && scan_mac_prefix(v + 14))
		strlcpy(link->bssid, v + 14, sizeof(link->bssid));
	if ((v = field_after(line, "Frequency")) != NULL &&
	    (channel = scan_freq_channel(v)) != 0)
		link->channel = channel;
	if ((v = field_after(line, "Signal level")) != NULL)
		link->signal = to_int(v);
	if ((v = field_after(line, "Bit Rate")) != NULL &&
	    sscanf(v, "%15[^ ]", rate) == 1)
		gwutil_snprintf(link->bitrate, sizeof(link->bitrate), "%s Mb/s", rate);
}

static void
link_feed(const char *line, void *link)
{
	scan_link_line(line, static_cast<struct scan_link *>(link));
}

static int
link_json(struct json_object *object, const struct scan_link *link)
{
	int up = link->bssid[0] != '\0';
	char number[12];

	info_set_string(object, "state", up ? "connected" : "disconnected");
	info_set_string(object, "ssid", up ? link->ssid : "");
	info_set_string(object, "bssid", link->bssid);
	if (gwutil_snprintf(number, sizeof(number), "%d", up ? link->channel : 0) < 0)
		return -1;
	info_set_string(object, "channel", up ? number : "");
	if (gwutil_snprintf(number, sizeof(number), "%d", up ? link->signal : 0) < 0)
		return -1;
	info_set_string(object, "signal", up ? number : "");
	info_set_string(object, "bitrate", up ? link->bitrate : "");
	return 0;
}

const char *
info_s_staconninfo(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *object;
	struct scan_link link;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	memset(&link, 0, sizeof(link));
	read_command(IWCONFIG_COMMAND, link_feed, &link);
	return link_json(object, &link) == 0 ? NULL : "ERROR";
}

int
scan_sys_config_channel(const char *line)
{
	int channel;

	line = skip_blanks(line);
	if (!str_match(line, "Channel = "))
		return 0;
	channel = to_int(line + 10);
	return channel > 0 && channel < 200 ? channel : 0;
}

static void
channel_feed(const char *line, void *channel)
{
	int *found = static_cast<int *>(channel);

	if (*found == 0)
		*found = scan_sys_config_channel(line);
}

const char *
info_s_wl_channel(struct json_object *name, struct json_object *infos, void *context)
{
	char text[12];
	int channel = 0;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	read_command(SYS_CONFIG_COMMAND, channel_feed, &channel);
	if (channel > 0)
		gwutil_snprintf(text, sizeof(text), "%d", channel);
	else if (confGetString(CONF_SYSCONF, "wl_channel", text, sizeof(text)) != 0)
		strlcpy(text, "0", sizeof(text));
	info_add_string(infos, name, text);
	return NULL;
}
