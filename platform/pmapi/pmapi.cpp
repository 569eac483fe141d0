/* libpmApi substitute: see pmApi.h for the protocol. */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "pmApi.h"

#define PMC_LINE 64

static int
pmc_connect(void)
{
	struct sockaddr_un addr;
	struct timeval tv = { PMC_TIMEOUT_MS / 1000, (PMC_TIMEOUT_MS % 1000) * 1000 };
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

	if (fd < 0)
		return -1;
	memset(&addr, 0, sizeof(addr));
	addr.sun_family = AF_UNIX;
	memcpy(addr.sun_path, PMC_SOCKET_PATH, sizeof(PMC_SOCKET_PATH));
	if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0 ||
	    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0 ||
	    connect(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
		close(fd);
		return -1;
	}
	return fd;
}

static int
pmc_send_all(int fd, const char *text, size_t len)
{
	ssize_t n;

	while (len > 0) {
		n = send(fd, text, len, MSG_NOSIGNAL);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return -1;
		text += n;
		len -= (size_t)n;
	}
	return 0;
}

/* Reads the reply line (without its newline) into reply; -1 when the
 * controller closes, times out or sends a line that does not fit. */
static int
pmc_read_line(int fd, char *reply, size_t size)
{
	size_t len = 0;
	ssize_t n;

	while (len + 1 < size) {
		n = recv(fd, reply + len, 1, 0);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return -1;
		if (reply[len] == '\n') {
			reply[len] = '\0';
			return 0;
		}
		len++;
	}
	return -1;
}

/* One request line, one reply line: 0 when both went through. */
static int
pmc_exchange(const char *request, char *reply, size_t size)
{
	int fd = pmc_connect();
	int ret;

	if (fd < 0)
		return -1;
	ret = pmc_send_all(fd, request, strlen(request));
	if (ret == 0)
		ret = pmc_read_line(fd, reply, size);
	close(fd);
	return ret;
}

static int
pmc_request_ok(const char *request)
{
	char reply[PMC_LINE];

	if (pmc_exchange(request, reply, sizeof(reply)) != 0)
		return -1;
	return strcmp(reply, "OK") == 0 ? 0 : -1;
}

int
pmc_ipc_send_message(int id)
{
	char request[PMC_LINE];

	snprintf(request, sizeof(request), "MSG %d\n", id);
	return pmc_request_ok(request);
}

int
pmc_ipc_send_message_with_param(int id, int32_t *param)
{
	char request[PMC_LINE];

	if (param == NULL)
		return -1;
	snprintf(request, sizeof(request), "MSG %d %" PRId32 "\n", id, *param);
	return pmc_request_ok(request);
}

int
pmc_get_system_status(int32_t *status)
{
	char reply[PMC_LINE];
	char *end;
	long value;

	if (status == NULL || pmc_exchange("STATUS\n", reply, sizeof(reply)) != 0)
		return -1;
	if (strncmp(reply, "OK ", 3) != 0)
		return -1;
	errno = 0;
	value = strtol(reply + 3, &end, 10);
	if (errno != 0 || end == reply + 3 || *end != '\0' || value < INT32_MIN ||
	    value > INT32_MAX)
		return -1;
	*status = (int32_t)value;
	return 0;
}
