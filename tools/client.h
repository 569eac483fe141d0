// One request to hxsrvd and its reply, as hxctl and the web bridge send it.
// Like the rest of tools/, it needs libc and json-c only.
#ifndef HX_TOOLS_CLIENT_H
#define HX_TOOLS_CLIENT_H

#include <sys/types.h>

#include <span>
#include <string_view>

#include "core/json.h"

namespace hx::tools {

// hxctl's exit statuses; the bridge maps them to HTTP.
enum Status : int {
	ok = 0,
	failed = 1,		// the reply's "result" is not "success"
	no_reply = 2,		// closed or timed out before a complete reply
	no_connection = 3,	// the request could not be delivered
};

// The monotonic clock in milliseconds.
long long now_ms();

// One read of fd into buf, waiting for it until deadline (of now_ms()): the
// length read, 0 at end of file, -1 on error, or -1 with errno ETIMEDOUT
// when nothing came in time.
ssize_t read_by(int fd, long long deadline, std::span<char> buf);

// Sends request in one write to the socket at path and reads one complete
// JSON value within timeout seconds: ok with reply (empty for a literal
// null), no_connection or no_reply with the reason printed on stderr.
int exchange(const char *path, int timeout, std::string_view request, json::Ptr &reply);

}  // namespace hx::tools

#endif
