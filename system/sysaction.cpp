// Whole-device actions: firmware upgrade, reboot, power-off and factory
// default.  The platform's scripts do the work in the background; the
// daemon answers at once.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "core/fmt.h"
#include "core/util.h"
#include "ipc/target.h"
#include "system/system.h"

namespace {

constexpr size_t command_max = 127;	// the upgrade command's 128-byte buffer
constexpr std::array<const char *, 7> part_names = {
	"serverip", "bootloader", "kernel", "jffs2", "opt", "rootfs", "subfolder",
};
// An absent part: the word the C library prints for a null text, quoted so
// that the shell takes its parentheses literally.
constexpr const char *absent_part = "'(null)'";

// The parts reach the shell unquoted: an empty part, a character the shell
// could interpret or a command over the buffer refuses the whole command.
std::optional<std::string> upgrade_command(const std::array<const char *, 7> &parts)
{
	std::array<const char *, 7> words;
	for (size_t i = 0; i < parts.size(); i++) {
		if (parts[i] != nullptr && (parts[i][0] == '\0' || !gwutil_shell_safe(parts[i]))) {
			printf("firmware upgrade: %s refused: empty or unsafe characters\n", part_names[i]);
			return std::nullopt;
		}
		words[i] = parts[i] != nullptr ? parts[i] : absent_part;
	}
	std::string command = hx::format("/etc/app/fw_upgrade.sh %s %s %s %s %s %s %s &", words[0],
					 words[1], words[2], words[3], words[4], words[5], words[6]);
	if (command.size() > command_max) {
		puts("firmware upgrade: refused: the command does not fit 128 bytes");
		return std::nullopt;
	}
	return command;
}

int run_upgrade(const std::string &command)
{
	puts(command.c_str());
	return do_system(command.c_str()) == 0 ? 0 : -1;
}

}  // namespace

void do_safeReboot(int delay_seconds)
{
	pid_t pid = fork();
	if (pid < 0) {
		printf("do_safeReboot: fork failed: %s\n", strerror(errno));
		return;
	}
	if (pid > 0)
		return;
	sleep(delay_seconds > 0 ? static_cast<unsigned int>(delay_seconds) : 0);
	do_system("kill 1");
	abort();
}

void do_poweroff()
{
	puts("do poweroff");
	do_system("/etc/app/gw_poweroff.sh &");
}

int do_factoryDefault()
{
	puts("do factoryDefault");
	do_system("/etc/app/gw_factoryreset.sh &");
	return 0;
}

int fw_upgrade(int set_defaults)
{
	do_systemf(command_max + 1, "/etc/app/gw_fwupgrade.sh %s > /dev/console &",
		   set_defaults == 1 ? "set_def" : "");
	return 0;
}

int firmware_upgrade(const std::array<const char *, 7> &parts)
{
	std::optional<std::string> command = upgrade_command(parts);
	return command ? run_upgrade(*command) : -1;
}

namespace {

template <int SetDefaults>
const char *upgrade(json_object *)
{
	fw_upgrade(SetDefaults);
	return nullptr;
}

constexpr hx::ipc::Action fw_upgrade_actions[] = {{"start", upgrade<0>}, {"startv", upgrade<1>}};

void reboot_soon()
{
	do_safeReboot(3);	// time for the reply to reach the client
}

// The parts in their order; absent ones stay null.  A member present
// without a JSON string (null, a number, an object ...) gives no text.
std::optional<std::array<const char *, 7>> upgrade_parts(json_object *value)
{
	std::array<const char *, 7> parts{};
	for (size_t i = 0; i < parts.size(); i++) {
		json_object *member;
		if (!json_object_object_get_ex(value, part_names[i], &member))
			continue;
		if (!hx::json::is(member, json_type_string))
			return std::nullopt;
		parts[i] = hx::json::text(member);
	}
	return parts;
}

}  // namespace

const char *_revalidate_fwUpgrade(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {fw_upgrade_actions});
}

// The script's status is not reported.
const char *_revalidate_firmwareUpgrade(json_object *value, json_object *, void *)
{
	if (const char *error = hx::ipc::check_target(value, "invalid arguments"))
		return error;
	std::optional<std::array<const char *, 7>> parts = upgrade_parts(value);
	std::optional<std::string> command = parts ? upgrade_command(*parts) : std::nullopt;
	if (!command)
		return "internal error";
	run_upgrade(*command);
	return nullptr;
}

const char *_revalidate_factoryDefault(json_object *value, json_object *, void *)
{
	return hx::ipc::run_checked<do_factoryDefault>(value);
}

const char *_revalidate_reboot(json_object *value, json_object *, void *)
{
	return hx::ipc::run<reboot_soon>(value);
}

const char *_revalidate_poweroff(json_object *value, json_object *, void *)
{
	return hx::ipc::run<do_poweroff>(value);
}
