/* Part 9.2: firmware upgrade, reboot, power-off and factory default. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <json-c/json.h>

#include "core/util.h"
#include "ipc/registry.h"
#include "system/system.h"

#define FWUP_CMD   128
#define FWUP_PARTS 7
/* An absent part: the word the C library prints for a null %s, quoted so
 * that the shell takes its parentheses literally. */
#define FWUP_NULL  "'(null)'"

static const char *const fwup_names[FWUP_PARTS] = {
	"serverip", "bootloader", "kernel", "jffs2", "opt", "rootfs", "subfolder",
};

void
do_safeReboot(int delay_seconds)
{
	pid_t pid = fork();

	if (pid < 0) {
		printf("do_safeReboot: fork failed: %s\n", strerror(errno));
		return;
	}
	if (pid > 0)
		return;
	sleep(delay_seconds > 0 ? (unsigned int)delay_seconds : 0);
	do_system("kill 1");
	abort();
}

void
do_poweroff(void)
{
	puts("do poweroff");
	do_system("/etc/app/gw_poweroff.sh &");
}

int
do_factoryDefault(void)
{
	puts("do factoryDefault");
	do_system("/etc/app/gw_factoryreset.sh &");
	return 0;
}

int
fw_upgrade(int set_defaults)
{
	do_systemf(FWUP_CMD, "/etc/app/gw_fwupgrade.sh %s > /dev/console &",
		   set_defaults == 1 ? "set_def" : "");
	return 0;
}

/* Safety (DESIGN.md section 8): the parts reach the shell unquoted, so an
 * empty part, a character the shell could interpret or a command longer
 * than the 128-byte buffer refuses the whole command: 0, or -1 with the
 * reason printed. */
static int
fwup_command(char *cmd, size_t size, const char *const part[FWUP_PARTS])
{
	const char *word[FWUP_PARTS];
	int i, n;

	for (i = 0; i < FWUP_PARTS; i++) {
		if (part[i] != NULL && (part[i][0] == '\0' || !gwutil_shell_safe(part[i]))) {
			printf("firmware upgrade: %s refused: empty or unsafe characters\n",
			       fwup_names[i]);
			return -1;
		}
		word[i] = part[i] != NULL ? part[i] : FWUP_NULL;
	}
	n = gwutil_snprintf(cmd, size, "/etc/app/fw_upgrade.sh %s %s %s %s %s %s %s &",
			    word[0], word[1], word[2], word[3], word[4], word[5], word[6]);
	if (n < 0 || (size_t)n >= size) {
		puts("firmware upgrade: refused: the command does not fit 128 bytes");
		return -1;
	}
	return 0;
}

static int
fwup_run(const char *cmd)
{
	puts(cmd);
	return do_system(cmd) == 0 ? 0 : -1;
}

int
firmware_upgrade(const char *serverip, const char *bootloader, const char *kernel,
		 const char *jffs2, const char *opt, const char *rootfs,
		 const char *subfolder)
{
	const char *const part[FWUP_PARTS] = {
		serverip, bootloader, kernel, jffs2, opt, rootfs, subfolder,
	};
	char cmd[FWUP_CMD];

	if (fwup_command(cmd, sizeof(cmd), part) != 0)
		return -1;
	return fwup_run(cmd);
}

const char *
_revalidate_fwUpgrade(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *action, *error;

	(void)reply_arguments;
	(void)deferred;
	error = ipc_target_check(value, "invalid arguments");
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL)
		return NULL;
	if (strcmp(action, "start") == 0)
		fw_upgrade(0);
	else if (strcmp(action, "startv") == 0)
		fw_upgrade(1);
	return NULL;
}

/* The members in the Part's order; absent ones stay NULL.  A member that is
 * present but not a JSON string (null, a number, an object ...) yields no
 * text: -1. */
static int
fwup_parts(struct json_object *value, const char *part[FWUP_PARTS])
{
	struct json_object *member;
	int i;

	for (i = 0; i < FWUP_PARTS; i++) {
		part[i] = NULL;
		if (!json_object_object_get_ex(value, fwup_names[i], &member))
			continue;
		if (!json_object_is_type(member, json_type_string))
			return -1;
		part[i] = json_object_get_string(member);
	}
	return 0;
}

const char *
_revalidate_firmwareUpgrade(struct json_object *value, struct json_object *reply_arguments,
			    void *deferred)
{
	const char *part[FWUP_PARTS];
	const char *error;
	char cmd[FWUP_CMD];

	(void)reply_arguments;
	(void)deferred;
	error = ipc_target_check(value, "invalid arguments");
	if (error != NULL)
		return error;
	if (fwup_parts(value, part) != 0 || fwup_command(cmd, sizeof(cmd), part) != 0)
		return "internal error";
	fwup_run(cmd);
	return NULL;
}

const char *
_revalidate_factoryDefault(struct json_object *value, struct json_object *reply_arguments,
			   void *deferred)
{
	(void)value;
	(void)reply_arguments;
	(void)deferred;
	return do_factoryDefault() != 0 ? "internal error" : NULL;
}

const char *
_revalidate_reboot(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)value;
	(void)reply_arguments;
	(void)deferred;
	do_safeReboot(3);
	return NULL;
}

const char *
_revalidate_poweroff(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	(void)value;
	(void)reply_arguments;
	(void)deferred;
	do_poweroff();
	return NULL;
}
