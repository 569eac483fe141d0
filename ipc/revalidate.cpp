#include <stdio.h>
#include <string.h>

#include "conf/confdb.h"
#include "ipc/handlers.h"
#include "ipc/registry.h"

int is_system_busy()
{
	std::optional<std::string> text = rtConfGet("fwup_status");
	if (!text)
		return 0;
	hx::json::Ptr status = hx::json::parse(text->c_str());
	if (!status)
		return -1;
	json_object *stage = hx::json::member(status.get(), "upgrade_stage");
	return hx::json::is(stage, json_type_string) && strcmp(hx::json::text(stage), "ongoing") == 0;
}

// Targets run in the request's order; the first that fails ends the walk,
// the ones before it keeping their effect.
const char *revalidate(json_object *arguments, json_object *reply_arguments, void *)
{
	if (arguments == nullptr || reply_arguments == nullptr) {
		puts("Input parameters are NULL.");
		return "invalid arguments";
	}
	if (!hx::json::is(arguments, json_type_object)) {
		puts("Arguments are not required type data.");
		return "invalid arguments";
	}
	json_object_object_foreach(arguments, name, value) {
		const ipc_handler_entry *row = revalidate_find(name);
		if (row == nullptr)
			continue;
		if (is_system_busy() != 0)
			return "system busy";
		if (const char *error = row->handler(value, reply_arguments, nullptr))
			return error;
	}
	return nullptr;
}
