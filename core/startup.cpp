/* Part 1.1: start-up, daemon mode and shutdown. */
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <event.h>

#include "core/console.h"
#include "core/server.h"
#include "core/startup.h"
#include "core/util.h"
#include "ipc/ipc.h"

#define LOCK_PATH   "/var/tmp/socket.lock"
#define SOCKET_PATH "/var/tmp/socket"
#define PID_PATH    "/var/run/hxsrvd.pid"

static unsigned int quitting;
static int lock_fd = -1;
static char lock_path[4096];
static int sock_fd = -1;
static char sock_path[4096];
/* Nothing fills this, so the pid file stays behind on exit (Part 1.1). */
static char pid_path[4096];
static struct event sig_events[3];

static void usage(const char *format, ...)
	__attribute__((format(printf, 1, 2), noreturn));

static void
usage(const char *format, ...)
{
	if (format != NULL) {
		va_list args;

		printf("%s: ", getprogname());
		va_start(args, format);
		vprintf(format, args);
		va_end(args);
		printf("\n");
	}
	printf("usage: %s [-dfh]\n\n"
	       "  -d --debug                Print data send and received, implies -f\n"
	       "  -f --foreground           Run in the foreground and log to stderr\n"
	       "  -h --help                 Display this message and exit\n\n",
	       getprogname());
	exit(0);
}

static void
readargs(int argc, char *argv[], unsigned int *foreground, unsigned int *debug)
{
	static const struct option longopts[] = {
		{ "debug", no_argument, NULL, 'd' },
		{ "foreground", no_argument, NULL, 'f' },
		{ "help", no_argument, NULL, 'h' },
		{ NULL, 0, NULL, 0 },
	};
	int c;

	*foreground = 0;
	*debug = 0;
	while ((c = getopt_long(argc, argv, "dfhp:", longopts, NULL)) != -1) {
		switch (c) {
		case 'd':
			*debug = 1;
			*foreground = 1;
			break;
		case 'f':
			*foreground = 1;
			break;
		default:	/* -h, -p and anything unknown */
			usage(NULL);
		}
	}
}

static int
daemon_error(const char *step)
{
	fprintf(stderr, "Error daemonizing (%s)! %d - %s\n", step, errno, strerror(errno));
	return -1;
}

static void
redirect_null(int target, int flags)
{
	int fd = open("/dev/null", flags);

	if (fd >= 0 && fd != target) {
		dup2(fd, target);
		close(fd);
	}
}

/* Replaces the C library's daemon(). */
int
daemon(int nochdir, int noclose)
{
	pid_t pid = fork();

	if (pid == -1)
		return daemon_error("fork");
	if (pid != 0)
		_exit(0);
	if (setsid() == -1)
		return daemon_error("setsid");
	pid = fork();
	if (pid == -1)
		return daemon_error("fork2");
	if (pid != 0)
		_exit(0);
	if (nochdir == 0 && chdir("/") == -1)
		return daemon_error("chdir");
	if (noclose == 0) {
		redirect_null(0, O_RDONLY);
		redirect_null(1, O_WRONLY);
		redirect_null(2, O_WRONLY);
	}
	return 0;
}

/* The lock file holds the pid; writing it is best effort. */
static void
lock_write_pid(int fd)
{
	char pid[64];
	int len = snprintf(pid, sizeof(pid), "%i\n", (int)getpid());

	if (ftruncate(fd, 0) == 0 && write(fd, pid, (size_t)len) != len)
		return;
}

static int
getlock(const char *path)
{
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	lock.l_whence = SEEK_SET;
	int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);

	if (fd < 0) {
		gw_console("failed to open file: %s\n", path);
		return -1;
	}
	if (fcntl(fd, F_SETLK, &lock) == 0) {
		lock_write_pid(fd);
		return fd;
	}
	if (errno == EAGAIN)
		gw_console("another copy of %s is already running\n", "daemon");
	else
		gw_console("failed to obtain lock on file: %s\n", path);
	close(fd);
	return -1;
}

static int
trylocksock(void)
{
	lock_fd = getlock(LOCK_PATH);
	if (lock_fd < 0)
		return -1;
	strlcpy(lock_path, LOCK_PATH, sizeof(lock_path));
	sock_fd = getsock(SOCKET_PATH);
	if (sock_fd < 0)
		return -1;
	strlcpy(sock_path, SOCKET_PATH, sizeof(sock_path));
	return sock_fd;
}

static int
savepid(void)
{
	FILE *f = fopen(PID_PATH, "wb");

	if (f == NULL) {
		gw_console("failed to open pid file: %s\n", PID_PATH);
		return -1;
	}
	if (fprintf(f, "%d\n", (int)getpid()) < 0 || fflush(f) != 0) {
		gw_console("failed to write pid to file: %s\n", PID_PATH);
		fclose(f);
		unlink(PID_PATH);
		return -1;
	}
	fclose(f);
	return 0;
}

static void
quit_exit(evutil_socket_t fd, short events, void *arg)
{
	(void)fd;
	(void)events;
	(void)arg;
	exit(0);
}

/* exit(0) runs one loop pass after the first signal, so that a terminating
 * signal already delivered by then takes the "while exiting" path. */
static void
gotsig(evutil_socket_t sig, short events, void *arg)
{
	static const struct timeval now = { 0, 0 };

	(void)events;
	(void)arg;
	if (!quitting) {
		quitting = 1;
		gw_console("received fatal signal %i, attempting to exit cleanly\n", (int)sig);
		server_quit();
		if (event_base_once(get_event_base(), -1, EV_TIMEOUT, quit_exit, NULL, &now) != 0)
			exit(0);
		return;
	}
	gw_console("received fatal signal %i while exiting, exiting immediately\n", (int)sig);
	signal((int)sig, SIG_DFL);
	raise((int)sig);
}

static void
crash_handler(int sig)
{
	void *frames[30];
	char **symbols;
	int count, i;

	(void)sig;
	puts("#hxsrvd# receive SIGSEGV signal");
	count = backtrace(frames, 30);
	symbols = backtrace_symbols(frames, count);
	printf("#hxsrvd# obtained %d stack frames\n", count);
	for (i = 0; symbols != NULL && i < count; i++)
		puts(symbols[i]);
	free(symbols);
	exit(-1);
}

static void
setupsigs(struct event_base *base)
{
	static const int sigs[] = { SIGINT, SIGQUIT, SIGTERM };
	size_t i;

	for (i = 0; i < 3; i++) {
		event_set(&sig_events[i], sigs[i], EV_SIGNAL | EV_PERSIST, gotsig, NULL);
		event_base_set(base, &sig_events[i]);
		event_add(&sig_events[i], NULL);
	}
	signal(SIGPIPE, SIG_IGN);
	signal(SIGHUP, SIG_IGN);
	signal(SIGCHLD, SIG_IGN);
	signal(SIGSEGV, crash_handler);
}

static void
exitcleanup(void)
{
	if (sock_fd >= 0) {
		unlink(sock_path);
		close(sock_fd);
	}
	if (pid_path[0] != '\0')
		unlink(pid_path);
	if (lock_fd >= 0) {
		unlink(lock_path);
		close(lock_fd);
	}
}

int
hxsrvd_main(int argc, char *argv[])
{
	unsigned int foreground, debug;
	struct event_base *base;
	int fd;

	setprogname(argv[0]);
	readargs(argc, argv, &foreground, &debug);
	if (!foreground && daemon(1, 0) != 0) {
		gw_console("failed to daemonize\n");
		exit(1);
	}
	/* Handlers print to standard output; unbuffered so that a foreground
	 * run shows each line when it is printed. */
	setvbuf(stdout, NULL, _IONBF, 0);
	atexit(exitcleanup);
	fd = trylocksock();
	if (fd < 0)
		exit(1);
	if (savepid() < 0)
		exit(1);
	base = event_init();
	setupsigs(base);
	ipc_init();
	server_init(base);
	server_debug(debug);
	server_listen(fd);
	event_base_dispatch(base);
	return 1;
}
