// The one dispatcher of the service targets of revalidate.  A target is a
// table of {action, function} rows; the shape of its argument is checked
// here, once for all of them:
//   null          -> "Input parameter is NULL."  and the target's invalid text
//   not an object -> "Unexpected json type."     and the target's invalid text
//   a string member "action" naming a row        -> that row's function
//   "action" missing, not a string or unknown    -> the target's unknown result
//                                                   (success unless it says so)
#ifndef HX_IPC_TARGET_H
#define HX_IPC_TARGET_H

#include <span>
#include <string_view>

#include "core/json.h"

namespace hx::ipc {

// An action's function gets the target's whole argument object, for the
// members some actions read ("peer", "id", "time" ...); it answers NULL for
// success or a constant error text.
using ActionFn = const char *(*)(json_object *value);

struct Action {
	std::string_view name;
	ActionFn run;
};

struct Target {
	std::span<const Action> actions;
	// The family's wording for a null or non-object argument.
	const char *invalid = "invalid arguments";
	// The answer to a missing or unknown action.
	const char *unknown = nullptr;
	// Action words compared without regard to case.
	bool ignore_case = false;
	// Called with any string action before the lookup (a trace some
	// targets print whatever the action).
	void (*announce)(const char *action) = nullptr;
};

// Steps 1 and 2 alone, for targets without actions: NULL when value is an
// object, else the message printed and invalid returned.
const char *check_target(json_object *value, const char *invalid);

const char *run_target(json_object *value, const Target &target);

// An action that runs F() and answers success whatever F returns: the
// commands of most services are not judged.
template <auto F>
const char *run(json_object *)
{
	F();
	return nullptr;
}

// An action that answers "internal error" when F() returns non-zero.
template <auto F>
const char *run_checked(json_object *)
{
	return F() == 0 ? nullptr : "internal error";
}

}  // namespace hx::ipc

#endif
