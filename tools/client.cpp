#include "tools/client.h"

#include <err.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <span>

#include "core/owned.h"
#include "tools/toolutil.h"

namespace hx::tools {
namespace {

using json::Ptr;

// A connected socket, or none with the reason printed.
UniqueFd connect_to(const char *path)
{
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	size_t len = strlen(path);
	if (len >= sizeof(addr.sun_path)) {
		warnx("cannot connect to %s: socket path too long", path);
		return {};
	}
	memcpy(addr.sun_path, path, len);
	UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	if (!fd || connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
		warn("cannot connect to %s", path);
		return {};
	}
	return fd;
}

// The daemon takes each read as one whole request, so the request goes out
// in one write; the write side stays open until the reply is read (the
// daemon closes on end of file and the reply would be lost).
int send_request(int fd, const char *path, std::string_view text)
{
	ssize_t n;
	do
		n = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
	while (n < 0 && errno == EINTR);
	if (n < 0) {
		warn("cannot send request to %s", path);
		return no_connection;
	}
	if (static_cast<size_t>(n) != text.size()) {
		warnx("cannot send request to %s: short write", path);
		return no_connection;
	}
	return ok;
}

// One chunk of the reply into buf: its length, 0 at end of file, -1 on
// time-out or error (reason printed).
ssize_t read_chunk(int fd, long long deadline, int timeout, std::span<char> buf)
{
	ssize_t n = read_by(fd, deadline, buf);
	if (n < 0 && errno == ETIMEDOUT)
		warnx("no reply after %d s", timeout);
	else if (n < 0)
		warn("cannot read reply");
	return n;
}

// Reads until one complete JSON value: ok with reply (empty for a literal
// null), or no_reply with the reason printed.
int read_reply(int fd, int timeout, Ptr &reply)
{
	Owned<json_tokener, json_tokener_free> tok(must(json_tokener_new()));
	long long deadline = now_ms() + static_cast<long long>(timeout) * 1000;
	std::array<char, 4096> buf;
	for (;;) {
		ssize_t n = read_chunk(fd, deadline, timeout, buf);
		if (n < 0)
			return no_reply;
		// At end of file a NUL completes a pending number; anything else is cut.
		reply.reset(n == 0 ? json_tokener_parse_ex(tok.get(), "", 1)
				   : json_tokener_parse_ex(tok.get(), buf.data(), static_cast<int>(n)));
		json_tokener_error err = json_tokener_get_error(tok.get());
		if (err == json_tokener_success)
			return ok;
		if (n == 0) {
			warnx("connection closed without a complete reply");
			return no_reply;
		}
		if (err != json_tokener_continue) {
			warnx("malformed reply: %s", json_tokener_error_desc(err));
			return no_reply;
		}
	}
}

}  // namespace

long long now_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

ssize_t read_by(int fd, long long deadline, std::span<char> buf)
{
	pollfd pfd = {fd, POLLIN, 0};
	int ready;
	do {
		long long left = deadline - now_ms();
		ready = left > 0 ? poll(&pfd, 1, static_cast<int>(left)) : 0;
	} while (ready < 0 && errno == EINTR);
	if (ready == 0)
		errno = ETIMEDOUT;
	if (ready <= 0)
		return -1;
	ssize_t n;
	do
		n = read(fd, buf.data(), buf.size());
	while (n < 0 && errno == EINTR);
	return n;
}

int exchange(const char *path, int timeout, std::string_view request, Ptr &reply)
{
	UniqueFd fd = connect_to(path);
	if (!fd)
		return no_connection;
	int status = send_request(fd.get(), path, request);
	return status == ok ? read_reply(fd.get(), timeout, reply) : status;
}

}  // namespace hx::tools
