/* hxload: load generator that behaves like hxsrvd's real clients.
 *
 * Each request: connect to the Unix socket, send the request in one write,
 * read until the reply's JSON object is complete (its end is found by brace
 * depth outside strings: the daemon sends bare JSON and does not close),
 * then close.  With -c C, C clients do this at once.  With -H H, H idle
 * connections are opened gradually first and held open while measuring.
 *
 * Prints one JSON object: latency median, p99 and max, requests per second,
 * error counts; -L writes every measured latency (ns), one per line.
 *
 *   hxload [-s SOCKET] -f REQUESTS [-n N] [-w WARMUP] [-c CLIENTS]
 *          [-H HOLD [-P]] [-L FILE] [-o FILE] [-t MS] [-a | -m]
 *
 * REQUESTS holds one request per line; request k goes to line k mod lines.
 * The first reply to each line is parsed with json-c and must have "result"
 * "success" (unless -a); later replies to the line must have its size.
 * With -m (mixed requests, bench/soak) each line is "RESULT<TAB>REQUEST" and
 * every reply is parsed and must have that "result"; RESULT "-" means the
 * daemon closes the connection without a reply (a request that is not JSON).
 * Replies may then differ in size. */
#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <json-c/json.h>

#include "benchutil.h"

#define PROG "hxload"
#define READ_CHUNK 65536
#define MAX_LINES 128

/* A reply as received, NUL-terminated: the first reply to each line, and
 * with -m every reply (one buffer per client, reused). */
struct reply_buf {
	char *p;
	size_t len, cap;
};

static void
reply_append(struct reply_buf *b, const char *p, size_t n)
{
	if (b->cap - b->len < n + 1) {
		b->cap = (b->len + n + 1) * 2;
		b->p = (char *)realloc(b->p, b->cap);
		if (b->p == NULL)
			bench_die(PROG, "out of memory", 0);
	}
	memcpy(b->p + b->len, p, n);
	b->len += n;
	b->p[b->len] = '\0';
}

struct request {
	char *text;
	size_t len;
	struct reply_buf first;	/* the first reply; len 0 until it came */
	int taken;		/* a flight is capturing the first reply */
	int done;		/* the first reply is complete */
	const char *expect;	/* -m: the "result" every reply must have */
	int expect_close;	/* -m: closed without a reply */
};

struct counts {
	unsigned long connect_errors;	/* refused or failed, not EAGAIN */
	unsigned long eagain;		/* backlog full on connect; retried */
	unsigned long write_errors;
	unsigned long read_errors;
	unsigned long eof;		/* closed before a complete reply */
	unsigned long timeouts;
	unsigned long malformed;	/* not a JSON object */
	unsigned long trailing;		/* bytes after the object */
	unsigned long bad_result;	/* "result" not "success" (-m: not the expected) */
	unsigned long size_changed;	/* reply size differs from the first */
	unsigned long checked;		/* -m: replies with the expected result */
	unsigned long closed;		/* -m: closed without a reply, as expected */
};

struct load {
	const char *socket_path;
	struct request req[MAX_LINES];
	int lines;
	unsigned long n, warmup, clients, hold;
	int pause, any_result, mixed, timeout_ms;
	const char *lat_path, *reply_path;
	uint64_t *lat;
	size_t nlat;
	struct counts c;
	uint64_t t_start, t_end;
	int *held;
	unsigned long held_open, held_refused, held_eagain, held_closed;
	uint64_t hold_t0, hold_t1;
};

static void
usage(void)
{
	fputs("usage: hxload [-s SOCKET] -f REQUESTS [-n N] [-w WARMUP] [-c CLIENTS]\n"
	      "              [-H HOLD [-P]] [-L FILE] [-o FILE] [-t MS] [-a | -m]\n", stderr);
	exit(64);
}

/* -m: splits "RESULT<TAB>REQUEST" in place. */
static char *
split_expect(struct request *r, char *line)
{
	char *tab = strchr(line, '\t');

	if (tab == NULL)
		bench_die(PROG, "-m: a line must be RESULT<TAB>REQUEST", 0);
	*tab = '\0';
	r->expect = line;
	r->expect_close = strcmp(line, "-") == 0;
	return tab + 1;
}

static void
load_requests(struct load *L, const char *path)
{
	size_t len;
	char *text = bench_read_file(path, &len), *line, *save = NULL;

	if (text == NULL)
		bench_die(PROG, path, 1);
	for (line = strtok_r(text, "\n", &save); line != NULL; line = strtok_r(NULL, "\n", &save)) {
		struct request *r = &L->req[L->lines];

		if (*line == '\0')
			continue;
		if (L->lines == MAX_LINES)
			bench_die(PROG, "too many request lines", 0);
		r->text = L->mixed ? split_expect(r, line) : line;
		r->len = strlen(r->text);
		if (r->len <= 8)
			bench_die(PROG, "a request must be longer than 8 bytes", 0);
		L->lines++;
	}
	if (L->lines == 0)
		bench_die(PROG, "no request in the file", 0);
}

static void
check_first(struct load *L, struct request *r)
{
	struct json_object *o = json_tokener_parse(r->first.p), *res;

	if (o == NULL || !json_object_is_type(o, json_type_object)) {
		L->c.malformed++;
	} else if (!L->any_result && (!json_object_object_get_ex(o, "result", &res) ||
				      strcmp(json_object_get_string(res), "success") != 0)) {
		fprintf(stderr, "hxload: reply is not a success: %s\n", r->first.p);
		L->c.bad_result++;
	}
	json_object_put(o);
}

/* -m: the first few wrong replies are shown, then only counted. */
static void
mixed_mismatch(struct load *L, const struct request *r, const char *reply)
{
	if (L->c.bad_result + L->c.malformed + L->c.eof < 10)
		fprintf(stderr, "hxload: expected \"%s\" for %s, got: %s\n", r->expect, r->text,
			reply);
}

static void
check_mixed(struct load *L, const struct request *r, const struct reply_buf *b)
{
	struct json_object *o = json_tokener_parse(b->p), *res;

	if (o == NULL || !json_object_is_type(o, json_type_object)) {
		mixed_mismatch(L, r, b->p);
		L->c.malformed++;
	} else if (r->expect_close || !json_object_object_get_ex(o, "result", &res) ||
		   !json_object_is_type(res, json_type_string) ||
		   strcmp(json_object_get_string(res), r->expect) != 0) {
		mixed_mismatch(L, r, b->p);
		L->c.bad_result++;
	} else {
		L->c.checked++;
	}
	json_object_put(o);
}

/* State of one request in flight. */
struct flight {
	int fd;
	int line;
	unsigned long seq;
	uint64_t t0;
	size_t got;
	int capturing;
	struct json_end je;
	struct reply_buf *reply;	/* -m */
};

static int
flight_feed_mixed(struct load *L, struct flight *f, const char *buf, size_t n, long end)
{
	reply_append(f->reply, buf, end > 0 ? (size_t)end : n);
	f->got += end > 0 ? (size_t)end : n;
	if (end == 0)
		return 0;
	if ((size_t)end < n)
		L->c.trailing++;
	check_mixed(L, &L->req[f->line], f->reply);
	return 1;
}

/* Feeds received bytes; 1 when the reply is complete, 0 for more, -1 when
 * it is malformed. */
static int
flight_feed(struct load *L, struct flight *f, const char *buf, size_t n)
{
	struct request *r = &L->req[f->line];
	long end = json_end_feed(&f->je, buf, n);

	if (end < 0) {
		L->c.malformed++;
		return -1;
	}
	if (L->mixed)
		return flight_feed_mixed(L, f, buf, n, end);
	if (f->capturing)
		reply_append(&r->first, buf, end > 0 ? (size_t)end : n);
	f->got += end > 0 ? (size_t)end : n;
	if (end == 0)
		return 0;
	if ((size_t)end < n)
		L->c.trailing++;
	if (f->capturing) {
		r->done = 1;
		check_first(L, r);
	} else if (r->done && f->got != r->first.len) {
		L->c.size_changed++;
	}
	return 1;
}

static void
flight_begin(struct load *L, struct flight *f, unsigned long seq)
{
	struct reply_buf *reply = f->reply;

	memset(f, 0, sizeof(*f));
	f->reply = reply;
	if (reply != NULL)
		reply->len = 0;
	f->fd = -1;
	f->seq = seq;
	f->line = (int)(seq % (unsigned long)L->lines);
	f->capturing = !L->req[f->line].taken;
	L->req[f->line].taken = 1;
	if (seq == L->warmup)
		L->t_start = bench_now_ns();
	f->t0 = bench_now_ns();
}

static void
flight_done(struct load *L, struct flight *f)
{
	uint64_t t1 = bench_now_ns();

	if (f->seq >= L->warmup) {
		L->lat[L->nlat++] = t1 - f->t0;
		L->t_end = t1;
	}
}

/* A failed flight gives the capture of its line's first reply to the next. */
static void
flight_failed(struct load *L, struct flight *f)
{
	struct request *r = &L->req[f->line];

	if (f->capturing && !r->done) {
		r->taken = 0;
		r->first.len = 0;
	}
}

/* The end of the connection: 1 when -m expected it (no reply to a request
 * that is not JSON), else an error. */
static int
flight_eof(struct load *L, const struct flight *f)
{
	const struct request *r = &L->req[f->line];

	if (L->mixed && r->expect_close && f->got == 0) {
		L->c.closed++;
		return 1;
	}
	if (L->mixed)
		mixed_mismatch(L, r, f->got ? f->reply->p : "(closed, no reply)");
	L->c.eof++;
	return 0;
}

static int
send_request(struct load *L, int fd, const struct request *r)
{
	ssize_t w;

	do
		w = send(fd, r->text, r->len, MSG_NOSIGNAL);
	while (w < 0 && errno == EINTR);
	if (w != (ssize_t)r->len) {
		L->c.write_errors++;
		return -1;
	}
	return 0;
}

/* One request the way hxctl makes it: blocking connect, one write, poll and
 * read until the object is complete, close. */
static void
one_request(struct load *L, unsigned long seq)
{
	static char buf[READ_CHUNK];
	static struct reply_buf reply;
	struct flight f = {};
	f.reply = L->mixed ? &reply : NULL;
	int done = 0;

	flight_begin(L, &f, seq);
	f.fd = bench_connect(L->socket_path, 0);
	if (f.fd < 0) {
		L->c.connect_errors++;
		flight_failed(L, &f);
		return;
	}
	if (send_request(L, f.fd, &L->req[f.line]) != 0)
		goto out;
	while (!done) {
		struct pollfd pfd = { f.fd, POLLIN, 0 };
		int p = poll(&pfd, 1, L->timeout_ms);
		ssize_t r;

		if (p < 0 && errno == EINTR)
			continue;
		if (p == 0) {
			L->c.timeouts++;
			goto out;
		}
		r = read(f.fd, buf, sizeof(buf));
		if (r < 0 && errno == EINTR)
			continue;
		if (r < 0) {
			L->c.read_errors++;
			goto out;
		}
		if (r == 0) {
			done = flight_eof(L, &f);
			if (!done)
				goto out;
			break;
		}
		done = flight_feed(L, &f, buf, (size_t)r);
		if (done < 0)
			goto out;
	}
	flight_done(L, &f);
	close(f.fd);
	return;
out:
	flight_failed(L, &f);
	close(f.fd);
}

static void
run_serial(struct load *L)
{
	unsigned long seq, total = L->warmup + L->n;

	for (seq = 0; seq < total; seq++)
		one_request(L, seq);
}

/* Concurrent clients on one epoll set, non-blocking sockets.  A connect
 * that finds the backlog full (EAGAIN) is retried after 1 ms, the way a
 * blocking connect would wait; the latency counts from the first try. */
struct pool {
	struct load *L;
	int ep;
	struct flight *slots;
	unsigned long issued, finished, total;
};

static void
slot_close(struct pool *P, struct flight *f)
{
	if (f->fd >= 0) {
		epoll_ctl(P->ep, EPOLL_CTL_DEL, f->fd, NULL);
		close(f->fd);
		f->fd = -1;
	}
}

/* Connects slot f; 1 connected, 0 to be retried, -1 failed. */
static int
slot_connect(struct pool *P, struct flight *f)
{
	struct epoll_event ev = {};
	ev.events = EPOLLIN;
	ev.data.ptr = f;

	f->fd = bench_connect(P->L->socket_path, 1);
	if (f->fd < 0) {
		if (errno == EAGAIN) {
			P->L->c.eagain++;
			return 0;
		}
		P->L->c.connect_errors++;
		return -1;
	}
	if (send_request(P->L, f->fd, &P->L->req[f->line]) != 0 ||
	    epoll_ctl(P->ep, EPOLL_CTL_ADD, f->fd, &ev) != 0) {
		slot_close(P, f);
		return -1;
	}
	return 1;
}

/* Starts the next request in slot f, or leaves it idle (fd -1, seq ~0). */
static void
slot_next(struct pool *P, struct flight *f)
{
	while (P->issued < P->total) {
		flight_begin(P->L, f, P->issued++);
		if (slot_connect(P, f) >= 0)
			return;
		flight_failed(P->L, f);
		P->finished++;
	}
	f->fd = -1;
	f->seq = ~0ul;
}

static void
slot_finish(struct pool *P, struct flight *f, int ok)
{
	if (ok)
		flight_done(P->L, f);
	else
		flight_failed(P->L, f);
	slot_close(P, f);
	P->finished++;
	slot_next(P, f);
}

static void
slot_readable(struct pool *P, struct flight *f)
{
	static char buf[READ_CHUNK];

	for (;;) {
		ssize_t r = read(f->fd, buf, sizeof(buf));
		int done;

		if (r < 0 && errno == EINTR)
			continue;
		if (r < 0 && errno == EAGAIN)
			return;
		if (r <= 0) {
			int ok = r == 0 && flight_eof(P->L, f);

			if (r < 0)
				P->L->c.read_errors++;
			slot_finish(P, f, ok);
			return;
		}
		done = flight_feed(P->L, f, buf, (size_t)r);
		if (done != 0) {
			slot_finish(P, f, done > 0);
			return;
		}
	}
}

/* Retries pending connects and fails requests past the time-out. */
static int
pool_sweep(struct pool *P)
{
	uint64_t now = bench_now_ns(), limit = (uint64_t)P->L->timeout_ms * 1000000u;
	unsigned long i;
	int pending = 0;

	for (i = 0; i < P->L->clients; i++) {
		struct flight *f = &P->slots[i];

		if (f->seq == ~0ul)
			continue;
		if (now - f->t0 > limit) {
			P->L->c.timeouts++;
			slot_finish(P, f, 0);
			continue;
		}
		if (f->fd < 0) {
			int r = slot_connect(P, f);

			if (r < 0) {
				flight_failed(P->L, f);
				slot_close(P, f);
				P->finished++;
				slot_next(P, f);
			}
			pending |= r == 0;
		}
	}
	return pending;
}

static void
run_pool(struct load *L)
{
	struct pool P = {};
	P.L = L;
	P.total = L->warmup + L->n;
	struct epoll_event *evs;
	struct reply_buf *replies;
	unsigned long i;
	int pending = 0;

	P.ep = epoll_create1(EPOLL_CLOEXEC);
	P.slots = (struct flight *)calloc(L->clients, sizeof(*P.slots));
	evs = (struct epoll_event *)calloc(L->clients, sizeof(*evs));
	replies = (struct reply_buf *)calloc(L->clients, sizeof(*replies));
	if (P.ep < 0 || P.slots == NULL || evs == NULL || replies == NULL)
		bench_die(PROG, "epoll set", 1);
	for (i = 0; i < L->clients; i++) {
		P.slots[i].seq = ~0ul;
		P.slots[i].fd = -1;
		P.slots[i].reply = L->mixed ? &replies[i] : NULL;
		if (P.issued < P.total) {
			flight_begin(L, &P.slots[i], P.issued++);
			pending |= slot_connect(&P, &P.slots[i]) == 0;
		}
	}
	while (P.finished < P.total) {
		int n = epoll_wait(P.ep, evs, (int)L->clients, pending ? 1 : 100), k;

		if (n < 0 && errno != EINTR)
			bench_die(PROG, "epoll_wait", 1);
		for (k = 0; k < n; k++)
			slot_readable(&P, static_cast<struct flight *>(evs[k].data.ptr));
		pending = pool_sweep(&P);
	}
	close(P.ep);
	for (i = 0; i < L->clients; i++)
		free(replies[i].p);
	free(replies);
	free(P.slots);
	free(evs);
}

/* Opens the held connections gradually (batches of 32, 10 ms apart) so
 * that the accept backlog of 128 is never the limit; a connect that still
 * finds the backlog full is retried for up to 5 s. */
static void
hold_open(struct load *L)
{
	unsigned long i;

	L->held = (int *)calloc(L->hold, sizeof(*L->held));
	if (L->held == NULL)
		bench_die(PROG, "out of memory", 0);
	L->hold_t0 = bench_now_ns();
	for (i = 0; i < L->hold; i++) {
		uint64_t t0 = bench_now_ns();
		int fd;

		if (i > 0 && i % 32 == 0)
			bench_sleep_ns(10000000);
		while ((fd = bench_connect(L->socket_path, 1)) < 0 && errno == EAGAIN &&
		       bench_now_ns() - t0 < 5000000000u) {
			L->held_eagain++;
			bench_sleep_ns(1000000);
		}
		L->held[i] = fd;
		if (fd < 0)
			L->held_refused++;
		else
			L->held_open++;
	}
}

/* A held connection that has become readable was closed by the server. */
static void
hold_check_close(struct load *L)
{
	unsigned long i;

	for (i = 0; i < L->hold; i++) {
		struct pollfd pfd = { L->held[i], POLLIN | POLLRDHUP, 0 };

		if (L->held[i] < 0)
			continue;
		if (poll(&pfd, 1, 0) != 0)
			L->held_closed++;
		close(L->held[i]);
	}
	L->hold_t1 = bench_now_ns();
	free(L->held);
}

static void
pause_for_sample(struct load *L)
{
	char line[64];

	printf("{\"phase\": \"held\", \"held_open\": %lu, \"held_refused\": %lu}\n",
	       L->held_open, L->held_refused);
	fflush(stdout);
	if (fgets(line, sizeof(line), stdin) == NULL)
		return;
}

static void
write_outputs(struct load *L)
{
	if (L->lat_path != NULL) {
		FILE *f = fopen(L->lat_path, "w");
		size_t i;

		if (f == NULL)
			bench_die(PROG, L->lat_path, 1);
		for (i = 0; i < L->nlat; i++)
			fprintf(f, "%llu\n", (unsigned long long)L->lat[i]);
		if (fclose(f) != 0)
			bench_die(PROG, L->lat_path, 1);
	}
	if (L->reply_path != NULL && L->req[0].first.p != NULL) {
		FILE *f = fopen(L->reply_path, "w");

		if (f == NULL || fwrite(L->req[0].first.p, 1, L->req[0].first.len, f) !=
		    L->req[0].first.len || fclose(f) != 0)
			bench_die(PROG, L->reply_path, 1);
	}
}

static void
report(struct load *L)
{
	struct bench_stats st;
	double wall = L->t_end > L->t_start ? (double)(L->t_end - L->t_start) / 1e9 : 0;
	unsigned long errors = L->c.connect_errors + L->c.write_errors + L->c.read_errors +
			       L->c.eof + L->c.timeouts + L->c.malformed + L->c.trailing +
			       L->c.bad_result + L->c.size_changed;
	int i;

	write_outputs(L);
	bench_stats_calc(L->lat, L->nlat, &st);
	printf("{");
	bench_stats_print(stdout, &st);
	printf(", \"requested\": %lu, \"clients\": %lu, \"wall_s\": %.6f, \"rps\": %.1f, "
	       "\"errors\": %lu, \"connect_errors\": %lu, \"eagain\": %lu, \"write_errors\": %lu, "
	       "\"read_errors\": %lu, \"eof\": %lu, \"timeouts\": %lu, \"malformed\": %lu, "
	       "\"trailing\": %lu, \"bad_result\": %lu, \"size_changed\": %lu, \"checked\": %lu, "
	       "\"closed_as_expected\": %lu, \"reply_bytes\": [",
	       L->n, L->clients, wall, wall > 0 ? (double)st.n / wall : 0.0, errors,
	       L->c.connect_errors, L->c.eagain, L->c.write_errors, L->c.read_errors, L->c.eof,
	       L->c.timeouts, L->c.malformed, L->c.trailing, L->c.bad_result, L->c.size_changed,
	       L->c.checked, L->c.closed);
	for (i = 0; i < L->lines; i++)
		printf("%s%zu", i ? ", " : "", L->req[i].first.len);
	printf("]");
	if (L->hold)
		printf(", \"hold\": %lu, \"held_open\": %lu, \"held_refused\": %lu, "
		       "\"held_eagain\": %lu, \"held_closed_by_server\": %lu, \"hold_s\": %.3f",
		       L->hold, L->held_open, L->held_refused, L->held_eagain, L->held_closed,
		       (double)(L->hold_t1 - L->hold_t0) / 1e9);
	printf("}\n");
}

/* Enough descriptors for the held connections and the clients. */
static void
raise_fd_limit(struct load *L)
{
	struct rlimit rl;
	rlim_t need = (rlim_t)(L->hold + L->clients + 32);

	if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < need) {
		rl.rlim_cur = need <= rl.rlim_max ? need : rl.rlim_max;
		setrlimit(RLIMIT_NOFILE, &rl);
	}
}

static unsigned long
number(const char *s)
{
	char *end;
	unsigned long v = strtoul(s, &end, 10);

	if (*s == '\0' || *end != '\0')
		usage();
	return v;
}

int
main(int argc, char *argv[])
{
	struct load L = {};
	L.socket_path = "/var/tmp/socket";
	L.n = 1000;
	L.warmup = 100;
	L.clients = 1;
	L.timeout_ms = 10000;
	const char *reqs = NULL;
	int c;

	while ((c = getopt(argc, argv, "s:f:n:w:c:H:PL:o:t:am")) != -1) {
		switch (c) {
		case 's': L.socket_path = optarg; break;
		case 'f': reqs = optarg; break;
		case 'n': L.n = number(optarg); break;
		case 'w': L.warmup = number(optarg); break;
		case 'c': L.clients = number(optarg); break;
		case 'H': L.hold = number(optarg); break;
		case 'P': L.pause = 1; break;
		case 'L': L.lat_path = optarg; break;
		case 'o': L.reply_path = optarg; break;
		case 't': L.timeout_ms = (int)number(optarg); break;
		case 'a': L.any_result = 1; break;
		case 'm': L.mixed = 1; break;
		default: usage();
		}
	}
	if (reqs == NULL || optind != argc || L.clients == 0 || (L.mixed && L.any_result))
		usage();
	signal(SIGPIPE, SIG_IGN);
	load_requests(&L, reqs);
	raise_fd_limit(&L);
	L.lat = (uint64_t *)calloc(L.n + 1, sizeof(*L.lat));
	if (L.lat == NULL)
		bench_die(PROG, "out of memory", 0);
	if (L.hold) {
		hold_open(&L);
		if (L.pause)
			pause_for_sample(&L);
	}
	if (L.clients == 1)
		run_serial(&L);
	else
		run_pool(&L);
	if (L.hold)
		hold_check_close(&L);
	report(&L);
	return 0;
}
