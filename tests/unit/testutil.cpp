/* Shared helpers of the unit tests (see testutil.h). */
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gdbm.h>
#include <json-c/json.h>

#include "tests/unit/console_capture.h"
#include "tests/unit/testutil.h"

/* The standard error of the process before any capture, for diagnostics. */
static int diag_fd = -1;

static void __attribute__((format(printf, 1, 2)))
diag(const char *format, ...)
{
	char text[8192];
	va_list args;
	ssize_t written;

	va_start(args, format);
	vsnprintf(text, sizeof(text), format, args);
	va_end(args);
	written = write(diag_fd >= 0 ? diag_fd : STDERR_FILENO, text, strlen(text));
	(void)written;
}

static void __attribute__((noreturn))
die(const char *what)
{
	diag("testutil: %s: %s\n", what, strerror(errno));
	abort();
}

/* Appends text to out with C escapes, so that NULs and newlines show. */
static void
escape(char *out, size_t size, const char *bytes, size_t n)
{
	size_t used = 0, i;

	out[0] = '\0';
	for (i = 0; i < n && used + 8 < size; i++) {
		unsigned char c = (unsigned char)bytes[i];

		if (c == '\n')
			used += (size_t)snprintf(out + used, size - used, "\\n");
		else if (c == '"' || c == '\\')
			used += (size_t)snprintf(out + used, size - used, "\\%c", c);
		else if (c < 0x20 || c >= 0x7f)
			used += (size_t)snprintf(out + used, size - used, "\\x%02x", c);
		else
			out[used++] = (char)c;
		out[used] = '\0';
	}
}

/* ---- temporary directories ---- */

/* $TMPDIR, or /tmp when it is unset or empty. */
static const char *
tmp_base(void)
{
	const char *base = getenv("TMPDIR");

	return base == NULL || base[0] == '\0' ? "/tmp" : base;
}

char *
tu_tempdir(void)
{
	char path[PATH_MAX];
	char *dir;

	snprintf(path, sizeof(path), "%s/hxunitXXXXXX", tmp_base());
	if (mkdtemp(path) == NULL)
		die("mkdtemp");
	dir = strdup(path);
	if (dir == NULL)
		die("strdup");
	return dir;
}

char *
tu_path(const char *dir, const char *name)
{
	char *path;

	if (asprintf(&path, "%s/%s", dir, name) < 0)
		die("asprintf");
	return path;
}

void
tu_rmtree(const char *dir)
{
	DIR *d = opendir(dir);
	struct dirent *e;

	if (d == NULL)
		return;
	while ((e = readdir(d)) != NULL) {
		char *path;

		if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
			continue;
		path = tu_path(dir, e->d_name);
		unlink(path);
		free(path);
	}
	closedir(d);
	rmdir(dir);
}

/* ---- stores ---- */

void
tu_stores_env(const char *dir)
{
	char *path;

	path = tu_path(dir, "sysconf.gdbm");
	setenv("DB_FILE", path, 1);
	free(path);
	path = tu_path(dir, "rtconf.gdbm");
	setenv("RT_DB_FILE", path, 1);
	free(path);
	path = tu_path(dir, "sysinfo.gdbm");
	setenv("INFO_DB_FILE", path, 1);
	free(path);
}

struct tu_stores tu_stores;

int
tu_stores_setup(void **state)
{
	(void)state;
	tu_stores.dir = tu_tempdir();
	tu_stores_env(tu_stores.dir);
	tu_stores.sysconf = tu_path(tu_stores.dir, "sysconf.gdbm");
	tu_stores.rtconf = tu_path(tu_stores.dir, "rtconf.gdbm");
	tu_stores.sysinfo = tu_path(tu_stores.dir, "sysinfo.gdbm");
	console_reset();
	return 0;
}

int
tu_stores_teardown(void **state)
{
	(void)state;
	tu_rmtree(tu_stores.dir);
	free(tu_stores.dir);
	free(tu_stores.sysconf);
	free(tu_stores.rtconf);
	free(tu_stores.sysinfo);
	tu_stores.dir = tu_stores.sysconf = tu_stores.rtconf = tu_stores.sysinfo = NULL;
	return 0;
}

void
tu_store_raw(const char *path, const void *key, size_t key_size, const void *value,
	     size_t value_size)
{
	GDBM_FILE db = gdbm_open(path, 0, GDBM_WRCREAT, 0664, NULL);
	datum k, v;

	if (db == NULL)
		die("gdbm_open");
	k.dptr = (char *)key;
	k.dsize = (int)key_size;
	v.dptr = (char *)value;
	v.dsize = (int)value_size;
	if (gdbm_store(db, k, v, GDBM_REPLACE) != 0)
		die("gdbm_store");
	gdbm_close(db);
}

void
tu_store_put(const char *path, const char *key, const char *value)
{
	tu_store_raw(path, key, strlen(key) + 1, value, strlen(value) + 1);
}

char *
tu_store_fetch(const char *path, const char *key, size_t *size)
{
	GDBM_FILE db = gdbm_open(path, 0, GDBM_READER, 0, NULL);
	datum k, v;

	*size = 0;
	if (db == NULL)
		return NULL;
	k.dptr = (char *)key;
	k.dsize = (int)strlen(key) + 1;
	v = gdbm_fetch(db, k);
	gdbm_close(db);
	if (v.dptr != NULL)
		*size = (size_t)v.dsize;
	return v.dptr;
}

/* ---- output capture ---- */

void
tu_capture_begin(struct tu_capture *capture, FILE *stream)
{
	char path[PATH_MAX];

	if (diag_fd < 0) {
		diag_fd = dup(STDERR_FILENO);
		if (diag_fd < 0)
			die("dup");
	}
	snprintf(path, sizeof(path), "%s/hxcaptureXXXXXX", tmp_base());
	capture->tmp = mkstemp(path);
	if (capture->tmp < 0)
		die("mkstemp");
	unlink(path);
	fflush(stream);
	capture->stream = stream;
	capture->saved = dup(fileno(stream));
	if (capture->saved < 0 || dup2(capture->tmp, fileno(stream)) < 0)
		die("dup2");
}

char *
tu_capture_end(struct tu_capture *capture)
{
	size_t used = 0, size = 4096;
	char *text = (char *)malloc(size);
	ssize_t n;

	if (text == NULL)
		die("malloc");
	fflush(capture->stream);
	if (dup2(capture->saved, fileno(capture->stream)) < 0)
		die("dup2");
	close(capture->saved);
	if (lseek(capture->tmp, 0, SEEK_SET) != 0)
		die("lseek");
	while ((n = read(capture->tmp, text + used, size - used - 1)) > 0) {
		used += (size_t)n;
		if (used + 1 == size) {
			size *= 2;
			text = (char *)realloc(text, size);
			if (text == NULL)
				die("realloc");
		}
	}
	text[used] = '\0';
	close(capture->tmp);
	return text;
}

/* ---- reply capture ---- */

void
tu_reply_capture(struct json_object *reply, void *client)
{
	struct tu_replies *replies = (struct tu_replies *)client;

	if (replies->count < TU_REPLIES_MAX)
		snprintf(replies->text[replies->count], TU_REPLY_SIZE, "%s",
			 json_object_to_json_string(reply));
	replies->count++;
}

/* ---- forked scenarios ---- */

pid_t
tu_fork(void)
{
	fflush(stdout);
	fflush(stderr);
	return fork();
}

int
tu_run_child(void (*fn)(void *), void *arg)
{
	int status;
	pid_t pid;

	pid = tu_fork();
	if (pid < 0)
		die("fork");
	if (pid == 0) {
		fn(arg);
		fflush(stdout);
		fflush(stderr);
		_exit(0);
	}
	if (waitpid(pid, &status, 0) != pid)
		die("waitpid");
	return status;
}

int
tu_child_ok(int status)
{
	if (status == 0)
		return 1;
	if (WIFEXITED(status))
		diag("child exited with status %d\n", WEXITSTATUS(status));
	else if (WIFSIGNALED(status))
		diag("child killed by signal %d\n", WTERMSIG(status));
	else
		diag("child wait status 0x%x\n", (unsigned)status);
	return 0;
}

int
tu_run_child_stderr(void (*fn)(void *), void *arg, char **err_text)
{
	struct tu_capture capture;
	int status;

	tu_capture_begin(&capture, stderr);
	status = tu_run_child(fn, arg);
	*err_text = tu_capture_end(&capture);
	return status;
}

/* The function field of an assertion message: the name (gcc) or the
 * signature (clang's __PRETTY_FUNCTION__, "const char *f(void *)"). */
static int
function_field_is(const char *field, size_t len, const char *function)
{
	size_t n = strlen(function);
	size_t i;

	if (len == n && memcmp(field, function, n) == 0)
		return 1;
	for (i = 1; i + n < len; i++)
		if ((field[i - 1] == ' ' || field[i - 1] == '*') &&
		    memcmp(field + i, function, n) == 0 && field[i + n] == '(')
			return 1;
	return 0;
}

int
tu_assertion_is(const char *text, const char *module, const char *function,
		const char *expr)
{
	const char *tail_at, *p, *field;
	char *tail;

	/* "prog: <path>/<module>:<line>: <function>: Assertion `expr' failed.\n" */
	if (asprintf(&tail, ": Assertion `%s' failed.\n", expr) < 0)
		die("asprintf");
	tail_at = strstr(text, tail);
	free(tail);
	if (tail_at == NULL)
		return 0;
	/* The function field starts after the last ":<line>: " before the tail. */
	for (field = NULL, p = text; p < tail_at; p++) {
		const char *q = p + 1;

		if (*p != ':' || *q < '0' || *q > '9')
			continue;
		while (*q >= '0' && *q <= '9')
			q++;
		if (q[0] == ':' && q[1] == ' ' && q + 2 <= tail_at) {
			field = q + 2;
			break;	/* the first one: a signature holds no ":<digits>: " */
		}
	}
	if (field == NULL || !function_field_is(field, (size_t)(tail_at - field), function))
		return 0;
	if (module == NULL)
		return 1;
	{
		size_t module_len = strlen(module);

		if ((size_t)(p - text) < module_len ||
		    memcmp(p - module_len, module, module_len) != 0)
			return 0;
		p -= module_len;
		return p == text || p[-1] == '/' || p[-1] == ' ';
	}
}

void
tu_child_fail(const char *file, int line, const char *what)
{
	diag("%s:%d: check failed: %s\n", file, line, what);
	_exit(1);
}

void
tu_child_int(const char *file, int line, const char *what, long actual, long expected)
{
	if (actual == expected)
		return;
	diag("%s:%d: %s is %ld, expected %ld\n", file, line, what, actual, expected);
	_exit(1);
}

void
tu_child_str(const char *file, int line, const char *what, const char *actual,
	     const char *expected)
{
	char a[4096], e[4096];

	if (actual != NULL && strcmp(actual, expected) == 0)
		return;
	escape(e, sizeof(e), expected, strlen(expected));
	if (actual == NULL) {
		diag("%s:%d: %s is NULL, expected \"%s\"\n", file, line, what, e);
	} else {
		escape(a, sizeof(a), actual, strlen(actual));
		diag("%s:%d: %s is \"%s\", expected \"%s\"\n", file, line, what, a, e);
	}
	_exit(1);
}

static int
record_check(const char *file, int line, const char *path, const char *key,
	     const char *bytes, size_t size)
{
	char a[4096], e[4096];
	size_t got_size;
	char *got = tu_store_fetch(path, key, &got_size);
	int ok;

	if (bytes == NULL)
		ok = got == NULL;
	else
		ok = got != NULL && got_size == size && memcmp(got, bytes, size) == 0;
	if (!ok) {
		if (got != NULL)
			escape(a, sizeof(a), got, got_size);
		if (bytes != NULL)
			escape(e, sizeof(e), bytes, size);
		diag("%s:%d: record '%s' of %s is %s%s%s (%zu bytes), expected %s%s%s\n",
		     file, line, key, path,
		     got != NULL ? "\"" : "", got != NULL ? a : "absent",
		     got != NULL ? "\"" : "", got_size,
		     bytes != NULL ? "\"" : "", bytes != NULL ? e : "absent",
		     bytes != NULL ? "\"" : "");
	}
	free(got);
	return ok;
}

void
tu_child_record(const char *file, int line, const char *path, const char *key,
		const char *bytes, size_t size)
{
	if (!record_check(file, line, path, key, bytes, size))
		_exit(1);
}

int
tu_record_is(const char *path, const char *key, const char *bytes, size_t size)
{
	return record_check("record", 0, path, key, bytes, size);
}
