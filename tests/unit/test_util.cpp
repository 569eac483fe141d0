/* Unit tests of Part 1.3: utility functions (core/util.c). */
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <setjmp.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}

#include "core/log.h"
#include "core/util.h"
#include "tests/unit/testutil.h"

/* The 69 characters that _q_urlencode keeps (spec Part 1.3 lists them). */
static const char url_safe_set[] =
	"-./0123456789:@ABCDEFGHIJKLMNOPQRSTUVWXYZ\\_abcdefghijklmnopqrstuvwxyz";

static char tmp_base[PATH_MAX];

/* Process names unique to this run, so that leftovers of another run
 * cannot match: "hxts<pid>" and a name longer than the kernel's 15. */
static char sleeper_name[16];
static char long_sleeper_name[32];

/* The child of the running test, reaped by its teardown. */
static pid_t test_child;

/* ---- helpers ---- */

static int
remove_entry(const char *path, const struct stat *st, int flag, struct FTW *ftw)
{
	(void)st;
	(void)flag;
	(void)ftw;
	return remove(path);
}

static int
setup_tmp(void **state)
{
	const char *tmpdir = getenv("TMPDIR");

	(void)state;
	if (tmpdir == NULL || tmpdir[0] == '\0')
		tmpdir = "/tmp";
	snprintf(tmp_base, sizeof(tmp_base), "%s/hxutilXXXXXX", tmpdir);
	snprintf(sleeper_name, sizeof(sleeper_name), "hxts%d", (int)getpid());
	snprintf(long_sleeper_name, sizeof(long_sleeper_name), "%s_long_name_x", sleeper_name);
	return mkdtemp(tmp_base) == NULL ? -1 : 0;
}

static int
teardown_tmp(void **state)
{
	(void)state;
	return nftw(tmp_base, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

static void
tmp_path(char *buf, size_t size, const char *name)
{
	int n = snprintf(buf, size, "%s/%s", tmp_base, name);

	assert_true(n > 0 && (size_t)n < size);
}

static int
is_dir(const char *path)
{
	struct stat st;

	return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

static void
write_file(const char *path, const char *text)
{
	FILE *fp = fopen(path, "w");

	assert_non_null(fp);
	fputs(text, fp);
	assert_int_equal(fclose(fp), 0);
}

/* A child that waits to be killed. */
static pid_t
spawn_pauser(void)
{
	pid_t pid;

	pid = tu_fork();
	assert_true(pid >= 0);
	if (pid == 0) {
		alarm(60);
		for (;;)
			pause();
	}
	test_child = pid;
	return pid;
}

static void
reap(pid_t pid)
{
	int status;

	kill(pid, SIGKILL);
	waitpid(pid, &status, 0);
	test_child = 0;
}

static int
reap_test_child(void **state)
{
	(void)state;
	if (test_child > 0)
		reap(test_child);
	return 0;
}

static void
assert_killed_by_sigterm(pid_t pid)
{
	int status;

	assert_int_equal(waitpid(pid, &status, 0), pid);
	test_child = 0;
	assert_true(WIFSIGNALED(status));
	assert_int_equal(WTERMSIG(status), SIGTERM);
}

/* ---- strlcpy, gwutil_snprintf ---- */

static void
test_strlcpy_size_zero_writes_nothing(void **state)
{
	char dst[4] = "XYZ";

	(void)state;
	assert_int_equal(strlcpy(dst, "hello", 0), 5);
	assert_memory_equal(dst, "XYZ", 4);
}

static void
test_strlcpy_truncates(void **state)
{
	char dst[8];

	(void)state;
	memset(dst, 'Q', sizeof(dst));
	assert_int_equal(strlcpy(dst, "hello", 4), 5);
	assert_memory_equal(dst, "hel\0QQQQ", 8);
	assert_int_equal(strlcpy(dst, "hello", 1), 5);
	assert_string_equal(dst, "");
}

static void
test_strlcpy_fits(void **state)
{
	char dst[6];

	(void)state;
	assert_int_equal(strlcpy(dst, "hello", sizeof(dst)), 5);
	assert_string_equal(dst, "hello");
	assert_int_equal(strlcpy(dst, "", sizeof(dst)), 0);
	assert_string_equal(dst, "");
}

static void
test_snprintf_truncates(void **state)
{
	char buf[8];

	(void)state;
	memset(buf, 'Q', sizeof(buf));
	assert_int_equal(gwutil_snprintf(buf, sizeof(buf), "%s-%d", "abcdef", 123), 10);
	assert_memory_equal(buf, "abcdef-\0", 8);
	assert_int_equal(gwutil_snprintf(buf, 1, "%d", 42), 2);
	assert_string_equal(buf, "");
	assert_int_equal(gwutil_snprintf(buf, sizeof(buf), "%d", 42), 2);
	assert_string_equal(buf, "42");
}

/* ---- setprogname / getprogname ---- */

static void
test_setprogname_full_path(void **state)
{
	(void)state;
	assert_string_equal(setprogname("/usr/sbin/hxsrvd"), "hxsrvd");
	assert_string_equal(getprogname(), "hxsrvd");
}

static void
test_setprogname_bare_name(void **state)
{
	(void)state;
	assert_string_equal(setprogname("hxsrvd"), "hxsrvd");
	assert_string_equal(getprogname(), "hxsrvd");
}

static void
test_setprogname_trailing_slash_keeps_whole_path(void **state)
{
	(void)state;
	assert_string_equal(setprogname("/usr/sbin/"), "/usr/sbin/");
	assert_string_equal(getprogname(), "/usr/sbin/");
}

static void
test_setprogname_truncates_to_31(void **state)
{
	const char *name = "/bin/abcdefghijklmnopqrstuvwxyz0123456789ABCD";

	(void)state;
	assert_int_equal(strlen(strrchr(name, '/') + 1), 40);
	assert_string_equal(setprogname(name), "abcdefghijklmnopqrstuvwxyz01234");
	assert_int_equal(strlen(getprogname()), 31);
}

static void
test_setprogname_null_keeps_name(void **state)
{
	(void)state;
	setprogname("hxsrvd");
	assert_string_equal(setprogname(NULL), "hxsrvd");
}

/* ---- time_get / getcurrenttime ---- */

static void
test_time_get_is_gettimeofday_seconds(void **state)
{
	struct timeval before, after;
	long now;

	(void)state;
	gettimeofday(&before, NULL);
	now = time_get();
	gettimeofday(&after, NULL);
	assert_true(now >= (long)before.tv_sec && now <= (long)after.tv_sec);
}

static int logged_level = -1;
static char logged[1100];

static void
record_log(int level, const char *message)
{
	logged_level = level;
	strlcpy(logged, message, sizeof(logged));
}

static void
test_getcurrenttime_logs_at_debug(void **state)
{
	struct timeval before, after;
	long sec, usec;
	int consumed = 0;

	(void)state;
	gw_set_log_callback(record_log);
	gettimeofday(&before, NULL);
	getcurrenttime();
	gettimeofday(&after, NULL);
	gw_set_log_callback(NULL);
	assert_int_equal(logged_level, GW_LOG_DEBUG);
	assert_int_equal(sscanf(logged, "tv_sec:%ld,tv_usec:%ld\n%n", &sec, &usec, &consumed), 2);
	assert_int_equal(consumed, (int)strlen(logged));
	assert_int_equal(logged[strlen(logged) - 1], '\n');
	assert_true(sec >= (long)before.tv_sec && sec <= (long)after.tv_sec);
	assert_true(usec >= 0 && usec < 1000000);
}

/* ---- do_system ---- */

static void
test_do_system_status_while_sigchld_ignored(void **state)
{
	struct sigaction ign, old, now;
	int status;

	(void)state;
	memset(&ign, 0, sizeof(ign));
	ign.sa_handler = SIG_IGN;
	sigemptyset(&ign.sa_mask);
	assert_int_equal(sigaction(SIGCHLD, &ign, &old), 0);
	status = do_system("exit 3");
	assert_int_equal(sigaction(SIGCHLD, &old, &now), 0);
	assert_true(WIFEXITED(status));
	assert_int_equal(WEXITSTATUS(status), 3);
	assert_ptr_equal(now.sa_handler, SIG_IGN);
}

static void
test_do_systemf_runs_only_what_fits(void **state)
{
	char path[PATH_MAX + 16], fits[PATH_MAX + 32];
	int len;

	(void)state;
	snprintf(path, sizeof(path), "%s/systemf", tmp_base);
	len = snprintf(fits, sizeof(fits), "touch %s", path);
	assert_int_equal(do_systemf((size_t)len, "touch %s", path), -1);
	assert_int_equal(access(path, F_OK), -1);
	assert_int_equal(do_systemf((size_t)len + 1, "touch %s", path), 0);
	assert_int_equal(access(path, F_OK), 0);
	unlink(path);
}

static void
test_gw_atoi_clamps_instead_of_overflowing(void **state)
{
	(void)state;
	assert_int_equal(gw_atoi("42"), 42);
	assert_int_equal(gw_atoi("15min"), 15);
	assert_int_equal(gw_atoi("abc"), 0);
	assert_int_equal(gw_atoi("-7"), -7);
	assert_int_equal(gw_atoi("99999999999999999999"), INT_MAX);
	assert_int_equal(gw_atoi("-99999999999999999999"), INT_MIN);
}

static void
on_sigchld(int sig)
{
	(void)sig;
}

static void
test_do_system_restores_handler(void **state)
{
	struct sigaction mine, old, now;
	int status;

	(void)state;
	memset(&mine, 0, sizeof(mine));
	mine.sa_handler = on_sigchld;
	mine.sa_flags = SA_RESTART;
	sigemptyset(&mine.sa_mask);
	assert_int_equal(sigaction(SIGCHLD, &mine, &old), 0);
	status = do_system("exit 0");
	assert_int_equal(sigaction(SIGCHLD, &old, &now), 0);
	assert_true(WIFEXITED(status));
	assert_int_equal(WEXITSTATUS(status), 0);
	assert_ptr_equal(now.sa_handler, on_sigchld);
	assert_true(now.sa_flags & SA_RESTART);
}

/* ---- mkdirs ---- */

static void
test_mkdirs_creates_nested_and_repeats(void **state)
{
	char x[PATH_MAX], xy[PATH_MAX];

	(void)state;
	tmp_path(x, sizeof(x), "x");
	tmp_path(xy, sizeof(xy), "x/y");
	assert_false(is_dir(x));
	assert_int_equal(mkdirs(xy, 0755), 0);
	assert_true(is_dir(x));
	assert_true(is_dir(xy));
	assert_int_equal(mkdirs(xy, 0755), 0);
}

static void
test_mkdirs_trailing_slash(void **state)
{
	char path[PATH_MAX], deep[PATH_MAX];

	(void)state;
	tmp_path(path, sizeof(path), "t/u/");
	tmp_path(deep, sizeof(deep), "t/u");
	assert_int_equal(mkdirs(path, 0755), 0);
	assert_true(is_dir(deep));
}

static void
test_mkdirs_existing_directory(void **state)
{
	(void)state;
	assert_int_equal(mkdirs(tmp_base, 0755), 0);
	assert_int_equal(mkdirs("/", 0755), 0);
}

static void
test_mkdirs_file_component_fails(void **state)
{
	char file[PATH_MAX], below[PATH_MAX];

	(void)state;
	tmp_path(file, sizeof(file), "plain");
	tmp_path(below, sizeof(below), "plain/sub/dir");
	write_file(file, "x");
	assert_int_equal(mkdirs(below, 0755), -1);
}

static void
test_mkdirs_null_and_empty_fail(void **state)
{
	(void)state;
	assert_int_equal(mkdirs(NULL, 0755), -1);
	assert_int_equal(mkdirs("", 0755), -1);
}

/* base + "/" + dir + components of up to 200 characters, total length len. */
static void
long_path(char *buf, size_t size, const char *dir, size_t len, int trailing_slash)
{
	size_t used;

	tmp_path(buf, size, dir);
	used = strlen(buf);
	assert_true(used + 2 < len && len < size);
	while (used < len) {
		size_t room = len - used - 1;
		size_t part = room > 200 ? 200 : room;

		if (room > 200 && room - 200 < 2)
			part = room - 2;
		buf[used++] = '/';
		memset(buf + used, 'd', part);
		used += part;
	}
	buf[used] = '\0';
	if (trailing_slash)
		buf[used - 1] = '/';
	assert_int_equal(strlen(buf), len);
}

static void
test_mkdirs_path_must_fit_1024(void **state)
{
	char path[2048], top[PATH_MAX];

	(void)state;
	if (strlen(tmp_base) > 700)
		skip();
	tmp_path(top, sizeof(top), "long1023");
	long_path(path, sizeof(path), "long1023", 1023, 0);
	assert_int_equal(mkdirs(path, 0755), -1);
	assert_false(is_dir(top));

	long_path(path, sizeof(path), "long1022", 1022, 0);
	assert_int_equal(mkdirs(path, 0755), 0);
	assert_true(is_dir(path));

	long_path(path, sizeof(path), "slash1023", 1023, 1);
	assert_int_equal(mkdirs(path, 0755), 0);
	assert_true(is_dir(path));

	long_path(path, sizeof(path), "slash1024", 1024, 1);
	assert_int_equal(mkdirs(path, 0755), -1);
}

/* ---- kill_pidfile ---- */

static void
test_kill_pidfile_missing_file_enoent(void **state)
{
	char path[PATH_MAX];

	(void)state;
	tmp_path(path, sizeof(path), "no-such.pid");
	assert_int_equal(kill_pidfile(path), ENOENT);
}

/* Writes the pid of a child to a pid file in base 10, 16 or 8. */
static void
kill_pidfile_with(int base)
{
	char path[PATH_MAX], text[64];
	pid_t child = spawn_pauser();
	unsigned int value = (unsigned int)child;

	tmp_path(path, sizeof(path), "child.pid");
	if (base == 16)
		snprintf(text, sizeof(text), "0x%x\n", value);
	else if (base == 8)
		snprintf(text, sizeof(text), "0%o", value);
	else
		snprintf(text, sizeof(text), "%u\n", value);
	write_file(path, text);
	assert_int_equal(kill_pidfile(path), 0);
	assert_killed_by_sigterm(child);
}

static void
test_kill_pidfile_decimal(void **state)
{
	(void)state;
	kill_pidfile_with(10);
}

static void
test_kill_pidfile_hexadecimal(void **state)
{
	(void)state;
	kill_pidfile_with(16);
}

static void
test_kill_pidfile_octal(void **state)
{
	(void)state;
	kill_pidfile_with(8);
}

static void
test_kill_pidfile_empty_file(void **state)
{
	char path[PATH_MAX];

	(void)state;
	tmp_path(path, sizeof(path), "empty.pid");
	write_file(path, "");
	errno = EBADF;
	assert_int_equal(kill_pidfile(path), 0);
}

static void
test_kill_pidfile_refuses_pid_zero(void **state)
{
	char path[PATH_MAX];
	pid_t child;
	int status;

	(void)state;
	tmp_path(path, sizeof(path), "zero.pid");
	write_file(path, "0\n");
	/* In a process group of its own, so a regression kills only it. */
	child = tu_fork();
	assert_true(child >= 0);
	if (child == 0) {
		setpgid(0, 0);
		_exit(kill_pidfile(path) == -1 && errno == EINVAL ? 0 : 1);
	}
	assert_int_equal(waitpid(child, &status, 0), child);
	assert_true(WIFEXITED(status));
	assert_int_equal(WEXITSTATUS(status), 0);
}

static void
test_kill_pidfile_refuses_wrapping_pid(void **state)
{
	char path[PATH_MAX], text[64];
	pid_t child = spawn_pauser();
	int status;

	(void)state;
	tmp_path(path, sizeof(path), "wrap.pid");
	snprintf(text, sizeof(text), "%llu\n", (1ULL << 32) + (unsigned long long)child);
	write_file(path, text);
	errno = 0;
	assert_int_equal(kill_pidfile(path), -1);
	assert_int_equal(errno, EINVAL);
	assert_int_equal(waitpid(child, &status, WNOHANG), 0);
	reap(child);
}

/* ---- find_pid_by_name ---- */

/* Runs a symlink to sleep named name; returns once the exec happened. */
static pid_t
spawn_named_sleeper(const char *name)
{
	char exe[PATH_MAX], byte;
	int ready[2];
	pid_t pid;

	tmp_path(exe, sizeof(exe), name);
	if (access(exe, F_OK) != 0)
		assert_int_equal(symlink("/bin/sleep", exe), 0);
	assert_int_equal(pipe2(ready, O_CLOEXEC), 0);
	pid = tu_fork();
	assert_true(pid >= 0);
	if (pid == 0) {
		execl(exe, name, "60", (char *)NULL);
		_exit(127);
	}
	test_child = pid;
	close(ready[1]);
	assert_int_equal(read(ready[0], &byte, 1), 0);
	close(ready[0]);
	return pid;
}

/* Scans to the end so that the next call starts afresh. */
static void
reset_scan(const char *name)
{
	int i;

	for (i = 0; i < 1000 && find_pid_by_name(name) != 0; i++)
		;
}

static void
test_find_pid_by_name_finds_child(void **state)
{
	pid_t child;

	(void)state;
	child = spawn_named_sleeper(sleeper_name);
	reset_scan(sleeper_name);
	assert_int_equal(find_pid_by_name(sleeper_name), child);
	reset_scan(sleeper_name);
	reap(child);
}

static void
test_find_pid_by_name_every_other_call(void **state)
{
	pid_t child;

	(void)state;
	child = spawn_named_sleeper(sleeper_name);
	reset_scan(sleeper_name);
	assert_int_equal(find_pid_by_name(sleeper_name), child);
	assert_int_equal(find_pid_by_name(sleeper_name), 0);
	assert_int_equal(find_pid_by_name(sleeper_name), child);
	assert_int_equal(find_pid_by_name(sleeper_name), 0);
	reap(child);
}

static void
test_find_pid_by_name_compares_15_characters(void **state)
{
	char other[32];
	pid_t child;

	(void)state;
	/* The kernel keeps 15 characters of the name; the search name
	 * shares only those 15 with the one the child was started as. */
	strlcpy(other, long_sleeper_name, 16);
	strlcpy(other + 15, "ZZZ", sizeof(other) - 15);
	assert_int_equal(strlen(long_sleeper_name), strlen(sleeper_name) + 12);
	child = spawn_named_sleeper(long_sleeper_name);
	reset_scan(other);
	assert_int_equal(find_pid_by_name(other), child);
	reset_scan(other);
	reap(child);
}

static void
test_find_pid_by_name_no_match(void **state)
{
	(void)state;
	reset_scan("hx-no-such-proc");
	assert_int_equal(find_pid_by_name("hx-no-such-proc"), 0);
	assert_int_equal(find_pid_by_name(NULL), 0);
}

/* ---- _q_x2c, _q_urlencode, _q_urldecode ---- */

static void
test_x2c_both_cases(void **state)
{
	(void)state;
	assert_int_equal((unsigned char)_q_x2c('2', 'F'), 0x2f);
	assert_int_equal((unsigned char)_q_x2c('2', 'f'), 0x2f);
	assert_int_equal((unsigned char)_q_x2c('a', '0'), 0xa0);
	assert_int_equal((unsigned char)_q_x2c('F', 'f'), 0xff);
	assert_int_equal((unsigned char)_q_x2c('0', '0'), 0x00);
	assert_int_equal((unsigned char)_q_x2c('7', 'E'), 0x7e);
}

static void
test_urlencode_space_and_tilde(void **state)
{
	char *out;

	(void)state;
	out = _q_urlencode((const unsigned char *)"a b~", 4);
	assert_string_equal(out, "a%20b%7e");
	free(out);
}

static void
test_urlencode_safe_set(void **state)
{
	unsigned char byte[1];
	char expect[4];
	int c, kept = 0;

	(void)state;
	for (c = 1; c < 256; c++) {
		char *out;

		byte[0] = (unsigned char)c;
		out = _q_urlencode(byte, 1);
		assert_non_null(out);
		if (strchr(url_safe_set, c) != NULL) {
			expect[0] = (char)c;
			expect[1] = '\0';
			kept++;
		} else {
			snprintf(expect, sizeof(expect), "%%%02x", (unsigned int)c);
		}
		assert_string_equal(out, expect);
		free(out);
	}
	assert_int_equal(kept, 69);
}

static void
test_urlencode_binary_and_length(void **state)
{
	static const unsigned char data[] = { 'A', 0x00, 0xff, '/' };
	char *out;

	(void)state;
	out = _q_urlencode(data, sizeof(data));
	assert_string_equal(out, "A%00%ff/");
	free(out);
	out = _q_urlencode((const unsigned char *)"abc", 2);
	assert_string_equal(out, "ab");
	free(out);
}

static void
test_urlencode_null_and_empty(void **state)
{
	char *out;

	(void)state;
	assert_null(_q_urlencode(NULL, 3));
	out = _q_urlencode((const unsigned char *)"", 0);
	assert_string_equal(out, "");
	free(out);
}

static void
test_urldecode_plus_and_percent(void **state)
{
	char text[] = "a+b%2F";

	(void)state;
	assert_int_equal(_q_urldecode(text), 4);
	assert_string_equal(text, "a b/");
}

static void
test_urldecode_short_percent_stays(void **state)
{
	char end[] = "ab%";
	char one[] = "ab%4";
	char mixed[] = "%41%";

	(void)state;
	assert_int_equal(_q_urldecode(end), 3);
	assert_memory_equal(end, "ab%", 4);
	assert_int_equal(_q_urldecode(one), 4);
	assert_memory_equal(one, "ab%4", 5);
	assert_int_equal(_q_urldecode(mixed), 2);
	assert_memory_equal(mixed, "A%", 3);
}

static void
test_urldecode_null_and_unvalidated(void **state)
{
	char text[] = "%7e%7E%zz";

	(void)state;
	assert_int_equal(_q_urldecode(NULL), 0);
	assert_int_equal(_q_urldecode(text), 3);
	assert_int_equal((unsigned char)text[0], 0x7e);
	assert_int_equal((unsigned char)text[1], 0x7e);
	assert_int_equal((unsigned char)text[2], (unsigned char)_q_x2c('z', 'z'));
	assert_int_equal(text[3], '\0');
}

/* ---- str_match ---- */

static void
test_str_match(void **state)
{
	(void)state;
	assert_int_equal(str_match("hxsrvd", "hx"), 1);
	assert_int_equal(str_match("hxsrvd", "hxsrvd"), 1);
	assert_int_equal(str_match("hx", "hxsrvd"), 0);
	assert_int_equal(str_match("abc", "abd"), 0);
	assert_int_equal(str_match("abc", ""), 1);
	assert_int_equal(str_match(NULL, "a"), 0);
	assert_int_equal(str_match("a", NULL), 0);
}

/* ---- _escape_delimiter ---- */

#define ESCAPE_INPUT "it's;a/b\\"

static void
assert_escape(unsigned int flags, const char *expect)
{
	char *out = _escape_delimiter(ESCAPE_INPUT, flags);

	assert_non_null(out);
	assert_string_equal(out, expect);
	free(out);
}

static void
test_escape_delimiter_all_flags(void **state)
{
	(void)state;
	assert_escape(0xF, "it'\\''s/;a//b\\\\\\");
}

static void
test_escape_delimiter_each_flag(void **state)
{
	(void)state;
	assert_escape(0, ESCAPE_INPUT);
	assert_escape(ESCAPE_QUOTE, "it'\\''s;a/b\\");
	assert_escape(ESCAPE_SEMICOLON, "it's/;a/b\\");
	assert_escape(ESCAPE_SLASH, "it's;a//b\\");
	assert_escape(ESCAPE_BACKSLASH, "it's;a/b\\\\\\");
	assert_escape(7, "it'\\''s/;a//b\\");
}

static void
test_escape_delimiter_null_and_empty(void **state)
{
	char *out;

	(void)state;
	assert_null(_escape_delimiter(NULL, 0xF));
	out = _escape_delimiter("", 0xF);
	assert_string_equal(out, "");
	free(out);
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test(test_strlcpy_size_zero_writes_nothing),
		cmocka_unit_test(test_strlcpy_truncates),
		cmocka_unit_test(test_strlcpy_fits),
		cmocka_unit_test(test_snprintf_truncates),
		cmocka_unit_test(test_setprogname_full_path),
		cmocka_unit_test(test_setprogname_bare_name),
		cmocka_unit_test(test_setprogname_trailing_slash_keeps_whole_path),
		cmocka_unit_test(test_setprogname_truncates_to_31),
		cmocka_unit_test(test_setprogname_null_keeps_name),
		cmocka_unit_test(test_time_get_is_gettimeofday_seconds),
		cmocka_unit_test(test_getcurrenttime_logs_at_debug),
		cmocka_unit_test(test_do_system_status_while_sigchld_ignored),
		cmocka_unit_test(test_do_system_restores_handler),
		cmocka_unit_test(test_do_systemf_runs_only_what_fits),
		cmocka_unit_test(test_gw_atoi_clamps_instead_of_overflowing),
		cmocka_unit_test(test_mkdirs_creates_nested_and_repeats),
		cmocka_unit_test(test_mkdirs_trailing_slash),
		cmocka_unit_test(test_mkdirs_existing_directory),
		cmocka_unit_test(test_mkdirs_file_component_fails),
		cmocka_unit_test(test_mkdirs_null_and_empty_fail),
		cmocka_unit_test(test_mkdirs_path_must_fit_1024),
		cmocka_unit_test(test_kill_pidfile_missing_file_enoent),
		cmocka_unit_test_teardown(test_kill_pidfile_decimal, reap_test_child),
		cmocka_unit_test_teardown(test_kill_pidfile_hexadecimal, reap_test_child),
		cmocka_unit_test_teardown(test_kill_pidfile_octal, reap_test_child),
		cmocka_unit_test(test_kill_pidfile_empty_file),
		cmocka_unit_test(test_kill_pidfile_refuses_pid_zero),
		cmocka_unit_test_teardown(test_kill_pidfile_refuses_wrapping_pid, reap_test_child),
		cmocka_unit_test_teardown(test_find_pid_by_name_finds_child, reap_test_child),
		cmocka_unit_test_teardown(test_find_pid_by_name_every_other_call, reap_test_child),
		cmocka_unit_test_teardown(test_find_pid_by_name_compares_15_characters, reap_test_child),
		cmocka_unit_test(test_find_pid_by_name_no_match),
		cmocka_unit_test(test_x2c_both_cases),
		cmocka_unit_test(test_urlencode_space_and_tilde),
		cmocka_unit_test(test_urlencode_safe_set),
		cmocka_unit_test(test_urlencode_binary_and_length),
		cmocka_unit_test(test_urlencode_null_and_empty),
		cmocka_unit_test(test_urldecode_plus_and_percent),
		cmocka_unit_test(test_urldecode_short_percent_stays),
		cmocka_unit_test(test_urldecode_null_and_unvalidated),
		cmocka_unit_test(test_str_match),
		cmocka_unit_test(test_escape_delimiter_all_flags),
		cmocka_unit_test(test_escape_delimiter_each_flag),
		cmocka_unit_test(test_escape_delimiter_null_and_empty),
	};

	return cmocka_run_group_tests(tests, setup_tmp, teardown_tmp);
}
