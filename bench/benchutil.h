/* Shared helpers of the bench tools: clock, latency statistics, the end of
 * a bare JSON reply, and the daemon's socket framing. */
#ifndef HX_BENCHUTIL_H
#define HX_BENCHUTIL_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/* CLOCK_MONOTONIC in nanoseconds. */
uint64_t bench_now_ns(void);

/* Sleeps ns nanoseconds (restarted on EINTR). */
void bench_sleep_ns(uint64_t ns);

struct bench_stats {
	size_t n;
	uint64_t median_ns;	/* nearest rank */
	uint64_t p99_ns;	/* nearest rank */
	uint64_t max_ns;
	uint64_t min_ns;
	double mean_ns;
};

/* Sorts v in place and fills st; st is all zero when n is 0. */
void bench_stats_calc(uint64_t *v, size_t n, struct bench_stats *st);

/* Prints st as the members of a JSON object ("n": .., "median_ns": .., ...),
 * without the braces. */
void bench_stats_print(FILE *f, const struct bench_stats *st);

/* End of a bare JSON object on a stream: brace and bracket depth outside
 * strings, escapes skipped.  The reply of the daemon is one object with no
 * delimiter after it, so the reader has to find its end this way. */
struct json_end {
	int depth;
	int started;
	int in_string;
	int escape;
	int bad;		/* something other than white-space before the '{' */
};

/* Feeds n bytes; returns the number of bytes up to and including the
 * closing brace when the object is complete, 0 when more is needed, -1 when
 * the text cannot be a JSON object. */
long json_end_feed(struct json_end *je, const char *p, size_t n);

/* A connected Unix stream socket (blocking unless nonblock), or -1 with
 * errno set. */
int bench_connect(const char *path, int nonblock);

/* Reads a whole file into a NUL-terminated heap buffer; NULL on error. */
char *bench_read_file(const char *path, size_t *len);

/* Exits with status 2 after printing "PROG: message: strerror" if errno_too. */
void bench_die(const char *prog, const char *msg, int errno_too) __attribute__((noreturn));

#endif
