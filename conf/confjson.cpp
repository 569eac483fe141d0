#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <event.h>
#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"

int
confGetJson(enum conf_store store, const char *key, struct json_object **value)
{
	struct evbuffer *buf = evbuffer_new();
	int ret = CONF_MISSING;

	*value = NULL;
	if (buf == NULL)
		return CONF_MISSING;
	if (confGet(confStorePath(store), key, buf) == 0) {
		*value = json_tokener_parse((const char *)EVBUFFER_DATA(buf));
		ret = *value != NULL ? 0 : CONF_BAD_JSON;
	}
	evbuffer_free(buf);
	return ret;
}

int
confGetString(enum conf_store store, const char *key, char *buf, size_t size)
{
	struct json_object *value;
	int ret = confGetJson(store, key, &value);

	if (ret == 0)
		strlcpy(buf, json_object_get_string(value), size);
	json_object_put(value);
	return ret;
}

int
confSetf(enum conf_store store, const char *key, const char *format, ...)
{
	va_list args;
	char *text;
	int ret;

	va_start(args, format);
	ret = vasprintf(&text, format, args);
	va_end(args);
	if (ret < 0)
		return -1;
	ret = confSetText(confStorePath(store), key, text);
	free(text);
	return ret;
}
