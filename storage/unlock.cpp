// The targets "disk_unlock" (a drive's password to the disk-unlock
// library) and "safely_remove" (the platform's removal script).
#include <stdio.h>
#include <string.h>

#include <optional>

#include "core/fmt.h"
#include "core/util.h"
#include "diskunlock.h"
#include "ipc/target.h"
#include "storage/storage.h"

namespace {

namespace json = hx::json;

// A wrong password is no error of the request: the state tells it.
int unlock_state(json_object *args)
{
	json_object *name, *passwd;
	if (!json_object_object_get_ex(args, "disk_name", &name) ||
	    !json_object_object_get_ex(args, "passwd", &passwd)) {
		puts("disk_unlock parameter name/passwd invalid");
		return -1;
	}
	if (!json::is(name, json_type_string) || !json::is(passwd, json_type_string)) {
		puts("disk_unlock parameter name/passwd NULL");
		return -1;
	}
	return disk_unlock(json::text(name), json::text(passwd));
}

// The disk name reaches the shell unquoted, in a command of 64 bytes.
std::optional<std::string> remove_command(const char *disk)
{
	std::string command = hx::format("/etc/app/gw_hd_safe_remove.sh %s", disk);
	constexpr char safe[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-";
	if (command.size() >= 64 || strspn(disk, safe) != strlen(disk))
		return std::nullopt;
	return command;
}

}  // namespace

const char *_revalidate_diskUnlock(json_object *args, json_object *response, void *)
{
	if (args == nullptr || response == nullptr) {
		puts("Input parameters are NULL.");
		return "Invalid arguments.";
	}
	if (const char *error = hx::ipc::check_target(args, "Invalid arguments."))
		return error;
	const char *state = disk_lock_state_name(unlock_state(args));
	json::add_string(response, "lock_state", state != nullptr ? state : "Error");
	return nullptr;
}

const char *_revalidate_safelyRemove(json_object *args, json_object *, void *)
{
	if (const char *error = hx::ipc::check_target(args, "Invalid argument."))
		return error;
	json_object *disk = json::member(args, "disk");
	std::optional<std::string> command =
		json::is(disk, json_type_string) ? remove_command(json::text(disk)) : std::nullopt;
	if (!command)
		return "fail";
	return script_succeeds(command->c_str(), "safely remove script error") ? nullptr : "fail";
}
