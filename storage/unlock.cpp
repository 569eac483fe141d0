/* Part 6.2: the targets "disk_unlock" and "safely_remove". */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>

#include <json-c/json.h>

#include "core/util.h"
#include "diskunlock.h"
#include "ipc/registry.h"
#include "storage/storage.h"

#define SAFE_REMOVE "/etc/app/gw_hd_safe_remove.sh"

static int
unlock_state(struct json_object *args)
{
	struct json_object *name, *passwd;

	if (!json_object_object_get_ex(args, "disk_name", &name) ||
	    !json_object_object_get_ex(args, "passwd", &passwd)) {
		puts("disk_unlock parameter name/passwd invalid");
		return -1;
	}
	if (!json_object_is_type(name, json_type_string) ||
	    !json_object_is_type(passwd, json_type_string)) {
		puts("disk_unlock parameter name/passwd NULL");
		return -1;
	}
	return disk_unlock(json_object_get_string(name), json_object_get_string(passwd));
}

const char *
_revalidate_diskUnlock(struct json_object *args, struct json_object *response, void *deferred)
{
	const char *error, *text;

	(void)deferred;
	if (args == NULL || response == NULL) {
		puts("Input parameters are NULL.");
		return "Invalid arguments.";
	}
	error = ipc_target_check(args, "Invalid arguments.");
	if (error != NULL)
		return error;
	text = disk_lock_state_name(unlock_state(args));
	json_object_object_add(response, "lock_state",
			       json_object_new_string(text != NULL ? text : "Error"));
	return NULL;
}

/* Safety (DESIGN.md section 8): the name reaches the shell unquoted. */
static int
disk_name_safe(const char *disk)
{
	return strspn(disk, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-") ==
	       strlen(disk);
}

const char *
_revalidate_safelyRemove(struct json_object *args, struct json_object *response, void *deferred)
{
	struct json_object *disk;
	char command[64];
	int n, status;

	(void)response;
	(void)deferred;
	if (ipc_target_check(args, "Invalid argument.") != NULL)
		return "Invalid argument.";
	if (!json_object_object_get_ex(args, "disk", &disk) ||
	    !json_object_is_type(disk, json_type_string))
		return "fail";
	n = snprintf(command, sizeof(command), SAFE_REMOVE " %s", json_object_get_string(disk));
	if (n < 0 || (size_t)n >= sizeof(command) || !disk_name_safe(json_object_get_string(disk)))
		return "fail";
	status = do_system(command);
	if (WIFEXITED(status))
		return WEXITSTATUS(status) == 0 ? NULL : "fail";
	puts("safely remove script error");
	printf("exit illegal [%d] %s\n", errno, strerror(errno));
	return "fail";
}
