#include "core/startup.h"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>


#include <array>
#include <utility>

#include "core/console.h"
#include "core/event.h"
#include "core/fmt.h"
#include "core/owned.h"
#include "core/server.h"
#include "core/util.h"
#include "ipc/ipc.h"

namespace {

using hx::EventPtr;

constexpr const char *lock_path = "/var/tmp/socket.lock";
constexpr const char *socket_path = "/var/tmp/socket";
// Written at start, never removed: the pid file stays behind on exit.
constexpr const char *pid_path = "/var/run/hxsrvd.pid";
constexpr int backtrace_frames = 30;

bool quitting;
hx::UniqueFd lock_fd, sock_fd;
std::array<EventPtr, 3> sig_events;

int daemon_error(const char *step)
{
	fprintf(stderr, "Error daemonizing (%s)! %d - %s\n", step, errno, strerror(errno));
	return -1;
}

// 0 in the child; the parent exits.
int fork_away(const char *step)
{
	pid_t pid = fork();
	if (pid == -1)
		return daemon_error(step);
	if (pid != 0)
		_exit(0);
	return 0;
}

void redirect_null(int target, int flags)
{
	hx::UniqueFd fd(open("/dev/null", flags));
	if (fd && fd.get() != target)
		dup2(fd.get(), target);
	else
		(void)fd.release();	// already the target, or nothing opened
}

}  // namespace

[[noreturn]] static void usage()
{
	printf("usage: %s [-dfh]\n\n"
	       "  -d --debug                Print data send and received, implies -f\n"
	       "  -f --foreground           Run in the foreground and log to stderr\n"
	       "  -h --help                 Display this message and exit\n\n",
	       getprogname());
	exit(0);
}

// -p takes an argument but, like -h and any unknown option, only prints the usage.
static void readargs(int argc, char *argv[], unsigned int *foreground, unsigned int *debug)
{
	static constexpr option longopts[] = {
		{"debug", no_argument, nullptr, 'd'},
		{"foreground", no_argument, nullptr, 'f'},
		{"help", no_argument, nullptr, 'h'},
		{nullptr, 0, nullptr, 0},
	};
	*foreground = *debug = 0;
	for (int c; (c = getopt_long(argc, argv, "dfhp:", longopts, nullptr)) != -1;) {
		if (c == 'd')
			*debug = *foreground = 1;
		else if (c == 'f')
			*foreground = 1;
		else
			usage();
	}
}

// Replaces the C library's daemon().
int daemon(int nochdir, int noclose)
{
	if (fork_away("fork") != 0)
		return -1;
	if (setsid() == -1)
		return daemon_error("setsid");
	if (fork_away("fork2") != 0)
		return -1;
	if (nochdir == 0 && chdir("/") == -1)
		return daemon_error("chdir");
	if (noclose == 0) {
		redirect_null(0, O_RDONLY);
		redirect_null(1, O_WRONLY);
		redirect_null(2, O_WRONLY);
	}
	return 0;
}

// The lock lasts as long as the descriptor, which stays open; the file
// holds the pid (best effort).
static int getlock(const char *path)
{
	hx::UniqueFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666));
	if (!fd) {
		gw_console("failed to open file: %s\n", path);
		return -1;
	}
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	lock.l_whence = SEEK_SET;
	if (fcntl(fd.get(), F_SETLK, &lock) == 0) {
		std::string pid = hx::format("%i\n", static_cast<int>(getpid()));
		[[maybe_unused]] bool written = ftruncate(fd.get(), 0) == 0 &&
						write(fd.get(), pid.data(), pid.size()) == static_cast<ssize_t>(pid.size());
		return fd.release();
	}
	if (errno == EAGAIN)
		gw_console("another copy of %s is already running\n", "daemon");
	else
		gw_console("failed to obtain lock on file: %s\n", path);
	return -1;
}

static int trylocksock()
{
	lock_fd.reset(getlock(lock_path));
	if (lock_fd)
		sock_fd.reset(getsock(socket_path));
	return lock_fd && sock_fd ? sock_fd.get() : -1;
}

static int savepid()
{
	hx::FilePtr file = hx::open_file(pid_path, "wb");
	if (!file) {
		gw_console("failed to open pid file: %s\n", pid_path);
		return -1;
	}
	fprintf(file.get(), "%d\n", static_cast<int>(getpid()));
	if (!hx::close_file(std::move(file))) {
		gw_console("failed to write pid to file: %s\n", pid_path);
		unlink(pid_path);
		return -1;
	}
	return 0;
}

// exit(0) runs one loop pass after the first signal, so that a terminating
// signal already delivered by then takes the "while exiting" path.
static void gotsig(evutil_socket_t sig, short, void *)
{
	static constexpr timeval now = {0, 0};
	if (!quitting) {
		quitting = true;
		gw_console("received fatal signal %i, attempting to exit cleanly\n", static_cast<int>(sig));
		server_quit();
		if (event_base_once(get_event_base(), -1, EV_TIMEOUT, [](evutil_socket_t, short, void *) { exit(0); },
				    nullptr, &now) != 0)
			exit(0);
		return;
	}
	gw_console("received fatal signal %i while exiting, exiting immediately\n", static_cast<int>(sig));
	signal(static_cast<int>(sig), SIG_DFL);
	raise(static_cast<int>(sig));
}

// exit() runs the atexit clean-up, so the socket and lock files go.
static void crash_handler(int)
{
	puts("#hxsrvd# receive SIGSEGV signal");
	{
		std::array<void *, backtrace_frames> frames;
		int count = backtrace(frames.data(), backtrace_frames);
		hx::Owned<char *, free> symbols(backtrace_symbols(frames.data(), count));
		printf("#hxsrvd# obtained %d stack frames\n", count);
		for (int i = 0; symbols && i < count; i++)
			puts(symbols.get()[i]);
	}
	exit(-1);
}

static void setupsigs(event_base *base)
{
	constexpr std::array<int, 3> sigs = {SIGINT, SIGQUIT, SIGTERM};
	for (size_t i = 0; i < sigs.size(); i++) {
		sig_events[i].reset(evsignal_new(base, sigs[i], gotsig, nullptr));
		if (sig_events[i])
			event_add(sig_events[i].get(), nullptr);
	}
	signal(SIGPIPE, SIG_IGN);
	signal(SIGHUP, SIG_IGN);
	signal(SIGCHLD, SIG_IGN);
	signal(SIGSEGV, crash_handler);
}

static void exitcleanup()
{
	for (auto [fd, path] : {std::pair{&sock_fd, socket_path}, std::pair{&lock_fd, lock_path}}) {
		if (*fd)
			unlink(path);
		fd->reset();
	}
}

int hxsrvd_main(int argc, char *argv[])
{
	unsigned int foreground, debug;
	setprogname(argv[0]);
	readargs(argc, argv, &foreground, &debug);
	if (!foreground && daemon(1, 0) != 0) {
		gw_console("failed to daemonize\n");
		exit(1);
	}
	// Handlers print to standard output: unbuffered, so that a foreground
	// run shows each line when it is printed.
	setvbuf(stdout, nullptr, _IONBF, 0);
	atexit(exitcleanup);
	int fd = trylocksock();
	if (fd < 0 || savepid() < 0)
		exit(1);
	event_base *base = event_init();
	setupsigs(base);
	ipc_init();
	server_init(base);
	server_debug(debug);
	server_listen(fd);
	event_base_dispatch(base);
	return 1;
}
