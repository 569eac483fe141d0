/* hxspawn: whole-process timings with fork and exec, as a shell runs them.
 *
 *   hxspawn [-n N] [-w W] CMD_A [ARG...] :: CMD_B [ARG...]
 *     Runs A and B in turn (A, B, A, B ...), W times each unrecorded first,
 *     then N times each: fork, execv, waitpid, with standard input, output
 *     and error on /dev/null.  Prints {"a": {stats, "failed": F}, "b": {...}};
 *     a run that does not exit with status 0 counts as failed.
 *
 *   hxspawn --startup SOCKET [-n N] [-w W] [-r REQUEST] CMD [ARG...]
 *     Start-up time of a server: fork and exec CMD, then try to connect to
 *     SOCKET every 20 us; "listen" is exec to the first connect that
 *     succeeds, "reply" is exec to the complete reply to REQUEST sent on that
 *     connection (so the connection was accepted and served).  Then SIGTERM
 *     and waitpid.  Prints {"listen": {stats}, "reply": {stats}, "failed": F}. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "benchutil.h"

#define PROG "hxspawn"
#define START_TIMEOUT_NS 10000000000ull
#define DEFAULT_REQUEST "{\"method\": \"revalidate\", \"arguments\": {}}"

static pid_t
spawn(char **argv)
{
	pid_t pid = fork();

	if (pid == 0) {
		int null = open("/dev/null", O_RDWR);

		if (null < 0)
			_exit(127);
		dup2(null, 0);
		dup2(null, 1);
		dup2(null, 2);
		if (null > 2)
			close(null);
		execv(argv[0], argv);
		_exit(127);
	}
	if (pid < 0)
		bench_die(PROG, "fork", 1);
	return pid;
}

static int
reap(pid_t pid)
{
	int status;

	while (waitpid(pid, &status, 0) < 0)
		if (errno != EINTR)
			bench_die(PROG, "waitpid", 1);
	return status;
}

/* Wall time of one run of argv; *failed is bumped unless it exits 0. */
static uint64_t
time_run(char **argv, unsigned long *failed)
{
	uint64_t t0 = bench_now_ns();
	int status = reap(spawn(argv));
	uint64_t t1 = bench_now_ns();

	if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
		(*failed)++;
	return t1 - t0;
}

static void
print_stats(const char *name, uint64_t *v, size_t n, unsigned long failed, int last)
{
	struct bench_stats st;

	bench_stats_calc(v, n, &st);
	printf("\"%s\": {", name);
	bench_stats_print(stdout, &st);
	printf(", \"failed\": %lu}%s", failed, last ? "" : ", ");
}

static int
compare(char **a, char **b, unsigned long n, unsigned long w)
{
	uint64_t *ta = (uint64_t *)calloc(n + 1, sizeof(*ta)), *tb = (uint64_t *)calloc(n + 1, sizeof(*tb));
	unsigned long i, fa = 0, fb = 0, fw = 0;

	if (ta == NULL || tb == NULL)
		bench_die(PROG, "out of memory", 0);
	for (i = 0; i < w; i++) {
		time_run(a, &fw);
		time_run(b, &fw);
	}
	for (i = 0; i < n; i++) {
		/* Alternate which one goes first, so neither always follows the other. */
		if (i % 2 == 0) {
			ta[i] = time_run(a, &fa);
			tb[i] = time_run(b, &fb);
		} else {
			tb[i] = time_run(b, &fb);
			ta[i] = time_run(a, &fa);
		}
	}
	printf("{");
	print_stats("a", ta, n, fa, 0);
	print_stats("b", tb, n, fb, 0);
	printf("\"warmup_failed\": %lu}\n", fw);
	return 0;
}

/* Sends request on fd and reads until the JSON object is complete. */
static int
ask(int fd, const char *request)
{
	struct json_end je = {};
	char buf[4096];

	if (write(fd, request, strlen(request)) != (ssize_t)strlen(request))
		return -1;
	for (;;) {
		struct pollfd pfd = { fd, POLLIN, 0 };
		ssize_t r;
		long end;

		if (poll(&pfd, 1, 10000) <= 0)
			return -1;
		r = read(fd, buf, sizeof(buf));
		if (r <= 0)
			return -1;
		end = json_end_feed(&je, buf, (size_t)r);
		if (end != 0)
			return end > 0 ? 0 : -1;
	}
}

/* One start: 0 and both times, or -1. */
static int
start_once(char **argv, const char *sock, const char *request, uint64_t *t_listen,
	   uint64_t *t_reply)
{
	uint64_t t0;
	pid_t pid;
	int fd = -1, ok = -1;

	unlink(sock);
	t0 = bench_now_ns();
	pid = spawn(argv);
	while (bench_now_ns() - t0 < START_TIMEOUT_NS) {
		fd = bench_connect(sock, 0);
		if (fd >= 0)
			break;
		if (waitpid(pid, NULL, WNOHANG) == pid) {
			pid = -1;
			break;
		}
		bench_sleep_ns(20000);
	}
	if (fd >= 0) {
		*t_listen = bench_now_ns() - t0;
		if (ask(fd, request) == 0) {
			*t_reply = bench_now_ns() - t0;
			ok = 0;
		}
		close(fd);
	}
	if (pid > 0) {
		kill(pid, SIGTERM);
		reap(pid);
	}
	return ok;
}

static int
startup(char **argv, const char *sock, const char *request, unsigned long n, unsigned long w)
{
	uint64_t *tl = (uint64_t *)calloc(n + 1, sizeof(*tl)), *tr = (uint64_t *)calloc(n + 1, sizeof(*tr)), a, b;
	unsigned long i, failed = 0;
	size_t got = 0;

	if (tl == NULL || tr == NULL)
		bench_die(PROG, "out of memory", 0);
	for (i = 0; i < w; i++)
		start_once(argv, sock, request, &a, &b);
	for (i = 0; i < n; i++) {
		if (start_once(argv, sock, request, &tl[got], &tr[got]) == 0)
			got++;
		else
			failed++;
	}
	printf("{");
	print_stats("listen", tl, got, 0, 0);
	print_stats("reply", tr, got, 0, 0);
	printf("\"failed\": %lu}\n", failed);
	return 0;
}

static unsigned long
number(const char *s)
{
	char *end;
	unsigned long v = strtoul(s, &end, 10);

	if (*s == '\0' || *end != '\0')
		bench_die(PROG, "bad number", 0);
	return v;
}

int
main(int argc, char *argv[])
{
	const char *sock = NULL, *request = DEFAULT_REQUEST;
	unsigned long n = 100, w = 5;
	int i = 1, j;

	for (; i < argc && argv[i][0] == '-'; i++) {
		if (strcmp(argv[i], "--startup") == 0 && i + 1 < argc)
			sock = argv[++i];
		else if (strcmp(argv[i], "-n") == 0 && i + 1 < argc)
			n = number(argv[++i]);
		else if (strcmp(argv[i], "-w") == 0 && i + 1 < argc)
			w = number(argv[++i]);
		else if (strcmp(argv[i], "-r") == 0 && i + 1 < argc)
			request = argv[++i];
		else
			bench_die(PROG, "usage: see the comment at the top of hxspawn.c", 0);
	}
	if (i >= argc)
		bench_die(PROG, "no command", 0);
	signal(SIGPIPE, SIG_IGN);
	if (sock != NULL)
		return startup(argv + i, sock, request, n, w);
	for (j = i; j < argc && strcmp(argv[j], "::") != 0; j++)
		;
	if (j == i || j + 1 >= argc)
		bench_die(PROG, "usage: hxspawn [-n N] [-w W] CMD_A... :: CMD_B...", 0);
	argv[j] = NULL;
	return compare(argv + i, argv + j + 1, n, w);
}
