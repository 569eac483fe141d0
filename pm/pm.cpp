/* Part 8.1: power management and battery. */
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/wait.h>

#include <json-c/json.h>
#include <pmApi.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "ipc/registry.h"
#include "pm/pm.h"

#define PM_MSG_AUTO_WAKEUP   21
#define PM_MSG_SLEEP_TIMEOUT 22
#define PM_MSG_SLEEP_NOW     23

#define BATTERY_CAPACITY "/sys/class/power_supply/sp2566-0/capacity"
#define BATTERY_STATUS   "/sys/class/power_supply/sp2566-0/status"
#define CHARGER_TEST     "/etc/app/gw_check_charger.sh"

#define INVALID_ITEM   "Invalid arguments."
#define INVALID_TARGET "Invalid argument."

static int
pm_report(int ret, const char *success, const char *fail)
{
	puts(ret == 0 ? success : fail);
	return ret == 0 ? 0 : -1;
}

int
pm_process_action(const char *action)
{
	int32_t param = -1;

	if (action == NULL)
		return -1;
	if (strcmp(action, "wakeup") == 0)
		return pm_report(pmc_ipc_send_message(PM_MSG_AUTO_WAKEUP),
				 "send auto_wakeup command success",
				 "send auto_wakeup command fail");
	if (strcmp(action, "sleep") == 0)
		return pm_report(pmc_ipc_send_message_with_param(PM_MSG_SLEEP_NOW, &param),
				 "send immediate sleep command success",
				 "send immediate sleep command fail");
	return -1;
}

/* Sends the stored time-out: -1 when the key is missing or does not parse,
 * else 0 with *refused set when the controller did not accept it. */
static int
pm_send_sleep_timeout(int *refused)
{
	char text[64];
	int32_t timeout;
	int ret = confGetString(CONF_SYSCONF, "sleep_timeout", text, sizeof(text));

	if (ret == CONF_BAD_JSON)
		puts("Failed to parse message data");
	if (ret != 0)
		return -1;
	timeout = gw_atoi(text);
	*refused = pmc_ipc_send_message_with_param(PM_MSG_SLEEP_TIMEOUT, &timeout) != 0;
	pm_report(*refused, "set sleep_timeout success", "set sleep_timeout fail");
	return 0;
}

int
pm_set_sleep_timeout(void)
{
	int refused = 1;

	if (pm_send_sleep_timeout(&refused) != 0)
		return -1;
	return refused ? -1 : 0;
}

int
set_sleeptimeout(void)
{
	int refused;

	return pm_send_sleep_timeout(&refused);
}

const char *
info_pmd_status(struct json_object *name, struct json_object *infos, void *context)
{
	char text[16] = "";
	int32_t status;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID_ITEM;
	if (pmc_get_system_status(&status) == 0)
		gwutil_snprintf(text, sizeof(text), "%d", (int)status);
	info_add_string(infos, name, text);
	return NULL;
}

const char *
info_sleep_timeout(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *value;
	int ret;

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID_ITEM;
	ret = confGetJson(CONF_SYSCONF, "sleep_timeout", &value);
	if (ret == CONF_MISSING)
		return NULL;
	if (ret != 0)
		return "ERROR";
	json_object_object_add(infos, json_object_get_string(name), value);
	return NULL;
}

/* The first line of path (fgets with limit size), its last character cut
 * whatever it is, under the item's name. */
static const char *
battery_read(const char *path, size_t size, struct json_object *name, struct json_object *infos)
{
	char text[32] = "";
	size_t len;
	FILE *fp;

	if (info_args_missing(name, infos))
		return INVALID_ITEM;
	fp = fopen(path, "r");
	if (fp == NULL) {
		printf("Open %s failed.\n", path);
		return "ERROR";
	}
	if (size > sizeof(text) || fgets(text, (int)size, fp) == NULL)
		text[0] = '\0';
	len = strlen(text);
	if (len > 0)
		text[len - 1] = '\0';
	fclose(fp);
	info_add_string(infos, name, text);
	return NULL;
}

const char *
info_bat_cap(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return battery_read(BATTERY_CAPACITY, 8, name, infos);
}

const char *
info_bat_charging(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return battery_read(BATTERY_STATUS, 32, name, infos);
}

const char *
_revalidate_pmd(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *error = ipc_target_check(value, INVALID_TARGET);
	const char *action;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL)
		return NULL;
	puts("revalidate_autowakeup");
	pm_process_action(action);
	return NULL;
}

const char *
_revalidate_sleepTimeout(struct json_object *value, struct json_object *reply_arguments,
			 void *deferred)
{
	const char *error = ipc_target_check(value, INVALID_TARGET);
	const char *action;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL || (strcmp(action, "restart") != 0 && strcmp(action, "start") != 0))
		return NULL;
	puts("revalidate_setSleepTimeout");
	pm_set_sleep_timeout();
	return NULL;
}

const char *
_revalidate_chargerTest(struct json_object *value, struct json_object *reply_arguments,
			void *deferred)
{
	const char *error = ipc_target_check(value, INVALID_TARGET);
	const char *action;
	int status;

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL || (strcasecmp(action, "start") != 0 && strcasecmp(action, "restart") != 0))
		return "fail";
	status = do_system(CHARGER_TEST);
	if (status != -1 && WIFEXITED(status))
		return WEXITSTATUS(status) == 0 ? NULL : "fail";
	puts("charger test error");
	printf("exit illegal [%d] %s\n", errno, strerror(errno));
	return "fail";
}
