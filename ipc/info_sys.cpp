/* Part 2.5: status items of the product, the system clock and load, the
 * versions and the published run-time states; the helpers every item
 * shares (ipc/info_parse.h). */
#include <stdio.h>
#include <string.h>
#include <sys/sysinfo.h>

#include <event.h>
#include <json-c/json.h>

#include "conf/confdb.h"
#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/handlers.h"
#include "ipc/info_parse.h"

#define INVALID "Invalid arguments."

int
info_args_missing(struct json_object *name, struct json_object *infos)
{
	if (name != NULL && infos != NULL)
		return 0;
	puts("Input parameters are NULL.");
	return 1;
}

void
info_add_string(struct json_object *infos, struct json_object *name, const char *text)
{
	json_object_object_add(infos, json_object_get_string(name),
			       json_object_new_string(text));
}

void
info_set_string(struct json_object *object, const char *key, const char *text)
{
	json_object_object_add(object, key, json_object_new_string(text));
}

struct json_object *
info_add_object(struct json_object *infos, struct json_object *name)
{
	struct json_object *object = json_object_new_object();

	if (object == NULL) {
		puts("json_object_new_object failed.");
		return NULL;
	}
	json_object_object_add(infos, json_object_get_string(name), object);
	return object;
}

struct json_object *
info_add_array(struct json_object *infos, struct json_object *name)
{
	struct json_object *array = json_object_new_array();

	if (array == NULL) {
		puts("json_object_new_array failed.");
		return NULL;
	}
	json_object_object_add(infos, json_object_get_string(name), array);
	return array;
}

void
info_format_loads(char *buf, size_t size, const unsigned long loads[3])
{
	unsigned long whole[3], hundredths[3];
	int i;

	for (i = 0; i < 3; i++) {
		whole[i] = loads[i] >> 16;
		hundredths[i] = (100 * (loads[i] & 0xFFFF)) >> 16;
	}
	gwutil_snprintf(buf, size, "%lu.%02lu, %lu.%02lu, %lu.%02lu", whole[0],
			hundredths[0], whole[1], hundredths[1], whole[2], hundredths[2]);
}

void
info_first_line(char *field, size_t size, const char *text)
{
	size_t n = strcspn(text, "\n");

	if (size == 0)
		return;
	if (n >= size)
		n = size - 1;
	memset(field, 0, size);
	memcpy(field, text, n);
}

void
info_format_mac(char buf[18], const unsigned char mac[6])
{
	gwutil_snprintf(buf, 18, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2],
			mac[3], mac[4], mac[5]);
}

/* The stored value of key, parsed, under the item's name.  A missing key
 * adds the empty string when missing_empty is set, else it is "ERROR"
 * like an unparsable one. */
static const char *
info_stored_json(enum conf_store store, const char *key, int missing_empty,
		 struct json_object *name, struct json_object *infos)
{
	struct json_object *value;
	int ret;

	if (info_args_missing(name, infos))
		return INVALID;
	ret = confGetJson(store, key, &value);
	if (ret == CONF_MISSING && missing_empty)
		value = json_object_new_string("");
	else if (ret != 0)
		return "ERROR";
	json_object_object_add(infos, json_object_get_string(name), value);
	return NULL;
}

const char *
info_p_model(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_json(CONF_SYSINFO, "product_model", 0, name, infos);
}

const char *
info_p_description(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_json(CONF_SYSINFO, "product_description", 0, name, infos);
}

const char *
info_wl_radio(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_json(CONF_RTCONF, "wl_radio", 1, name, infos);
}

const char *
info_ws_state(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_json(CONF_RTCONF, "ws_state", 1, name, infos);
}

const char *
info_fwup_status(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_json(CONF_RTCONF, "fwup_status", 1, name, infos);
}

const char *
info_s_time(struct json_object *name, struct json_object *infos, void *context)
{
	char text[24];

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	gwutil_snprintf(text, sizeof(text), "%ld", time_get());
	info_add_string(infos, name, text);
	return NULL;
}

/* The memory counts are the kernel's unsigned longs, printed unsigned. */
const char *
info_s_sysinfo(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *object;
	struct sysinfo si;
	char text[64];

	(void)context;
	if (info_args_missing(name, infos))
		return INVALID;
	memset(&si, 0, sizeof(si));
	sysinfo(&si);
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	gwutil_snprintf(text, sizeof(text), "%ld", (long)si.uptime);
	info_set_string(object, "uptime", text);
	info_format_loads(text, sizeof(text), si.loads);
	info_set_string(object, "loads", text);
	gwutil_snprintf(text, sizeof(text), "%lu", (unsigned long)si.totalram);
	info_set_string(object, "totalram", text);
	gwutil_snprintf(text, sizeof(text), "%lu", (unsigned long)si.freeram);
	info_set_string(object, "freeram", text);
	return NULL;
}

/* The run-time value of key as a string (first line only when first_line
 * is set); nothing is added when the key is missing. */
static const char *
info_stored_text(const char *key, int first_line, struct json_object *name,
		 struct json_object *infos)
{
	struct evbuffer *buf;
	char field[64];

	if (info_args_missing(name, infos))
		return INVALID;
	buf = evbuffer_new();
	if (buf == NULL)
		return "ERROR";
	if (rtConfGet(key, buf) == 0) {
		const char *text = (const char *)EVBUFFER_DATA(buf);

		if (first_line) {
			info_first_line(field, sizeof(field), text);
			text = field;
		}
		info_add_string(infos, name, text);
	}
	evbuffer_free(buf);
	return NULL;
}

const char *
info_s_osinfo(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_text("uname", 0, name, infos);
}

const char *
info_s_boardinfo(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_text("boardinfo", 0, name, infos);
}

/* "s_rootfsver" and "fw_version" */
const char *
info_s_rootfsver(struct json_object *name, struct json_object *infos, void *context)
{
	(void)context;
	return info_stored_text("rootfs.ver", 1, name, infos);
}
