#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "benchutil.h"

uint64_t
bench_now_ns(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (uint64_t)ts.tv_sec * 1000000000u + (uint64_t)ts.tv_nsec;
}

void
bench_sleep_ns(uint64_t ns)
{
	struct timespec ts = { (time_t)(ns / 1000000000u), (long)(ns % 1000000000u) };

	while (nanosleep(&ts, &ts) != 0 && errno == EINTR)
		;
}

static int
u64_cmp(const void *a, const void *b)
{
	uint64_t x = *(const uint64_t *)a, y = *(const uint64_t *)b;

	return (x > y) - (x < y);
}

/* Nearest-rank percentile of sorted v: the smallest value with at least
 * p percent of the samples at or below it. */
static uint64_t
rank(const uint64_t *v, size_t n, unsigned int p)
{
	size_t k = (n * p + 99) / 100;

	return v[k > 0 ? k - 1 : 0];
}

void
bench_stats_calc(uint64_t *v, size_t n, struct bench_stats *st)
{
	double sum = 0;
	size_t i;

	memset(st, 0, sizeof(*st));
	if (n == 0)
		return;
	qsort(v, n, sizeof(*v), u64_cmp);
	for (i = 0; i < n; i++)
		sum += (double)v[i];
	st->n = n;
	st->median_ns = rank(v, n, 50);
	st->p99_ns = rank(v, n, 99);
	st->min_ns = v[0];
	st->max_ns = v[n - 1];
	st->mean_ns = sum / (double)n;
}

void
bench_stats_print(FILE *f, const struct bench_stats *st)
{
	fprintf(f, "\"n\": %zu, \"median_ns\": %llu, \"p99_ns\": %llu, \"max_ns\": %llu, "
		"\"min_ns\": %llu, \"mean_ns\": %.0f",
		st->n, (unsigned long long)st->median_ns, (unsigned long long)st->p99_ns,
		(unsigned long long)st->max_ns, (unsigned long long)st->min_ns, st->mean_ns);
}

long
json_end_feed(struct json_end *je, const char *p, size_t n)
{
	size_t i;

	for (i = 0; i < n; i++) {
		char c = p[i];

		if (je->in_string) {
			if (je->escape)
				je->escape = 0;
			else if (c == '\\')
				je->escape = 1;
			else if (c == '"')
				je->in_string = 0;
			continue;
		}
		if (!je->started) {
			if (c == '{') {
				je->started = 1;
				je->depth = 1;
			} else if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
				je->bad = 1;
				return -1;
			}
			continue;
		}
		if (c == '"')
			je->in_string = 1;
		else if (c == '{' || c == '[')
			je->depth++;
		else if ((c == '}' || c == ']') && --je->depth == 0)
			return (long)(i + 1);
	}
	return 0;
}

int
bench_connect(const char *path, int nonblock)
{
	struct sockaddr_un addr = {};
	addr.sun_family = AF_UNIX;
	int fd;

	if (strlen(path) >= sizeof(addr.sun_path)) {
		errno = ENAMETOOLONG;
		return -1;
	}
	strcpy(addr.sun_path, path);
	fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (nonblock ? SOCK_NONBLOCK : 0), 0);
	if (fd < 0)
		return -1;
	if (connect(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
		int e = errno;

		close(fd);
		errno = e;
		return -1;
	}
	return fd;
}

char *
bench_read_file(const char *path, size_t *len)
{
	int fd = open(path, O_RDONLY | O_CLOEXEC);
	struct stat st;
	char *buf = NULL;
	size_t got = 0;

	if (fd < 0)
		return NULL;
	if (fstat(fd, &st) != 0 || (buf = (char *)malloc((size_t)st.st_size + 1)) == NULL)
		goto fail;
	while (got < (size_t)st.st_size) {
		ssize_t r = read(fd, buf + got, (size_t)st.st_size - got);

		if (r < 0 && errno == EINTR)
			continue;
		if (r <= 0)
			goto fail;
		got += (size_t)r;
	}
	buf[got] = '\0';
	close(fd);
	*len = got;
	return buf;
fail:
	free(buf);
	close(fd);
	return NULL;
}

void
bench_die(const char *prog, const char *msg, int errno_too)
{
	if (errno_too)
		fprintf(stderr, "%s: %s: %s\n", prog, msg, strerror(errno));
	else
		fprintf(stderr, "%s: %s\n", prog, msg);
	exit(2);
}
