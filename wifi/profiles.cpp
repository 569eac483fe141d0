/* Part 5.4: saved network profiles. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <event.h>
#include <json-c/json.h>

#include "conf/confdb.h"
#include "conf/confjson.h"
#include "core/log.h"
#include "ipc/registry.h"
#include "net/net.h"
#include "wifi/wifi.h"

#define PROFILES_MAX 2
#define PROFILE_FIELDS 5

/* Each field is JSON text as stored (a string keeps its quotes); NULL when
 * the key it comes from is missing. */
struct profile {
	char *field[PROFILE_FIELDS];	/* id, essid, encrypt, pass, workmode */
};
enum { P_ID, P_ESSID, P_ENCRYPT, P_PASS, P_WORKMODE };

struct approfiles {
	int count;
	struct profile *slot[PROFILES_MAX];
};

static const char *const member[PROFILE_FIELDS] = {
	"id", "essid", "encrypt", "pass", "workmode"
};

static const char *const slot_key[PROFILES_MAX * 4] = {
	"wan_sta_ssid1", "wan_sta_sec1", "wan_sta_pass1", "wan_sta_trustmode1",
	"wan_sta_ssid2", "wan_sta_sec2", "wan_sta_pass2", "wan_sta_trustmode2"
};

static void
profile_free(struct profile *p)
{
	int i;

	if (p == NULL)
		return;
	for (i = 0; i < PROFILE_FIELDS; i++)
		free(p->field[i]);
	free(p);
}

static void
approfiles_free(struct approfiles *list)
{
	int i;

	if (list == NULL)
		return;
	for (i = 0; i < list->count && i < PROFILES_MAX; i++)
		profile_free(list->slot[i]);
	free(list);
}

static int
approfiles_count_valid(const struct approfiles *list, const char *func)
{
	if (list->count < 0 || list->count > PROFILES_MAX) {
		gw_warnx("%s: Invalid length of approfiles.\n", func);
		return -1;
	}
	return 0;
}

/* The stored text of a key (without its NUL), or NULL. */
static char *
conf_text(int (*get)(const char *, struct evbuffer *), const char *key)
{
	struct evbuffer *buf = evbuffer_new();
	char *text = NULL;

	if (buf == NULL)
		return NULL;
	if (get(key, buf) == 0)
		text = strdup((const char *)EVBUFFER_DATA(buf));
	evbuffer_free(buf);
	return text;
}

static char *
workmode_text(void)
{
	char *type = conf_text(sysConfGet, "wan_type");
	const char *mode = "\"\"";

	if (type != NULL && strcmp(type, "\"wireless_sta_trust\"") == 0)
		mode = "\"Station Mode\"";
	else if (type != NULL && strcmp(type, "\"wireless_sta\"") == 0)
		mode = "\"Public Bridge Mode\"";
	else if (type != NULL && strcmp(type, "\"wireless_sta_private\"") == 0)
		mode = "\"Private Bridge Mode\"";
	free(type);
	return strdup(mode);
}

static struct profile *
profile_json_new(void)
{
	struct profile *p = (struct profile *)calloc(1, sizeof(*p));
	char id[16];

	if (p == NULL)
		return NULL;
	snprintf(id, sizeof(id), "%d", rand());
	p->field[P_ID] = strdup(id);
	p->field[P_ESSID] = conf_text(sysConfGet, "wan_sta_ssid");
	p->field[P_ENCRYPT] = conf_text(sysConfGet, "wan_sta_sec");
	p->field[P_PASS] = conf_text(sysConfGet, "wan_sta_pass");
	p->field[P_WORKMODE] = workmode_text();
	return p;
}

static struct profile *
profile_from_json(struct json_object *obj)
{
	struct profile *p = (struct profile *)calloc(1, sizeof(*p));
	struct json_object *m;
	int i;

	if (p == NULL)
		return NULL;
	for (i = 0; i < PROFILE_FIELDS; i++) {
		if (!json_object_object_get_ex(obj, member[i], &m))
			m = NULL;
		p->field[i] = strdup(json_object_to_json_string(m));
		if (p->field[i] == NULL) {
			profile_free(p);
			return NULL;
		}
	}
	return p;
}

static void
approfiles_debug(const struct approfiles *list)
{
	int i;

	for (i = 0; i < list->count; i++)
		_gw_debugx("%s: profile %d: id %s, essid %s, encrypt %s, workmode %s.\n",
			   "approfiles_sysconf_get", i, list->slot[i]->field[P_ID],
			   list->slot[i]->field[P_ESSID], list->slot[i]->field[P_ENCRYPT],
			   list->slot[i]->field[P_WORKMODE]);
}

static struct approfiles *
approfiles_from_array(struct json_object *array)
{
	struct approfiles *list = (struct approfiles *)calloc(1, sizeof(*list));
	size_t i, n = json_object_array_length(array);

	if (list == NULL)
		return NULL;
	if (n > PROFILES_MAX) {
		gw_warnx("%s: Invalid length of approfiles.\n", "approfiles_sysconf_get");
		free(list);
		return NULL;
	}
	for (i = 0; i < n; i++) {
		struct json_object *obj = json_object_array_get_idx(array, i);

		if (!json_object_is_type(obj, json_type_object) ||
		    (list->slot[i] = profile_from_json(obj)) == NULL) {
			approfiles_free(list);
			return NULL;
		}
		list->count++;
	}
	return list;
}

static struct approfiles *
approfiles_sysconf_get(void)
{
	struct json_object *array;
	struct approfiles *list;
	int ret = confGetJson(CONF_SYSCONF, "ap_profile", &array);

	if (ret != 0) {
		gw_warnx("%s: failed to parse evbuf.\n", "approfiles_sysconf_get");
		return NULL;
	}
	if (!json_object_is_type(array, json_type_array)) {
		gw_warnx("%s: unexpected json type.\n", "approfiles_sysconf_get");
		json_object_put(array);
		return NULL;
	}
	list = approfiles_from_array(array);
	json_object_put(array);
	if (list != NULL)
		approfiles_debug(list);
	return list;
}

static int
approfiles_add(struct approfiles *list, struct profile *p)
{
	int i;

	if (approfiles_count_valid(list, "approfiles_add") != 0)
		return -1;
	for (i = 0; i < list->count; i++) {
		if (list->slot[i]->field[P_ESSID] != NULL && p->field[P_ESSID] != NULL &&
		    strcmp(list->slot[i]->field[P_ESSID], p->field[P_ESSID]) == 0) {
			profile_free(list->slot[i]);
			list->slot[i] = p;
			return 0;
		}
	}
	if (list->count == PROFILES_MAX) {
		profile_free(list->slot[0]);
		list->slot[0] = list->slot[1];
		list->slot[1] = p;
		return 0;
	}
	list->slot[list->count++] = p;
	return 0;
}

static int
approfiles_del_idx(struct approfiles *list, int idx)
{
	int i;

	if (idx < 0 || idx >= list->count)
		return -1;
	profile_free(list->slot[idx]);
	for (i = idx; i + 1 < list->count; i++)
		list->slot[i] = list->slot[i + 1];
	list->count--;
	return 0;
}

/* The field's JSON into *out (NULL for the text "null"): 0, or -1 when the
 * text is missing or does not parse. */
static int
field_parse(const char *text, struct json_object **out)
{
	enum json_tokener_error err;

	if (text == NULL)
		return -1;
	*out = json_tokener_parse_verbose(text, &err);
	return err == json_tokener_success ? 0 : -1;
}

static struct json_object *
profile_to_json(const struct profile *p)
{
	struct json_object *obj = json_object_new_object(), *m;
	int i;

	if (obj == NULL)
		return NULL;
	for (i = 0; i < PROFILE_FIELDS; i++) {
		if (field_parse(p->field[i], &m) != 0) {
			json_object_put(obj);
			return NULL;
		}
		json_object_object_add(obj, member[i], m);
	}
	return obj;
}

static int
approfiles_sysconf_set(const struct approfiles *list)
{
	struct json_object *array = json_object_new_array(), *obj;
	const char *text;
	int i, ret;

	if (array == NULL)
		return -1;
	for (i = 0; i < list->count; i++) {
		if ((obj = profile_to_json(list->slot[i])) == NULL) {
			json_object_put(array);
			return -1;
		}
		json_object_array_add(array, obj);
	}
	text = json_object_to_json_string(array);
	_gw_debugx("%s: profiles to be set is %s.\n", "approfiles_sysconf_set", text);
	ret = confSetf(CONF_SYSCONF, "ap_profile", "%s", text);
	json_object_put(array);
	return ret;
}

/* The original wrote each value with the value as the printf format and no
 * arguments.  This keeps what that defines ("%%" gives "%") and leaves any
 * other '%' sequence as it stands instead of reading a missing argument. */
static char *
approfiles_format_literal(const char *format)
{
	char *out = (char *)malloc(strlen(format) + 1), *o = out;

	if (out == NULL)
		return NULL;
	while (*format != '\0') {
		if (format[0] == '%' && format[1] == '%')
			format++;
		*o++ = *format++;
	}
	*o = '\0';
	return out;
}

static int
slot_key_set(const char *key, const char *text)
{
	char *value = approfiles_format_literal(text != NULL ? text : "");
	int ret;

	if (value == NULL)
		return -1;
	ret = confSetf(CONF_SYSCONF, key, "%s", value);
	free(value);
	return ret;
}

static int
approfiles_wan_sta_key_set(const struct approfiles *list)
{
	static const int fields[4] = { P_ESSID, P_ENCRYPT, P_PASS, P_WORKMODE };
	int i, k;

	if (approfiles_count_valid(list, "approfiles_wan_sta_key_set") != 0)
		return -1;
	for (i = 0; i < list->count; i++)
		for (k = 0; k < 4; k++)
			if (slot_key_set(slot_key[4 * i + k], list->slot[i]->field[fields[k]]) != 0)
				return -1;
	for (i = list->count; i < PROFILES_MAX; i++)
		for (k = 0; k < 4; k++)
			if (confSetf(CONF_SYSCONF, slot_key[4 * i + k], "\"\"") != 0)
				return -1;
	return 0;
}

static int
approfiles_store(const struct approfiles *list)
{
	if (approfiles_sysconf_set(list) != 0 || approfiles_wan_sta_key_set(list) != 0)
		return -1;
	return 0;
}

int
profile_set(void)
{
	struct profile *p = profile_json_new();
	struct approfiles *list;
	int ret;

	if (p == NULL)
		return -1;
	list = approfiles_sysconf_get();
	if (list == NULL) {
		profile_free(p);
		return -1;
	}
	if (approfiles_add(list, p) != 0) {
		profile_free(p);
		approfiles_free(list);
		return -1;
	}
	ret = approfiles_store(list);
	approfiles_free(list);
	return ret;
}

int
gw_profiles_set(void)
{
	return profile_set();
}

int
profile_forget(const char *essid_text)
{
	struct approfiles *list;
	int i, ret;

	if (essid_text == NULL || (list = approfiles_sysconf_get()) == NULL)
		return -1;
	for (i = 0; i < list->count; i++)
		if (list->slot[i]->field[P_ESSID] != NULL &&
		    strcmp(list->slot[i]->field[P_ESSID], essid_text) == 0)
			break;
	if (i == list->count) {
		gw_warnx("%s: Not found the forget ssid.\n", "profile_forget");
		approfiles_free(list);
		return -1;
	}
	approfiles_del_idx(list, i);
	ret = approfiles_store(list);
	approfiles_free(list);
	return ret;
}

int
profiles_forget_all(void)
{
	struct approfiles empty = { 0, { NULL, NULL } };

	if (approfiles_store(&empty) != 0)
		return -1;
	wan_stop();
	return 0;
}

int
gw_wan_status_check(const char *essid_text)
{
	char *status = conf_text(rtConfGet, "wan_status");
	char *ssid;

	if (status != NULL && strcmp(status, "\"WAN_UP\"") == 0) {
		ssid = conf_text(sysConfGet, "wan_sta_ssid");
		_gw_debugx("%s: wan_sta_ssid is %s, essid is %s.\n", "gw_wan_status_check",
			   ssid != NULL ? ssid : "(null)", essid_text);
		if (ssid != NULL && strcmp(ssid, essid_text) == 0)
			wan_stop();
		free(ssid);
	}
	free(status);
	return 0;
}

int
gw_profiles_forget(struct json_object *essids)
{
	size_t i, n;

	if (!json_object_is_type(essids, json_type_array)) {
		gw_warnx("%s: Invalid input parameters.\n", "gw_profiles_forget");
		return -1;
	}
	n = json_object_array_length(essids);
	if (n == 0) {
		_gw_debugx("%s: forget all ap profile list.\n", "gw_profiles_forget");
		return profiles_forget_all();
	}
	for (i = 0; i < n; i++) {
		const char *text = json_object_to_json_string(json_object_array_get_idx(essids, i));

		_gw_debugx("%s: forget essid is %s.\n", "gw_profiles_forget", text);
		if (profile_forget(text) != 0)
			return -1;
		gw_wan_status_check(text);
	}
	return 0;
}

const char *
_revalidate_apProfiles(struct json_object *value, struct json_object *reply_arguments,
		       void *deferred)
{
	struct json_object *action, *essids;

	(void)reply_arguments;
	(void)deferred;
	if (value == NULL)
		return "invalid arguments";
	if (!json_object_is_type(value, json_type_object)) {
		puts("Unexpected json type.");
		return "invalid arguments";
	}
	if (!json_object_object_get_ex(value, "action", &action))
		return "invalid arguments";
	if (!json_object_is_type(action, json_type_string) ||
	    strcmp(json_object_get_string(action), "forget") != 0)
		return NULL;
	if (!json_object_object_get_ex(value, "essid", &essids))
		essids = NULL;
	return gw_profiles_forget(essids) == 0 ? NULL : "internal error";
}
