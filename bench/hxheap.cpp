// libhxheap.so: preloaded into a server for the heap check of the
// benchmarks (never into the runs whose memory or time is reported).
//
// On SIGRTMIN+3 it appends one line to the file named by $HXHEAP_OUT:
//   "<bytes in use> <bytes in mmapped chunks> <bytes of the main arena>"
// from glibc's mallinfo2(), so the bench can tell memory that the program
// still holds (a leak grows the first figure) from pages the allocator keeps
// (fragmentation grows only the arena).  mallinfo2 takes the arena's lock, so
// the signal must come while the server is idle in its event loop, as the
// bench sends it: between loads.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>

namespace {

// Open for the life of the process it is preloaded into.
int out_fd = -1;

void report(int)
{
	struct mallinfo2 mi = mallinfo2();
	std::array<char, 128> line;
	int n = snprintf(line.data(), line.size(), "%zu %zu %zu\n", mi.uordblks, mi.hblkhd, mi.arena);
	if (n > 0 && write(out_fd, line.data(), static_cast<size_t>(n)) != n)
		return;
}

__attribute__((constructor)) void init()
{
	const char *path = getenv("HXHEAP_OUT");
	if (path == nullptr)
		return;
	out_fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
	if (out_fd < 0)
		return;
	struct sigaction sa = {};
	sa.sa_handler = report;
	sa.sa_flags = SA_RESTART;
	sigemptyset(&sa.sa_mask);
	sigaction(SIGRTMIN + 3, &sa, nullptr);
}

}  // namespace
