/* Media and device wrappers: the revalidate targets "webdav", "samba",
 * "dlna", "fm" and "usbcharger" (rows "-" of Part 2.2).  Each runs device
 * scripts in the common shape of a target handler; the scripts' results
 * are ignored. */
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/registry.h"
#include "net/net.h"
#include "system/system.h"

#define INVALID_ARGS    "invalid arguments"
#define MINIDLNA_STOP   "/etc/demo/minidlna_stop.sh"
#define FM_SCRIPT       "/etc/app/gw_fm.sh"
#define USB_CHARGER     "/etc/app/gw_usbcharger.sh"
#define FM_FREQ_KEY     "fm_freq"
/* "/etc/app/gw_fm.sh set_freq " plus at most "108.0" */
#define FM_CMD_SIZE     64

/* A service driven by "start", "stop" and "restart" (stop, then start). */
struct media_service {
	const char *start;
	const char *stop;
};

static const struct media_service webdav = {
	"/etc/demo/webdav_start.sh", "/etc/demo/webdav_stop.sh"
};
static const struct media_service samba = {
	"/etc/demo/samba_start.sh", "/etc/demo/samba_stop.sh"
};
static const struct media_service fm = {
	FM_SCRIPT " start", FM_SCRIPT " stop"
};

/* Runs the operation of one action word; NULL or an error text. */
typedef const char *(*media_run)(const char *action);

/* The common shape of a target handler (Part 2.2): a missing "action", or
 * one that is not a string, does nothing. */
static const char *
media_target(struct json_object *value, media_run run)
{
	const char *error = ipc_target_check(value, INVALID_ARGS);
	const char *action;

	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	return action != NULL ? run(action) : NULL;
}

/* Runs the scripts of action; an unknown action runs nothing. */
static const char *
media_service_run(const struct media_service *service, const char *action)
{
	int stop = strcmp(action, "stop") == 0 || strcmp(action, "restart") == 0;
	int start = strcmp(action, "start") == 0 || strcmp(action, "restart") == 0;

	if (stop)
		do_system(service->stop);
	if (start)
		do_system(service->start);
	return NULL;
}

static const char *
webdav_run(const char *action)
{
	return media_service_run(&webdav, action);
}

static const char *
samba_run(const char *action)
{
	return media_service_run(&samba, action);
}

static const char *
dlna_run(const char *action)
{
	if (strcmp(action, "start") == 0 || strcmp(action, "restart") == 0)
		dlna_restart();
	else if (strcmp(action, "stop") == 0)
		do_system(MINIDLNA_STOP);
	return NULL;
}

/* 1 when text is a frequency in MHz from 76 to 108 written as digits with
 * at most one decimal digit ("87", "87.5"), else 0.  The text reaches the
 * shell, so nothing else passes (DESIGN.md section 8). */
static int
fm_freq_valid(const char *text)
{
	unsigned int tenths = 0;
	size_t i, digits = 0;

	for (i = 0; isdigit((unsigned char)text[i]); i++, digits++) {
		if (digits == 3)
			return 0;
		tenths = tenths * 10 + (unsigned int)(text[i] - '0');
	}
	if (digits == 0)
		return 0;
	tenths *= 10;
	if (text[i] == '.') {
		if (!isdigit((unsigned char)text[i + 1]))
			return 0;
		tenths += (unsigned int)(text[i + 1] - '0');
		i += 2;
	}
	return text[i] == '\0' && tenths >= 760 && tenths <= 1080;
}

static const char *
fm_set_freq(void)
{
	struct json_object *stored;
	const char *text;
	int ret = confGetJson(CONF_SYSCONF, FM_FREQ_KEY, &stored);

	if (ret != 0) {
		puts(ret == CONF_BAD_JSON ? "fm_freq is not valid JSON." : "fm_freq is not set.");
		return "internal error";
	}
	/* A number keeps its stored text (87.5), a string gives its characters. */
	text = json_object_get_string(stored);
	if (fm_freq_valid(text))
		ret = do_systemf(FM_CMD_SIZE, FM_SCRIPT " set_freq %s", text);
	else {
		puts("Invalid FM frequency.");
		ret = -1;
	}
	json_object_put(stored);
	return ret == 0 ? NULL : "internal error";
}

static const char *
fm_run(const char *action)
{
	if (strcmp(action, "set_freq") == 0)
		return fm_set_freq();
	return media_service_run(&fm, action);
}

static const char *
usb_charger_run(const char *action)
{
	if (strcmp(action, "on") == 0)
		do_system(USB_CHARGER " on");
	else if (strcmp(action, "off") == 0)
		do_system(USB_CHARGER " off");
	return NULL;
}

const char *
_revalidate_webdav(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)reply_arguments;
	(void)deferred;
	return media_target(value, webdav_run);
}

const char *
_revalidate_samba(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)reply_arguments;
	(void)deferred;
	return media_target(value, samba_run);
}

const char *
_revalidate_dlna(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)reply_arguments;
	(void)deferred;
	return media_target(value, dlna_run);
}

const char *
_revalidate_fm(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)reply_arguments;
	(void)deferred;
	return media_target(value, fm_run);
}

const char *
_revalidate_usbCharger(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)reply_arguments;
	(void)deferred;
	return media_target(value, usb_charger_run);
}
