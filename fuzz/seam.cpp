/* See seam.h.  The linker takes these definitions before the C library's,
 * as tests/unit/testutil.c does for the unit tests; the daemon's code
 * reaches the shell only through system() and popen() (DESIGN.md 7). */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "fuzz/seam.h"

/* The sync worker runs its command on its own thread. */
static pthread_mutex_t ring_lock = PTHREAD_MUTEX_INITIALIZER;
static char ring[SEAM_RING_SIZE][SEAM_COMMAND_SIZE];
static unsigned long recorded;

static void
seam_record(const char *what, const char *command)
{
	pthread_mutex_lock(&ring_lock);
	snprintf(ring[recorded % SEAM_RING_SIZE], SEAM_COMMAND_SIZE, "%s %s", what,
		 command != NULL ? command : "(null)");
	recorded++;
	pthread_mutex_unlock(&ring_lock);
}

unsigned long
seam_count(void)
{
	unsigned long n;

	pthread_mutex_lock(&ring_lock);
	n = recorded;
	pthread_mutex_unlock(&ring_lock);
	return n;
}

const char *
seam_command(unsigned long n)
{
	const char *command = NULL;

	pthread_mutex_lock(&ring_lock);
	if (n < recorded && n < SEAM_RING_SIZE)
		command = ring[(recorded - 1 - n) % SEAM_RING_SIZE];
	pthread_mutex_unlock(&ring_lock);
	return command;
}

void
seam_require_sandbox(const char *target)
{
	if (getenv("HX_FUZZ_SANDBOX") == NULL ||
	    access("/usr/lib/hxsim/log-argv", X_OK) != 0) {
		fprintf(stderr, "%s: runs only inside the device sandbox (fuzz/run)\n",
			target);
		abort();
	}
}

/* A normal exit with status 0. */
int
system(const char *command)
{
	seam_record("system", command);
	return command == NULL ? 1 : 0;
}

/* An empty stream: the command printed nothing. */
FILE *
popen(const char *command, const char *type)
{
	static char empty[1];

	seam_record("popen", command);
	(void)type;
	return fmemopen(empty, 1, "r");
}

int
pclose(FILE *stream)
{
	return fclose(stream) == 0 ? 0 : -1;
}

/* The parent's side only: the child's path never runs. */
pid_t
fork(void)
{
	seam_record("fork", "");
	return 4242;
}

/* Sleeps on the fuzzing thread return at once; other threads (libFuzzer's
 * own, the daemon's workers) really sleep, or their loops would spin. */
static int
seam_main_thread(void)
{
	return gettid() == getpid();
}

static int
seam_real_nanosleep(const struct timespec *req, struct timespec *rem)
{
	return (int)syscall(SYS_nanosleep, req, rem);
}

unsigned int
sleep(unsigned int seconds)
{
	struct timespec ts = { (time_t)seconds, 0 };

	if (!seam_main_thread())
		seam_real_nanosleep(&ts, NULL);
	return 0;
}

int
usleep(useconds_t usec)
{
	struct timespec ts = { (time_t)(usec / 1000000), (long)(usec % 1000000) * 1000 };

	if (!seam_main_thread())
		seam_real_nanosleep(&ts, NULL);
	return 0;
}

int
nanosleep(const struct timespec *req, struct timespec *rem)
{
	if (!seam_main_thread())
		return seam_real_nanosleep(req, rem);
	if (rem != NULL)
		rem->tv_sec = rem->tv_nsec = 0;
	return 0;
}

/* kill_pidfile() signals the pid read from a file the fuzzer can write. */
int
kill(pid_t pid, int sig)
{
	char text[32];

	snprintf(text, sizeof(text), "%d %d", (int)pid, sig);
	seam_record("kill", text);
	return 0;
}

int
clock_settime(clockid_t clock, const struct timespec *ts)
{
	(void)clock;
	(void)ts;
	seam_record("clock_settime", "");
	return 0;
}

int
execve(const char *path, char *const argv[], char *const envp[])
{
	(void)argv;
	(void)envp;
	seam_record("execve", path);
	abort();	/* nothing in the daemon execs: reaching here is a finding */
}
