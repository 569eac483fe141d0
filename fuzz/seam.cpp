// See seam.h.  A program's own definitions come before the C library's, so
// the daemon's code, which reaches the shell only through system() and
// popen(), calls these.
#include "fuzz/seam.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <mutex>
#include <string_view>

#include "core/fmt.h"

namespace {

struct Ring {
	std::mutex lock;	// the sync worker runs its command on its own thread
	std::array<std::string, hx::fuzz::seam_ring_size> calls;
	unsigned long count = 0;
};

// Never destroyed: a worker thread may still record while the process exits.
Ring &ring()
{
	static Ring &r = *new Ring;
	return r;
}

void record(std::string_view what, std::string_view argument)
{
	Ring &r = ring();
	std::lock_guard lock(r.lock);
	std::string &call = r.calls[r.count++ % r.calls.size()];
	call.assign(what).append(" ").append(argument);
}

// Sleeps on the fuzzing thread return at once; other threads (libFuzzer's
// own, the daemon's scan and sync workers) really sleep, or their loops
// would spin.
bool fuzzing_thread() { return gettid() == getpid(); }

int real_nanosleep(const timespec *request, timespec *remain)
{
	return static_cast<int>(syscall(SYS_nanosleep, request, remain));
}

}  // namespace

namespace hx::fuzz {

unsigned long seam_count()
{
	Ring &r = ring();
	std::lock_guard lock(r.lock);
	return r.count;
}

std::string seam_command(unsigned long n)
{
	Ring &r = ring();
	std::lock_guard lock(r.lock);
	if (n >= r.count || n >= r.calls.size())
		return {};
	return r.calls[(r.count - 1 - n) % r.calls.size()];
}

void require_sandbox(const char *target)
{
	if (getenv("HX_FUZZ_SANDBOX") == nullptr || access("/usr/lib/hxsim/log-argv", X_OK) != 0) {
		fprintf(stderr, "%s: runs only inside the device sandbox (fuzz/run)\n", target);
		abort();
	}
}

}  // namespace hx::fuzz

// A normal exit with status 0.
int system(const char *command)
{
	record("system", command != nullptr ? command : "(null)");
	return command == nullptr ? 1 : 0;
}

// An empty stream: the command printed nothing.
FILE *popen(const char *command, const char *)
{
	static char none;
	record("popen", command != nullptr ? command : "(null)");
	return fmemopen(&none, 0, "r");
}

int pclose(FILE *stream) { return fclose(stream) == 0 ? 0 : -1; }

// The parent's side only: the child's path never runs.
pid_t fork() noexcept
{
	record("fork", "");
	return 4242;
}

unsigned int sleep(unsigned int seconds)
{
	timespec t = {static_cast<time_t>(seconds), 0};
	if (!fuzzing_thread())
		real_nanosleep(&t, nullptr);
	return 0;
}

int usleep(useconds_t usec)
{
	timespec t = {static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
	if (!fuzzing_thread())
		real_nanosleep(&t, nullptr);
	return 0;
}

int nanosleep(const timespec *request, timespec *remain)
{
	if (!fuzzing_thread())
		return real_nanosleep(request, remain);
	if (remain != nullptr)
		*remain = {};
	return 0;
}

// The pid comes from a pid file that an input can write.
int kill(pid_t pid, int sig) noexcept
{
	record("kill", hx::format("%d %d", static_cast<int>(pid), sig));
	return 0;
}

int clock_settime(clockid_t, const timespec *) noexcept
{
	record("clock_settime", "");
	return 0;
}

// Nothing in the daemon runs a program itself: reaching this is a finding.
int execve(const char *path, char *const[], char *const[]) noexcept
{
	record("execve", path);
	abort();
}
