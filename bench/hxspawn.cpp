// hxspawn: whole-process timings with fork and exec, as a shell runs them.
//
//   hxspawn [-n N] [-w W] CMD_A [ARG...] :: CMD_B [ARG...]
//     Runs A and B in turn (A, B, A, B ...), W times each unrecorded first,
//     then N times each: fork, execv, waitpid, with standard input, output
//     and error on /dev/null.  Prints {"a": {stats, "failed": F}, "b": {...}};
//     a run that does not exit with status 0 counts as failed.
//
//   hxspawn --startup SOCKET [-n N] [-w W] [-r REQUEST] CMD [ARG...]
//     Start-up time of a server: fork and exec CMD, then try to connect to
//     SOCKET every 20 us; "listen" is exec to the first connect that
//     succeeds, "reply" is exec to the complete reply to REQUEST sent on that
//     connection (so the connection was accepted and served).  Then SIGTERM
//     and waitpid.  Prints {"listen": {stats}, "reply": {stats}, "failed": F}.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string_view>

#include "bench/benchutil.h"

namespace {

using hx::bench::Array;
using hx::bench::now_ns;

constexpr const char *prog = "hxspawn";
constexpr uint64_t start_timeout_ns = 10000000000ull;
constexpr const char *default_request = "{\"method\": \"revalidate\", \"arguments\": {}}";

pid_t spawn(char **argv)
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
		hx::bench::die(prog, "fork", true);
	return pid;
}

int reap(pid_t pid)
{
	int status;
	while (waitpid(pid, &status, 0) < 0)
		if (errno != EINTR)
			hx::bench::die(prog, "waitpid", true);
	return status;
}

// Wall time of one run of argv; failed is bumped unless it exits 0.
uint64_t time_run(char **argv, unsigned long &failed)
{
	uint64_t t0 = now_ns();
	int status = reap(spawn(argv));
	uint64_t t1 = now_ns();
	if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
		failed++;
	return t1 - t0;
}

void print_stats(const char *name, std::span<uint64_t> v, unsigned long failed)
{
	printf("\"%s\": {", name);
	hx::bench::print(stdout, hx::bench::stats(v));
	printf(", \"failed\": %lu}, ", failed);
}

int compare(char **a, char **b, unsigned long n, unsigned long w)
{
	Array<uint64_t> ta(n), tb(n);
	unsigned long fa = 0, fb = 0, fw = 0;
	for (unsigned long i = 0; i < w; i++) {
		time_run(a, fw);
		time_run(b, fw);
	}
	for (unsigned long i = 0; i < n; i++) {
		// Alternate which one goes first, so neither always follows the other.
		if (i % 2 == 0) {
			ta[i] = time_run(a, fa);
			tb[i] = time_run(b, fb);
		} else {
			tb[i] = time_run(b, fb);
			ta[i] = time_run(a, fa);
		}
	}
	printf("{");
	print_stats("a", {ta.begin(), n}, fa);
	print_stats("b", {tb.begin(), n}, fb);
	printf("\"warmup_failed\": %lu}\n", fw);
	return 0;
}

// Sends request on fd and reads until the JSON object is complete.
bool ask(int fd, std::string_view request)
{
	hx::bench::JsonEnd end;
	std::array<char, 4096> buf;
	if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
		return false;
	for (;;) {
		pollfd pfd = {fd, POLLIN, 0};
		if (poll(&pfd, 1, 10000) <= 0)
			return false;
		ssize_t r = read(fd, buf.data(), buf.size());
		if (r <= 0)
			return false;
		if (long done = end.feed({buf.data(), static_cast<size_t>(r)}); done != 0)
			return done > 0;
	}
}

struct Start {
	uint64_t listen_ns = 0, reply_ns = 0;
};

// One start: its times, or nullopt.
std::optional<Start> start_once(char **argv, const char *sock, const char *request)
{
	unlink(sock);
	uint64_t t0 = now_ns();
	pid_t pid = spawn(argv);
	hx::UniqueFd fd;
	while (now_ns() - t0 < start_timeout_ns) {
		fd = hx::bench::connect_unix(sock, false);
		if (fd)
			break;
		if (waitpid(pid, nullptr, WNOHANG) == pid) {
			pid = -1;
			break;
		}
		hx::bench::sleep_ns(20000);
	}
	std::optional<Start> start;
	if (fd) {
		uint64_t listen_ns = now_ns() - t0;
		if (ask(fd.get(), request))
			start = Start{listen_ns, now_ns() - t0};
		fd.reset();
	}
	if (pid > 0) {
		kill(pid, SIGTERM);
		reap(pid);
	}
	return start;
}

int startup(char **argv, const char *sock, const char *request, unsigned long n, unsigned long w)
{
	Array<uint64_t> tl(n), tr(n);
	size_t got = 0;
	unsigned long failed = 0;
	for (unsigned long i = 0; i < w; i++)
		start_once(argv, sock, request);
	for (unsigned long i = 0; i < n; i++) {
		if (std::optional<Start> s = start_once(argv, sock, request)) {
			tl[got] = s->listen_ns;
			tr[got++] = s->reply_ns;
		} else {
			failed++;
		}
	}
	printf("{");
	print_stats("listen", {tl.begin(), got}, 0);
	print_stats("reply", {tr.begin(), got}, 0);
	printf("\"failed\": %lu}\n", failed);
	return 0;
}

unsigned long number(const char *s)
{
	char *end;
	unsigned long v = strtoul(s, &end, 10);
	if (*s == '\0' || *end != '\0')
		hx::bench::die(prog, "bad number", false);
	return v;
}

}  // namespace

int main(int argc, char *argv[])
{
	const char *sock = nullptr, *request = default_request;
	unsigned long n = 100, w = 5;
	int i = 1;
	for (; i < argc && argv[i][0] == '-'; i++) {
		std::string_view opt = argv[i];
		bool has_value = i + 1 < argc;
		if (opt == "--startup" && has_value)
			sock = argv[++i];
		else if (opt == "-n" && has_value)
			n = number(argv[++i]);
		else if (opt == "-w" && has_value)
			w = number(argv[++i]);
		else if (opt == "-r" && has_value)
			request = argv[++i];
		else
			hx::bench::die(prog, "usage: see the comment at the top of hxspawn.cpp", false);
	}
	if (i >= argc)
		hx::bench::die(prog, "no command", false);
	signal(SIGPIPE, SIG_IGN);
	if (sock != nullptr)
		return startup(argv + i, sock, request, n, w);
	int j = i;
	while (j < argc && strcmp(argv[j], "::") != 0)
		j++;
	if (j == i || j + 1 >= argc)
		hx::bench::die(prog, "usage: hxspawn [-n N] [-w W] CMD_A... :: CMD_B...", false);
	argv[j] = nullptr;
	return compare(argv + i, argv + j + 1, n, w);
}
