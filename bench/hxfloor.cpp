// hxfloor: the floor server of the benchmarks.
//
// A minimal libevent Unix-socket server with hxsrvd's framing (listen
// backlog 128, one bufferevent per connection with 60 s read and write
// time-outs, a read of more than 8 bytes is one request, the reply is bare
// JSON and the server does not close) that answers every request with the
// same fixed bytes, read from REPLY (normally the daemon's own reply to the
// scenario, so the sizes match) without parsing or touching any store.  It
// uses the same libevent 1.4-style calls as the daemon.  SIGTERM or SIGINT
// ends it with status 0.
//
//   hxfloor -s SOCKET -r REPLY
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <event.h>

#include "bench/benchutil.h"

namespace {

constexpr const char *prog = "hxfloor";
constexpr int backlog = 128;
constexpr int timeout = 60;
constexpr size_t min_request = 8;

hx::bench::Bytes reply;
const char *sock_path;

using Connection = hx::Owned<bufferevent, bufferevent_free>;

// The loop owns each client from its accept to here: the buffered
// connection is freed first, then its descriptor (the argument) closed.
void closed(bufferevent *bev, short, void *arg)
{
	hx::UniqueFd fd(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
	Connection connection(bev);
}

void readable(bufferevent *bev, void *)
{
	evbuffer *in = EVBUFFER_INPUT(bev);
	size_t len = EVBUFFER_LENGTH(in);
	if (len > min_request)
		bufferevent_write(bev, reply.c_str(), reply.size());
	evbuffer_drain(in, len);
}

void written(bufferevent *, void *)
{
}

void accepted(evutil_socket_t lfd, short, void *arg)
{
	event_base *base = static_cast<event_base *>(arg);
	for (;;) {
		hx::UniqueFd fd(accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC));
		if (!fd)
			return;
		void *fd_arg = reinterpret_cast<void *>(static_cast<intptr_t>(fd.get()));
		Connection bev(bufferevent_new(fd.get(), readable, written, closed, fd_arg));
		if (!bev)
			continue;
		bufferevent_base_set(base, bev.get());
		bufferevent_settimeout(bev.get(), timeout, timeout);
		bufferevent_enable(bev.get(), EV_READ);
		// Until closed() takes them back.
		(void)bev.release();
		(void)fd.release();
	}
}

void stop(evutil_socket_t, short, void *)
{
	unlink(sock_path);
	exit(0);
}

int listen_on(const char *path)
{
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	if (fd < 0 || strlen(path) >= sizeof(addr.sun_path))
		hx::bench::die(prog, "socket", true);
	memcpy(addr.sun_path, path, strlen(path));
	unlink(path);
	if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || listen(fd, backlog) != 0)
		hx::bench::die(prog, path, true);
	return fd;
}

}  // namespace

int main(int argc, char *argv[])
{
	// Registered with the loop, which runs until exit.
	static event accept_ev, sig_ev[2];
	const char *reply_path = nullptr;
	int c;
	while ((c = getopt(argc, argv, "s:r:")) != -1) {
		if (c == 's')
			sock_path = optarg;
		else if (c == 'r')
			reply_path = optarg;
		else
			hx::bench::die(prog, "usage: hxfloor -s SOCKET -r REPLY", false);
	}
	if (sock_path == nullptr || reply_path == nullptr || optind != argc)
		hx::bench::die(prog, "usage: hxfloor -s SOCKET -r REPLY", false);
	if (!hx::bench::read_file(reply_path, reply))
		hx::bench::die(prog, reply_path, true);
	signal(SIGPIPE, SIG_IGN);
	event_base *base = event_init();
	event_set(&accept_ev, listen_on(sock_path), EV_READ | EV_PERSIST, accepted, base);
	event_base_set(base, &accept_ev);
	event_add(&accept_ev, nullptr);
	event_set(&sig_ev[0], SIGTERM, EV_SIGNAL | EV_PERSIST, stop, nullptr);
	event_set(&sig_ev[1], SIGINT, EV_SIGNAL | EV_PERSIST, stop, nullptr);
	for (event &ev : sig_ev) {
		event_base_set(base, &ev);
		event_add(&ev, nullptr);
	}
	event_base_dispatch(base);
	return 1;
}
