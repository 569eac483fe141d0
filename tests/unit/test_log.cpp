/* Unit tests of Part 1.3: the gw_* logging family (core/log.c). */
#include <errno.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wchar.h>

extern "C" {
#include <cmocka.h>
}

#include "core/log.h"
#include "core/util.h"
#include "tests/unit/testutil.h"

#define CAPTURE_MAX 4096

/* ---- stderr capture (testutil) ---- */

/* Ends the capture; what was written to stderr goes to out. */
static void
capture_end(struct tu_capture *cap, char *out, size_t size)
{
	char *text = tu_capture_end(cap);

	strlcpy(out, text, size);
	free(text);
}

/* ---- callback recording ---- */

static int cb_calls;
static int cb_level;
static char cb_message[CAPTURE_MAX];

static void
record(int level, const char *message)
{
	cb_calls++;
	cb_level = level;
	strlcpy(cb_message, message, sizeof(cb_message));
}

static int
reset_callback(void **state)
{
	(void)state;
	gw_set_log_callback(NULL);
	cb_calls = 0;
	cb_level = -1;
	cb_message[0] = '\0';
	return 0;
}

/* ---- default output to stderr ---- */

static void
test_default_output_format(void **state)
{
	struct tu_capture cap;
	char out[CAPTURE_MAX];

	(void)state;
	tu_capture_begin(&cap, stderr);
	errno = ENOENT;
	gw_warn("open %s", "/x");
	errno = ENOENT;
	gw_warnx("plain %d", 2);
	gw_msgx("hello %d", 7);
	_gw_debugx("dbg");
	capture_end(&cap, out, sizeof(out));
	assert_string_equal(out,
	    "[warn] open /x: No such file or directory\n"
	    "[warn] plain 2\n"
	    "[msg] hello 7\n"
	    "[debug] dbg\n");
}

static void
test_message_keeps_own_newline(void **state)
{
	struct tu_capture cap;
	char out[CAPTURE_MAX];

	(void)state;
	tu_capture_begin(&cap, stderr);
	gw_msgx("line\n");
	capture_end(&cap, out, sizeof(out));
	assert_string_equal(out, "[msg] line\n\n");
}

/* ---- callback ---- */

static void
test_callback_gets_level_and_message_only(void **state)
{
	struct tu_capture cap;
	char out[CAPTURE_MAX];

	(void)state;
	gw_set_log_callback(record);
	tu_capture_begin(&cap, stderr);
	errno = EACCES;
	gw_warn("w%d", 1);
	capture_end(&cap, out, sizeof(out));
	assert_string_equal(out, "");
	assert_int_equal(cb_calls, 1);
	assert_int_equal(cb_level, GW_LOG_WARN);
	assert_string_equal(cb_message, "w1: Permission denied");

	gw_msgx("m");
	assert_int_equal(cb_level, GW_LOG_MSG);
	assert_string_equal(cb_message, "m");
	_gw_debugx("d");
	assert_int_equal(cb_level, GW_LOG_DEBUG);
	assert_string_equal(cb_message, "d");
	gw_warnx("x");
	assert_int_equal(cb_level, GW_LOG_WARN);
	assert_string_equal(cb_message, "x");
	assert_int_equal(cb_calls, 4);
}

static void
test_null_callback_restores_stderr(void **state)
{
	struct tu_capture cap;
	char out[CAPTURE_MAX];

	(void)state;
	gw_set_log_callback(record);
	gw_set_log_callback(NULL);
	tu_capture_begin(&cap, stderr);
	gw_msgx("back");
	capture_end(&cap, out, sizeof(out));
	assert_string_equal(out, "[msg] back\n");
	assert_int_equal(cb_calls, 0);
}

/* ---- the errno text and the 1024-byte buffer ---- */

static void
warn_with_length(size_t len)
{
	char message[1100];

	memset(message, 'a', len);
	message[len] = '\0';
	errno = ENOENT;
	gw_warn("%s", message);
}

static void
test_warn_errno_text_1020_but_not_1021(void **state)
{
	char expect[1100];

	(void)state;
	gw_set_log_callback(record);
	warn_with_length(1020);
	memset(expect, 'a', 1020);
	strlcpy(expect + 1020, ": N", sizeof(expect) - 1020);
	assert_string_equal(cb_message, expect);
	assert_int_equal(strlen(cb_message), 1023);

	warn_with_length(1021);
	expect[1021] = '\0';
	expect[1020] = 'a';
	assert_string_equal(cb_message, expect);
}

static void
test_message_truncated_to_1023(void **state)
{
	char expect[1100];

	(void)state;
	gw_set_log_callback(record);
	warn_with_length(1050);
	memset(expect, 'a', 1023);
	expect[1023] = '\0';
	assert_string_equal(cb_message, expect);
}

static void
test_errno_taken_on_entry(void **state)
{
	(void)state;
	gw_set_log_callback(record);
	/* In the C locale this conversion fails and sets errno to EILSEQ. */
	errno = ENOENT;
	gw_warn("x%ls", L"\u00e9");
	assert_true(strlen(cb_message) >= strlen(": No such file or directory"));
	assert_string_equal(cb_message + strlen(cb_message) - strlen(": No such file or directory"),
	    ": No such file or directory");
}

static void
test_errno_preserved(void **state)
{
	(void)state;
	gw_set_log_callback(record);
	errno = ENOENT;
	gw_warn("a");
	assert_int_equal(errno, ENOENT);
	errno = EACCES;
	gw_msgx("b");
	assert_int_equal(errno, EACCES);
}

static void
test_null_format_is_empty_message(void **state)
{
	/* Through pointers without the format attribute, to pass NULL. */
	void (*warn)(const char *, ...) = gw_warn;
	void (*warnx)(const char *, ...) = gw_warnx;
	struct tu_capture cap;
	char out[CAPTURE_MAX];

	(void)state;
	gw_set_log_callback(record);
	warnx(NULL);
	assert_int_equal(cb_calls, 1);
	assert_string_equal(cb_message, "");
	errno = EACCES;
	warn(NULL);
	assert_string_equal(cb_message, ": Permission denied");

	gw_set_log_callback(NULL);
	tu_capture_begin(&cap, stderr);
	warnx(NULL);
	capture_end(&cap, out, sizeof(out));
	assert_string_equal(out, "[warn] \n");
}

/* ---- gw_err / gw_errx end the process ---- */

struct exit_result {
	int status;
	char out[CAPTURE_MAX];
};

/* Runs fn in a child whose stderr is captured; the child exits with 100
 * when fn returns.  The checks follow the capture, so that a failure is
 * reported on the real stderr. */
static void
run_in_child(void (*fn)(void), struct exit_result *res)
{
	struct tu_capture cap;
	pid_t pid, waited = -1;

	tu_capture_begin(&cap, stderr);
	pid = tu_fork();
	if (pid == 0) {
		fn();
		_exit(100);
	}
	if (pid >= 0)
		waited = waitpid(pid, &res->status, 0);
	capture_end(&cap, res->out, sizeof(res->out));
	assert_true(pid >= 0);
	assert_int_equal(waited, pid);
}

static void
call_gw_errx(void)
{
	gw_errx(7, "bye %d", 1);
}

static void
call_gw_err(void)
{
	errno = EACCES;
	gw_err(5, "fatal %s", "now");
}

static void
write_to_stderr(int level, const char *message)
{
	dprintf(STDERR_FILENO, "cb %d <%s>", level, message);
}

static void
call_gw_err_with_callback(void)
{
	gw_set_log_callback(write_to_stderr);
	errno = ENOENT;
	gw_err(0, "quit");
}

static void
test_gw_errx_exits_with_status(void **state)
{
	struct exit_result res;

	(void)state;
	run_in_child(call_gw_errx, &res);
	assert_true(WIFEXITED(res.status));
	assert_int_equal(WEXITSTATUS(res.status), 7);
	assert_string_equal(res.out, "[err] bye 1\n");
}

static void
test_gw_err_exits_with_status_and_errno_text(void **state)
{
	struct exit_result res;

	(void)state;
	run_in_child(call_gw_err, &res);
	assert_true(WIFEXITED(res.status));
	assert_int_equal(WEXITSTATUS(res.status), 5);
	assert_string_equal(res.out, "[err] fatal now: Permission denied\n");
}

static void
test_gw_err_through_callback(void **state)
{
	struct exit_result res;

	(void)state;
	run_in_child(call_gw_err_with_callback, &res);
	assert_true(WIFEXITED(res.status));
	assert_int_equal(WEXITSTATUS(res.status), 0);
	assert_string_equal(res.out, "cb 3 <quit: No such file or directory>");
}

#define LOG_TEST(fn) cmocka_unit_test_setup_teardown(fn, reset_callback, reset_callback)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		LOG_TEST(test_default_output_format),
		LOG_TEST(test_message_keeps_own_newline),
		LOG_TEST(test_callback_gets_level_and_message_only),
		LOG_TEST(test_null_callback_restores_stderr),
		LOG_TEST(test_warn_errno_text_1020_but_not_1021),
		LOG_TEST(test_message_truncated_to_1023),
		LOG_TEST(test_errno_taken_on_entry),
		LOG_TEST(test_errno_preserved),
		LOG_TEST(test_null_format_is_empty_message),
		LOG_TEST(test_gw_errx_exits_with_status),
		LOG_TEST(test_gw_err_exits_with_status_and_errno_text),
		LOG_TEST(test_gw_err_through_callback),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
