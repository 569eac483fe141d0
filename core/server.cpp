/* Part 1.2: client connection server. */
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "core/tree.h"
#include <event.h>
#include <json-c/json.h>

#include "core/console.h"
#include "core/hxassert.h"
#include "core/server.h"
#include "ipc/ipc.h"

#define LISTEN_BACKLOG   128
#define CLIENT_TIMEOUT   60
#define MIN_REQUEST_SIZE 8
#define ACCEPT_RETRY_SECONDS 1

struct client {
	int fd;
	struct bufferevent *bev;
	RB_ENTRY(client) link;
};

RB_HEAD(client_set, client);

unsigned int g_exiting;
static struct event_base *g_base;
static unsigned int debug;
static struct client_set clients = RB_INITIALIZER(&clients);
/* The accept pause: while no descriptor is free the listening event is off
 * (a level-triggered listener would call newclient again at once, for ever);
 * it comes back when a client is released or when the retry timer fires. */
static struct event *accept_ev;
static struct event accept_retry;
static unsigned int accept_paused;
static unsigned int accept_starved;
/* Held so that the console line of a shortage can still be written: the
 * console is opened per message, and at that moment no descriptor is free. */
static int accept_reserve = -1;

static int
client_cmp(const struct client *a, const struct client *b)
{
	uintptr_t x = (uintptr_t)a->bev, y = (uintptr_t)b->bev;

	return (x > y) - (x < y);
}

HX_RB_GENERATE_STATIC(client_set, client, link, client_cmp)

void
set_event_base(struct event_base *base)
{
	hx_assert("hxsrvd", ((void *)0) == g_base);
	g_base = base;
}

struct event_base *
get_event_base(void)
{
	return g_base;
}

int
server_init(struct event_base *base)
{
	set_event_base(base);
	return 0;
}

void
server_debug(unsigned int flag)
{
	debug = flag;
}

int
getsock(const char *path)
{
	struct sockaddr_un addr;
	socklen_t len;
	size_t n;
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

	if (fd < 0) {
		gw_console("failed to create socket file: %s\n", path);
		return -1;
	}
	memset(&addr, 0, sizeof(addr));
	addr.sun_family = AF_UNIX;
	n = strnlen(path, sizeof(addr.sun_path));
	memcpy(addr.sun_path, path, n);
	len = (socklen_t)(n + 2);
	if (len > sizeof(addr))
		len = sizeof(addr);
	unlink(path);
	if (bind(fd, (struct sockaddr *)&addr, len) != 0) {
		unlink(path);
		if (bind(fd, (struct sockaddr *)&addr, len) != 0) {
			gw_console("failed to bind socket file: %s\n", path);
			close(fd);
			return -1;
		}
	}
	return fd;
}

static void
reserve_take(void)
{
	if (accept_reserve < 0)
		accept_reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

static void
accept_resume(void)
{
	if (!accept_paused || g_exiting)
		return;
	reserve_take();
	accept_paused = 0;
	evtimer_del(&accept_retry);
	event_add(accept_ev, NULL);
}

static void
accept_retry_fired(evutil_socket_t fd, short events, void *arg)
{
	(void)fd;
	(void)events;
	(void)arg;
	accept_resume();
}

/* Stops accepting until a descriptor may be free again.  The console line of
 * Part 1.2 is written once per shortage, not once per failed retry. */
static void
accept_pause(void)
{
	struct timeval retry = { ACCEPT_RETRY_SECONDS, 0 };

	if (!accept_starved) {
		if (accept_reserve >= 0)
			close(accept_reserve);
		accept_reserve = -1;
		gw_console("failed to accept ipc connection\n");
		reserve_take();
	}
	accept_starved = 1;
	accept_paused = 1;
	event_del(accept_ev);
	evtimer_add(&accept_retry, &retry);
}

static int
accept_shortage(int err)
{
	return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

static void
byebye(struct bufferevent *bev, short what, void *arg)
{
	struct client find, *client;
	int fd;

	(void)arg;
	if (!(what & EVBUFFER_EOF)) {
		if (what & EVBUFFER_TIMEOUT)
			gw_console("client connection timed out\n");
		else if (what & EVBUFFER_READ)
			gw_console("read error on client connection\n");
		else if (what & EVBUFFER_WRITE)
			gw_console("write error on client connection\n");
		else if (what & EVBUFFER_ERROR)
			gw_console("error on client connection\n");
		else
			gw_console("unknown error on client connection: 0x%x\n", (int)what);
	}
	find.bev = bev;
	client = RB_FIND(client_set, &clients, &find);
	hx_assert("hxsrvd", ((void *)0) != client);
	RB_REMOVE(client_set, &clients, client);
	fd = client->fd;
	bufferevent_free(bev);
	close(fd);
	if (debug)
		printf("*** client %i went bye-bye\n", fd);
	free(client);
	accept_resume();
}

static void
ipc_resp_func(struct json_object *response, void *arg)
{
	struct client *client = static_cast<struct client *>(arg);
	struct evbuffer *out;

	hx_assert("hxsrvd", ((void *)0) != client);
	out = evbuffer_new();
	if (out == NULL)
		return;
	evbuffer_add_printf(out, "%s", json_object_to_json_string(response));
	if (bufferevent_write(client->bev, EVBUFFER_DATA(out), EVBUFFER_LENGTH(out)) != 0)
		gw_console("failed to buffer %i bytes of data for write\n",
			   (int)EVBUFFER_LENGTH(out));
	evbuffer_free(out);
}

static void
report_parse_failure(void)
{
	if (errno == EPERM)
		gw_console("unsupported protocol version\n");
	else if (errno == EINVAL)
		gw_console("protocol parse error\n");
	else
		gw_console("parsing failed\n");
}

/* libevent 2 freezes the end of a bufferevent's input buffer outside its
 * own reads, so it is thawed for the one zero byte. */
static int
input_terminate(struct evbuffer *input)
{
	int r;

	evbuffer_unfreeze(input, 0);
	r = evbuffer_add(input, "", 1);
	evbuffer_freeze(input, 0);
	return r;
}

/* A request must arrive whole in one read; the zero byte appended to make it
 * a C string stays in the buffer, so a second request on the same
 * connection fails to parse and closes it (Part 1.2). */
static void
doread(struct bufferevent *bev, void *arg)
{
	struct evbuffer *input = EVBUFFER_INPUT(bev);
	size_t len = EVBUFFER_LENGTH(input);
	const char *data;
	ssize_t r;

	hx_assert("hxsrvd", !g_exiting);
	if (input_terminate(input) != 0) {
		byebye(bev, EVBUFFER_ERROR, arg);
		return;
	}
	data = (const char *)EVBUFFER_DATA(input);
	if (debug) {
		printf("<<< %zu bytes from client: ", len);
		fwrite(data, 1, len, stdout);
		printf("\n");
	}
	if (len <= MIN_REQUEST_SIZE) {
		printf("Invalid input");
		evbuffer_drain(input, len);
		return;
	}
	r = ipc_request_exec_json(data, (ssize_t)len, ipc_resp_func, arg);
	if (g_exiting)
		return;
	if (r < 0) {
		report_parse_failure();
		byebye(bev, EVBUFFER_ERROR, arg);
	} else if (r > 0) {
		evbuffer_drain(input, (size_t)r);
	}
}

static void
noop(struct bufferevent *bev, void *arg)
{
	(void)bev;
	(void)arg;
}

static int
client_add(int fd)
{
	struct client *c = (struct client *)calloc(1, sizeof(*c)), *old;

	if (c == NULL) {
		gw_console("failed to allocate %i bytes of memory\n", (int)sizeof(*c));
		close(fd);
		return -1;
	}
	c->bev = bufferevent_new(fd, doread, noop, byebye, c);
	if (c->bev == NULL) {
		gw_console("failed to create bufferevent\n");
		close(fd);
		free(c);
		return -1;
	}
	bufferevent_base_set(g_base, c->bev);
	bufferevent_settimeout(c->bev, CLIENT_TIMEOUT, CLIENT_TIMEOUT);
	c->fd = fd;
	old = RB_INSERT(client_set, &clients, c);
	hx_assert_in("hxsrvd", "newclient", ((void *)0) == old);
	if (debug)
		printf("*** new client %i\n", fd);
	bufferevent_enable(c->bev, EV_READ);
	return 0;
}

static void
newclient(evutil_socket_t listen_fd, short events, void *arg)
{
	struct event *ev = static_cast<struct event *>(arg);
	int fd;

	(void)events;
	if (g_exiting) {
		event_del(ev);
		return;
	}
	while ((fd = accept4(listen_fd, NULL, NULL, SOCK_CLOEXEC)) >= 0) {
		accept_starved = 0;
		if (client_add(fd) != 0)
			return;
	}
	if (accept_shortage(errno))
		accept_pause();
	else if (errno != EAGAIN && errno != ECONNABORTED)
		gw_console("failed to accept ipc connection\n");
}

int
server_listen(int fd)
{
	struct event *ev;
	int flags;

	hx_assert("hxsrvd", ((void *)0) != g_base);
	flags = fcntl(fd, F_GETFL);
	if (flags < 0) {
		gw_console("failed to get flags on socket\n");
		return -1;
	}
	if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
		gw_console("failed to set flags on socket\n");
		return -1;
	}
	if (listen(fd, LISTEN_BACKLOG) != 0) {
		gw_console("failed to listen on socket\n");
		return -1;
	}
	ev = (struct event *)malloc(sizeof(*ev));
	if (ev == NULL) {
		gw_console("failed to allocate %i bytes of memory\n", (int)sizeof(*ev));
		return -1;
	}
	event_set(ev, fd, EV_READ | EV_PERSIST, newclient, ev);
	event_base_set(g_base, ev);
	event_add(ev, NULL);
	accept_ev = ev;
	reserve_take();
	evtimer_set(&accept_retry, accept_retry_fired, NULL);
	event_base_set(g_base, &accept_retry);
	return 0;
}

void
server_quit(void)
{
	struct client *c, *next;

	if (g_exiting)
		return;
	g_exiting = 1;
	for (c = RB_MIN(client_set, &clients); c != NULL; c = next) {
		next = RB_NEXT(client_set, &clients, c);
		byebye(c->bev, EVBUFFER_EOF, NULL);
	}
}
