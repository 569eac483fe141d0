/* hxfloor: the floor server of the benchmarks.
 *
 * A minimal libevent Unix-socket server with hxsrvd's framing (Part 1.2:
 * listen backlog 128, one bufferevent per connection with 60 s read and
 * write time-outs, a read of more than 8 bytes is one request, the reply is
 * bare JSON and the server does not close) that answers every request with
 * the same fixed bytes, read from REPLY (normally the daemon's own reply to
 * the scenario, so the sizes match) without parsing or touching any store.
 * It uses the same libevent 1.4-style calls as the daemon.  SIGTERM or
 * SIGINT ends it with status 0.
 *
 *   hxfloor -s SOCKET -r REPLY */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <event.h>

#include "benchutil.h"

#define PROG "hxfloor"
#define BACKLOG 128
#define TIMEOUT 60
#define MIN_REQUEST 8

static char *reply;
static size_t reply_len;
static const char *sock_path;

static void
closed(struct bufferevent *bev, short what, void *arg)
{
	int fd = (int)(intptr_t)arg;

	(void)what;
	bufferevent_free(bev);
	close(fd);
}

static void
readable(struct bufferevent *bev, void *arg)
{
	struct evbuffer *in = EVBUFFER_INPUT(bev);
	size_t len = EVBUFFER_LENGTH(in);

	(void)arg;
	if (len > MIN_REQUEST)
		bufferevent_write(bev, reply, reply_len);
	evbuffer_drain(in, len);
}

static void
written(struct bufferevent *bev, void *arg)
{
	(void)bev;
	(void)arg;
}

static void
accepted(evutil_socket_t lfd, short events, void *arg)
{
	struct event_base *base = static_cast<struct event_base *>(arg);
	int fd;

	(void)events;
	while ((fd = accept4(lfd, NULL, NULL, SOCK_CLOEXEC)) >= 0) {
		struct bufferevent *bev = bufferevent_new(fd, readable, written, closed,
							  (void *)(intptr_t)fd);

		if (bev == NULL) {
			close(fd);
			continue;
		}
		bufferevent_base_set(base, bev);
		bufferevent_settimeout(bev, TIMEOUT, TIMEOUT);
		bufferevent_enable(bev, EV_READ);
	}
}

static void
stop(evutil_socket_t sig, short events, void *arg)
{
	(void)sig;
	(void)events;
	(void)arg;
	unlink(sock_path);
	exit(0);
}

static int
listen_on(const char *path)
{
	struct sockaddr_un addr = {};
	addr.sun_family = AF_UNIX;
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);

	if (fd < 0 || strlen(path) >= sizeof(addr.sun_path))
		bench_die(PROG, "socket", 1);
	strcpy(addr.sun_path, path);
	unlink(path);
	if (bind(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0 || listen(fd, BACKLOG) != 0)
		bench_die(PROG, path, 1);
	return fd;
}

int
main(int argc, char *argv[])
{
	static struct event accept_ev, sig_ev[2];
	struct event_base *base;
	const char *reply_path = NULL;
	int c, fd;

	while ((c = getopt(argc, argv, "s:r:")) != -1) {
		if (c == 's')
			sock_path = optarg;
		else if (c == 'r')
			reply_path = optarg;
		else
			bench_die(PROG, "usage: hxfloor -s SOCKET -r REPLY", 0);
	}
	if (sock_path == NULL || reply_path == NULL || optind != argc)
		bench_die(PROG, "usage: hxfloor -s SOCKET -r REPLY", 0);
	reply = bench_read_file(reply_path, &reply_len);
	if (reply == NULL)
		bench_die(PROG, reply_path, 1);
	signal(SIGPIPE, SIG_IGN);
	base = event_init();
	fd = listen_on(sock_path);
	event_set(&accept_ev, fd, EV_READ | EV_PERSIST, accepted, base);
	event_base_set(base, &accept_ev);
	event_add(&accept_ev, NULL);
	event_set(&sig_ev[0], SIGTERM, EV_SIGNAL | EV_PERSIST, stop, NULL);
	event_set(&sig_ev[1], SIGINT, EV_SIGNAL | EV_PERSIST, stop, NULL);
	for (c = 0; c < 2; c++) {
		event_base_set(base, &sig_ev[c]);
		event_add(&sig_ev[c], NULL);
	}
	event_base_dispatch(base);
	return 1;
}
