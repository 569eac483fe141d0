/* Part 9.1: web server configuration (mini_httpd). */
#include <crypt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <json-c/json.h>

#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/registry.h"
#include "system/system.h"

#define HTTPD_CONF  "/etc/mini_httpd.conf"
#define HTTPD_START "mini_httpd -C " HTTPD_CONF " >/dev/null 2>&1"
#define HTTPD_SALT  "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
#define HTTPD_HASH  64

static const char httpd_fixed[] =
	"dir=/opt/web\n"
	"nochroot\n"
	"port=80\n"
	"charset=utf-8\n"
	"logfile=/dev/null\n"
	"user=root\n"
	"cgipat=**.cgi\n";

/* The login of steps 1 and 2: name and password are the string forms of
 * the stored JSON values (a non-string value counts as its JSON text);
 * name NULL means no login. */
struct httpd_login {
	struct json_object *name_value;
	struct json_object *passwd_value;
	const char *name;
	const char *passwd;
	char hash[HTTPD_HASH];
};

static const char *
httpd_text(struct json_object *value)
{
	const char *text = json_object_get_string(value);

	return text != NULL ? text : "";
}

/* Steps 1 and 2: 1 with a login, 0 without, -1 when a stored text does not
 * parse as JSON. */
static int
httpd_login_read(struct httpd_login *login)
{
	int ret = confGetJson(CONF_SYSCONF, "httpd_auth_name", &login->name_value);

	if (ret == CONF_BAD_JSON)
		return -1;
	if (ret != 0 || httpd_text(login->name_value)[0] == '\0')
		return 0;
	ret = confGetJson(CONF_SYSCONF, "httpd_auth_passwd", &login->passwd_value);
	if (ret == CONF_BAD_JSON)
		return -1;
	if (ret != 0)
		return 0;
	login->name = httpd_text(login->name_value);
	login->passwd = httpd_text(login->passwd_value);
	return 1;
}

/* Safety (DESIGN.md section 8): a newline in the name would add a line to
 * the file and a ':' would split the passport entry.  The password is only
 * written hashed, so any text is safe there. */
static int
httpd_name_safe(const char *name)
{
	return strpbrk(name, "\n:") == NULL;
}

/* Step 4: the salt from one random() value seeded with the time in seconds,
 * then the DES-based hash: 0, or -1 when crypt fails. */
static int
httpd_hash(const char *passwd, char *hash, size_t size)
{
	char salt[3];
	const char *result;
	long v;
	int i;

	srandom((unsigned int)time(NULL));
	v = random();
	for (i = 0; i < 2; i++) {
		salt[i] = HTTPD_SALT[v & 63];
		v >>= 6;
	}
	salt[2] = '\0';
	result = crypt(passwd, salt);
	if (result == NULL || result[0] == '*' || strlcpy(hash, result, size) >= size)
		return -1;
	return 0;
}

/* Step 3 and the passport line of step 4 (name NULL: no login): 0 or -1. */
static int
httpd_write(const char *name, const char *hash)
{
	FILE *f = fopen(HTTPD_CONF, "w");
	int ok;

	if (f == NULL)
		return -1;
	flockfile(f);
	ok = fputs(httpd_fixed, f) >= 0 &&
	     (name == NULL || fprintf(f, "passport=%s:%s\n", name, hash) >= 0);
	funlockfile(f);
	if (fclose(f) != 0)
		ok = 0;
	return ok ? 0 : -1;
}

/* Steps 1, 2 and the hash of step 4: 0, or -1 when nothing may be written
 * or started.  The hash is made before the file is opened so that a
 * failing crypt leaves the old file and server alone rather than starting
 * the server without its login. */
static int
httpd_prepare(struct httpd_login *login)
{
	int ret = httpd_login_read(login);

	if (ret <= 0)
		return ret;
	if (!httpd_name_safe(login->name)) {
		puts("httpd: login name holds a newline or ':', configuration unchanged");
		return -1;
	}
	if (httpd_hash(login->passwd, login->hash, sizeof(login->hash)) != 0) {
		puts("httpd: crypt failed, configuration unchanged");
		return -1;
	}
	return 0;
}

/* Steps 3 to 5: the shell status of the start, or -1 when the file could
 * not be written. */
static int
httpd_run(const struct httpd_login *login)
{
	if (httpd_write(login->name, login->hash) != 0)
		return -1;
	return do_system(HTTPD_START);
}

static void
httpd_release(struct httpd_login *login)
{
	json_object_put(login->name_value);
	json_object_put(login->passwd_value);
}

int
httpd_start(void)
{
	struct httpd_login login = {};
	int ret = httpd_prepare(&login);

	if (ret == 0)
		ret = httpd_run(&login);
	httpd_release(&login);
	return ret;
}

int
httpd_stop(void)
{
	return do_system("killall mini_httpd");
}

/* The login is checked before the stop: a stored text that is refused
 * leaves the running server untouched (Part 9.1, Failure handling). */
int
httpd_restart(void)
{
	struct httpd_login login = {};
	int ret = httpd_prepare(&login);

	if (ret == 0) {
		httpd_stop();
		ret = httpd_run(&login);
	}
	httpd_release(&login);
	return ret;
}

const char *
_revalidate_httpd(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	const char *action, *error;

	(void)reply_arguments;
	(void)deferred;
	error = ipc_target_check(value, "invalid arguments");
	if (error != NULL)
		return error;
	action = ipc_target_action(value);
	if (action == NULL)
		return NULL;
	if (strcmp(action, "start") == 0 || strcmp(action, "restart") == 0)
		httpd_restart();
	else if (strcmp(action, "stop") == 0)
		httpd_stop();
	return NULL;
}
