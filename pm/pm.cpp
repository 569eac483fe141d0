// Power management: the controller's messages and status through its
// library, the battery gauge, and the charger test script.
#include "pm/pm.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <pmApi.h>

#include <string_view>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "ipc/target.h"

namespace {

namespace json = hx::json;

constexpr char invalid_item[] = "Invalid arguments.";
constexpr char invalid_target[] = "Invalid argument.";

// Prints "WHAT success" or "WHAT fail": 0, or -1 when the controller did
// not accept.
int report(int sent, const char *what)
{
	printf("%s %s\n", what, sent == 0 ? "success" : "fail");
	return sent == 0 ? 0 : -1;
}

int send_wakeup()
{
	return report(pmc_ipc_send_message(21), "send auto_wakeup command");
}

int send_sleep()
{
	int32_t now = -1;
	return report(pmc_ipc_send_message_with_param(23, &now), "send immediate sleep command");
}

// Sends the stored time-out; whether the controller accepted it, or
// nullopt when the key is missing or does not parse.
std::optional<bool> send_sleep_timeout()
{
	auto text = hx::conf::text(hx::conf::Store::sysconf, "sleep_timeout");
	if (!text) {
		if (text.error() == hx::conf::Error::bad_json)
			puts("Failed to parse message data");
		return std::nullopt;
	}
	int32_t timeout = gw_atoi(text->c_str());
	return report(pmc_ipc_send_message_with_param(22, &timeout), "set sleep_timeout") == 0;
}

// The first line of a gauge file, read with fgets's limit, loses its last
// character whatever it is (the newline of a normal read).
const char *battery(const char *path, int limit, json_object *name, json_object *infos)
{
	if (info_args_missing(name, infos))
		return invalid_item;
	hx::FilePtr file = hx::open_file(path, "r");
	if (!file) {
		printf("Open %s failed.\n", path);
		return "ERROR";
	}
	char text[32] = "";
	if (fgets(text, limit, file.get()) == nullptr)
		text[0] = '\0';
	std::string_view line(text);
	json::add_string(infos, json::text(name), line.substr(0, line.empty() ? 0 : line.size() - 1));
	return nullptr;
}

void announce_wakeup(const char *)
{
	puts("revalidate_autowakeup");
}

constexpr hx::ipc::Action pmd_actions[] = {
	{"wakeup", hx::ipc::run<send_wakeup>},
	{"sleep", hx::ipc::run<send_sleep>},
};

int apply_sleep_timeout()
{
	puts("revalidate_setSleepTimeout");
	return pm_set_sleep_timeout();
}

constexpr hx::ipc::Action sleep_timeout_actions[] = {
	{"restart", hx::ipc::run<apply_sleep_timeout>},
	{"start", hx::ipc::run<apply_sleep_timeout>},
};

const char *charger_test(json_object *)
{
	return script_succeeds("/etc/app/gw_check_charger.sh", "charger test error") ? nullptr : "fail";
}

constexpr hx::ipc::Action charger_actions[] = {
	{"start", charger_test},
	{"restart", charger_test},
};

}  // namespace

int pm_process_action(const char *action)
{
	std::string_view word = action != nullptr ? action : "";
	return word == "wakeup" ? send_wakeup() : word == "sleep" ? send_sleep() : -1;
}

int pm_set_sleep_timeout()
{
	std::optional<bool> accepted = send_sleep_timeout();
	return accepted && *accepted ? 0 : -1;
}

int set_sleeptimeout()
{
	return send_sleep_timeout() ? 0 : -1;
}

const char *info_pmd_status(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid_item;
	int32_t status;
	bool known = pmc_get_system_status(&status) == 0;
	json::add_string(infos, json::text(name), known ? hx::format("%d", static_cast<int>(status)) : "");
	return nullptr;
}

// The stored value is added as the JSON value it is; a missing key adds
// nothing.
const char *info_sleep_timeout(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return invalid_item;
	auto value = hx::conf::json(hx::conf::Store::sysconf, "sleep_timeout");
	if (!value)
		return value.error() == hx::conf::Error::missing ? nullptr : "ERROR";
	json::add(infos, json::text(name), std::move(*value));
	return nullptr;
}

const char *info_bat_cap(json_object *name, json_object *infos, void *)
{
	return battery("/sys/class/power_supply/sp2566-0/capacity", 8, name, infos);
}

const char *info_bat_charging(json_object *name, json_object *infos, void *)
{
	return battery("/sys/class/power_supply/sp2566-0/status", 32, name, infos);
}

// Any action is announced; the controller's refusal is not the target's.
const char *_revalidate_pmd(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {pmd_actions, invalid_target, nullptr, false, announce_wakeup});
}

const char *_revalidate_sleepTimeout(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {sleep_timeout_actions, invalid_target});
}

// Unlike the other targets, a missing or other action fails, and the
// words are compared without regard to case.
const char *_revalidate_chargerTest(json_object *value, json_object *, void *)
{
	return hx::ipc::run_target(value, {charger_actions, invalid_target, "fail", true});
}
