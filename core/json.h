// json-c objects with an owner, and the few questions every handler asks
// of a request member.  json-c's own rendering is what pref-set stores, so
// the objects stay json-c's; only their lifetime is managed here.
#ifndef HX_CORE_JSON_H
#define HX_CORE_JSON_H

#include <json-c/json.h>

#include <optional>
#include <string_view>

#include "core/owned.h"

namespace hx::json {

// Holds one reference; json_object_put(NULL) is a no-op, so an empty
// pointer needs no test.
using Ptr = Owned<json_object, json_object_put>;

// json_tokener_parse: NULL for text that does not parse and for "null";
// text after a complete value is accepted.
inline Ptr parse(const char *text) { return Ptr(json_tokener_parse(text)); }

inline bool is(json_object *value, json_type type) { return json_object_is_type(value, type); }

// A tokener kept for the event-loop thread, reset for a new text; NULL when
// it cannot be made.  Making one per parse costs a calloc of its whole state
// on every request.  Only the event-loop thread may use it.
json_tokener *loop_tokener();

// The member key of object, or NULL (absent, JSON null, or object not an object).
inline json_object *member(json_object *object, const char *key)
{
	return json_object_object_get(object, key);
}

// The text of a JSON string, or nullopt for any other type (null included).
inline std::optional<std::string_view> string(json_object *value)
{
	if (!is(value, json_type_string))
		return std::nullopt;
	return std::string_view(json_object_get_string(value),
				static_cast<size_t>(json_object_get_string_len(value)));
}

// A tokener kept for the event-loop thread, reset for a new text; NULL when
// it cannot be made.  Making one per parse costs a calloc of its whole state
// on every request.  Only the event-loop thread may use it.
json_tokener *loop_tokener();

// The member key of object when it is a JSON string.
inline std::optional<std::string_view> string_member(json_object *object, const char *key)
{
	return string(member(object, key));
}

// json_object_get_string: a string's text, any other value's JSON text,
// NULL for NULL.
inline const char *text(json_object *value) { return json_object_get_string(value); }

// Adds value under key, handing its reference to object.
inline void add(json_object *object, const char *key, Ptr value)
{
	json_object_object_add(object, key, value.release());
}

// The same for a key that outlives object (a literal, or a text of the
// request being answered): json-c then keeps the pointer instead of a copy.
inline void add_lasting(json_object *object, const char *key, Ptr value)
{
	json_object_object_add_ex(object, key, value.release(), JSON_C_OBJECT_KEY_IS_CONSTANT);
}

inline void add_string(json_object *object, const char *key, std::string_view text)
{
	json_object_object_add(object, key,
			       json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

}  // namespace hx::json

#endif
