// libpmApi substitute: see pmApi.h for the protocol.
#include "pmApi.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

namespace {

struct Socket {
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	Socket() = default;
	Socket(const Socket &) = delete;
	Socket &operator=(const Socket &) = delete;
	~Socket()
	{
		if (fd >= 0)
			close(fd);
	}
};

bool send_all(int fd, std::string_view text)
{
	while (!text.empty()) {
		ssize_t n = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return false;
		text.remove_prefix(static_cast<size_t>(n));
	}
	return true;
}

// One request line and the reply line without its newline; nullopt when no
// controller answers in time, it closes, or its line has 63 characters or
// more.
std::optional<std::string> exchange(std::string_view request)
{
	Socket s;
	timeval tv{PMC_TIMEOUT_MS / 1000, (PMC_TIMEOUT_MS % 1000) * 1000};
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	memcpy(addr.sun_path, PMC_SOCKET_PATH, sizeof(PMC_SOCKET_PATH));
	if (s.fd < 0 || setsockopt(s.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0 ||
	    setsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0 ||
	    connect(s.fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
	    !send_all(s.fd, request))
		return std::nullopt;
	std::string line;
	char c;
	while (line.size() < 63) {
		ssize_t n = recv(s.fd, &c, 1, 0);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return std::nullopt;
		if (c == '\n')
			return line;
		line += c;
	}
	return std::nullopt;
}

int request_ok(const std::string &request)
{
	std::optional<std::string> reply = exchange(request);
	return reply && *reply == "OK" ? 0 : -1;
}

}  // namespace

extern "C" int pmc_ipc_send_message(int id)
{
	return request_ok("MSG " + std::to_string(id) + "\n");
}

extern "C" int pmc_ipc_send_message_with_param(int id, int32_t *param)
{
	if (param == nullptr)
		return -1;
	return request_ok("MSG " + std::to_string(id) + " " + std::to_string(*param) + "\n");
}

extern "C" int pmc_get_system_status(int32_t *status)
{
	std::optional<std::string> reply = status != nullptr ? exchange("STATUS\n") : std::nullopt;
	if (!reply || !reply->starts_with("OK "))
		return -1;
	const char *digits = reply->c_str() + 3;
	char *end;
	errno = 0;
	long value = strtol(digits, &end, 10);
	if (errno != 0 || end == digits || *end != '\0' || value < INT32_MIN || value > INT32_MAX)
		return -1;
	*status = static_cast<int32_t>(value);
	return 0;
}
