#include "ipc/target.h"

#include <stdio.h>
#include <strings.h>

namespace hx::ipc {

const char *check_target(json_object *value, const char *invalid)
{
	if (value == nullptr) {
		puts("Input parameter is NULL.");
		return invalid;
	}
	if (!json::is(value, json_type_object)) {
		puts("Unexpected json type.");
		return invalid;
	}
	return nullptr;
}

const char *run_target(json_object *value, const Target &target)
{
	if (const char *error = check_target(value, target.invalid))
		return error;
	std::optional<std::string_view> action = json::string_member(value, "action");
	if (!action)
		return target.unknown;
	// json-c strings may hold a NUL; the words are compared as C strings.
	const char *word = action->data();
	if (target.announce != nullptr)
		target.announce(word);
	for (const Action &row : target.actions) {
		bool same = target.ignore_case ? strcasecmp(word, row.name.data()) == 0
					       : row.name == word;
		if (same)
			return row.run(value);
	}
	return target.unknown;
}

}  // namespace hx::ipc
