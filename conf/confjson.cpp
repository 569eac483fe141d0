// Transitional: the C-style JSON readers over the store, removed once no
// caller uses them (conf/store.h has their replacements).
#include "conf/confjson.h"

#include <string.h>

#include "core/fmt.h"
#include "core/util.h"

static hx::conf::Store store_of(enum conf_store store)
{
	return static_cast<hx::conf::Store>(store);
}

int confGetJson(enum conf_store store, const char *key, struct json_object **value)
{
	auto parsed = hx::conf::json(store_of(store), key);
	*value = parsed ? parsed->release() : nullptr;
	if (parsed)
		return 0;
	return parsed.error() == hx::conf::Error::missing ? CONF_MISSING : CONF_BAD_JSON;
}

int confGetString(enum conf_store store, const char *key, char *buf, size_t size)
{
	auto text = hx::conf::text(store_of(store), key);
	if (text)
		strlcpy(buf, text->c_str(), size);
	if (text)
		return 0;
	return text.error() == hx::conf::Error::missing ? CONF_MISSING : CONF_BAD_JSON;
}

int confSetf(enum conf_store store, const char *key, const char *format, ...)
{
	va_list args;
	va_start(args, format);
	std::string text = hx::vformat(format, args);
	va_end(args);
	return hx::conf::set(store_of(store), key, text);
}
