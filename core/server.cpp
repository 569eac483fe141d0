#include "core/server.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>


#include <map>
#include <new>
#include <utility>

#include "core/console.h"
#include "core/event.h"
#include "core/hxassert.h"
#include "core/json.h"
#include "core/owned.h"
#include "ipc/ipc.h"

using hx::EventPtr;
using BufferEvent = hx::BufferEventPtr;

// One accepted connection.  The bufferevent goes before its descriptor
// is closed (members are destroyed in reverse order).
struct client {
	hx::UniqueFd fd;
	BufferEvent bev;
};

unsigned int g_exiting;
static event_base *g_base;

namespace {

constexpr int listen_backlog = 128;
constexpr int client_timeout = 60;
constexpr size_t min_request = 8;
constexpr timeval accept_retry = {1, 0};

unsigned int debug;
// Every open connection, ordered by the address of its bufferevent.
std::map<bufferevent *, client> clients;

// While no descriptor is free the listening event is off (a level-triggered
// listener would call newclient again at once, for ever); it comes back when
// a client is released or when the retry timer fires.
struct Listener {
	EventPtr accept, retry;
	bool paused = false;
	bool starved = false;	// the console line of this shortage is written
	// Held so that the console, opened per message, can still be opened to
	// report the shortage when no other descriptor is free.
	hx::UniqueFd reserve;
} listener;

void reserve_take()
{
	if (!listener.reserve)
		listener.reserve.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

void accept_resume()
{
	if (!listener.paused || g_exiting)
		return;
	reserve_take();
	listener.paused = false;
	event_del(listener.retry.get());
	event_add(listener.accept.get(), nullptr);
}

void accept_pause()
{
	if (!listener.starved) {
		listener.reserve.reset();
		gw_console("failed to accept ipc connection\n");
		reserve_take();
	}
	listener.starved = listener.paused = true;
	event_del(listener.accept.get());
	event_add(listener.retry.get(), &accept_retry);
}

bool accept_shortage(int err)
{
	return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

void report_close(short what)
{
	constexpr std::pair<short, const char *> reasons[] = {
		{EVBUFFER_TIMEOUT, "client connection timed out\n"},
		{EVBUFFER_READ, "read error on client connection\n"},
		{EVBUFFER_WRITE, "write error on client connection\n"},
		{EVBUFFER_ERROR, "error on client connection\n"},
	};
	if (what & EVBUFFER_EOF)
		return;
	for (auto [bit, text] : reasons)
		if (what & bit)
			return gw_console("%s", text);
	gw_console("unknown error on client connection: 0x%x\n", static_cast<int>(what));
}

void report_parse_failure()
{
	const char *text = errno == EPERM ? "unsupported protocol version\n" : "parsing failed\n";
	gw_console("%s", errno == EINVAL ? "protocol parse error\n" : text);
}

int fail(const char *message)
{
	gw_console("%s", message);
	return -1;
}

}  // namespace

// The one routine that closes a connection.
static void byebye(bufferevent *bev, short what, void *)
{
	report_close(what);
	auto found = clients.find(bev);
	struct client *client = found != clients.end() ? &found->second : nullptr;
	hx_assert("hxsrvd", ((void *)0) != client);
	int fd = client->fd.get();
	clients.erase(found);
	if (debug)
		printf("*** client %i went bye-bye\n", fd);
	accept_resume();
}

static void ipc_resp_func(json_object *response, void *arg)
{
	auto *client = static_cast<struct client *>(arg);
	hx_assert("hxsrvd", ((void *)0) != client);
	const char *text = json_object_to_json_string(response);
	size_t len = text != nullptr ? strlen(text) : 0;
	if (text != nullptr && bufferevent_write(client->bev.get(), text, len) != 0)
		gw_console("failed to buffer %i bytes of data for write\n", static_cast<int>(len));
}

// A request must arrive whole in one read.  The zero byte appended to it
// stays in the buffer, so a second request on the same connection fails to
// parse and closes it: one request per connection.
static void doread(bufferevent *bev, void *arg)
{
	hx_assert("hxsrvd", !g_exiting);
	evbuffer *input = bufferevent_get_input(bev);
	size_t len = evbuffer_get_length(input);
	if (!hx::terminate_input(input))
		return byebye(bev, EVBUFFER_ERROR, arg);
	const char *data = reinterpret_cast<const char *>(evbuffer_pullup(input, -1));
	if (debug) {
		printf("<<< %zu bytes from client: ", len);
		fwrite(data, 1, len, stdout);
		printf("\n");
	}
	if (len <= min_request) {
		printf("Invalid input");
		evbuffer_drain(input, len);
		return;
	}
	ssize_t r = ipc_request_exec_json(data, static_cast<ssize_t>(len), ipc_resp_func, arg);
	if (g_exiting)
		return;
	if (r < 0) {
		report_parse_failure();
		byebye(bev, EVBUFFER_ERROR, arg);
	} else if (r > 0) {
		evbuffer_drain(input, static_cast<size_t>(r));
	}
}

// A connection stays open once its reply is flushed: the client closes it.
static void noop(bufferevent *, void *) {}

namespace {

// The record owns both; whatever fails on the way releases them.
bool client_add(hx::UniqueFd fd)
{
	BufferEvent bev(bufferevent_new(fd.get(), nullptr, nullptr, nullptr, nullptr));
	if (!bev) {
		gw_console("failed to create bufferevent\n");
		return false;
	}
	bufferevent_base_set(g_base, bev.get());
	bufferevent_settimeout(bev.get(), client_timeout, client_timeout);
	bufferevent *key = bev.get();
	int n = fd.get();
	try {
		auto [it, added] = clients.try_emplace(key, client{std::move(fd), std::move(bev)});
		struct client *old = added ? nullptr : &it->second;
		hx_assert_in("hxsrvd", "newclient", ((void *)0) == old);
		bufferevent_setcb(key, doread, noop, byebye, &it->second);
	} catch (const std::bad_alloc &) {
		gw_console("failed to allocate %i bytes of memory\n", static_cast<int>(sizeof(client)));
		return false;
	}
	if (debug)
		printf("*** new client %i\n", n);
	bufferevent_enable(key, EV_READ);
	return true;
}

}  // namespace

// arg is the listening event itself.
static void newclient(evutil_socket_t listen_fd, short, void *arg)
{
	if (g_exiting) {
		event_del(static_cast<event *>(arg));
		return;
	}
	int fd;
	while ((fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
		listener.starved = false;
		if (!client_add(hx::UniqueFd(fd)))
			return;
	}
	if (accept_shortage(errno))
		accept_pause();
	else if (errno != EAGAIN && errno != ECONNABORTED)
		gw_console("failed to accept ipc connection\n");
}

void set_event_base(event_base *base)
{
	hx_assert("hxsrvd", ((void *)0) == g_base);
	g_base = base;
}

event_base *get_event_base() { return g_base; }

int server_init(event_base *base)
{
	set_event_base(base);
	return 0;
}

void server_debug(unsigned int flag) { debug = flag; }

int getsock(const char *path)
{
	hx::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	if (!fd) {
		gw_console("failed to create socket file: %s\n", path);
		return -1;
	}
	sockaddr_un addr = {};
	addr.sun_family = AF_UNIX;
	size_t n = strnlen(path, sizeof(addr.sun_path));
	memcpy(addr.sun_path, path, n);
	auto len = static_cast<socklen_t>(n + 2);	// within sizeof(addr)
	auto *name = reinterpret_cast<sockaddr *>(&addr);
	unlink(path);
	if (bind(fd.get(), name, len) != 0) {
		unlink(path);
		if (bind(fd.get(), name, len) != 0) {
			gw_console("failed to bind socket file: %s\n", path);
			return -1;
		}
	}
	return fd.release();
}

int server_listen(int fd)
{
	hx_assert("hxsrvd", ((void *)0) != g_base);
	int flags = fcntl(fd, F_GETFL);
	if (flags < 0)
		return fail("failed to get flags on socket\n");
	if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
		return fail("failed to set flags on socket\n");
	if (listen(fd, listen_backlog) != 0)
		return fail("failed to listen on socket\n");
	listener.accept.reset(event_new(g_base, fd, EV_READ | EV_PERSIST, newclient, event_self_cbarg()));
	listener.retry.reset(evtimer_new(g_base, [](evutil_socket_t, short, void *) { accept_resume(); }, nullptr));
	if (!listener.accept || !listener.retry) {
		gw_console("failed to allocate %i bytes of memory\n", static_cast<int>(event_get_struct_event_size()));
		return -1;
	}
	event_add(listener.accept.get(), nullptr);
	reserve_take();
	return 0;
}

void server_quit()
{
	if (g_exiting)
		return;
	g_exiting = 1;
	for (auto it = clients.begin(); it != clients.end();) {
		bufferevent *bev = (it++)->first;
		byebye(bev, EVBUFFER_EOF, nullptr);
	}
}
