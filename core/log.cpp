#include "core/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <atomic>

// The only state the threads share; atomic, so that setting it while
// another thread logs is not a data race.
static std::atomic<gw_log_callback_t> log_callback;

namespace {

// A message is cut to what this buffer holds; the errno text is appended
// only while the message leaves it room.
constexpr size_t message_size = 1024;
constexpr size_t errno_room = 1021;

const char *tag(int level)
{
	constexpr std::array<const char *, 4> tags = {"debug", "msg", "warn", "err"};
	return level >= 0 && level < static_cast<int>(tags.size()) ? tags[static_cast<size_t>(level)] : "???";
}

// errno is read here, unchanged since the public function's entry, and is
// left as it was.
__attribute__((format(printf, 3, 0))) void gw_log(int level, bool with_errno, const char *format, va_list args)
{
	int saved_errno = errno;
	std::array<char, message_size> message{};
	if (format != nullptr)
		vsnprintf(message.data(), message.size(), format, args);
	size_t len = strlen(message.data());
	if (with_errno && len < errno_room) {
		std::array<char, 128> text;
		snprintf(message.data() + len, message.size() - len, ": %s",
			 strerror_r(saved_errno, text.data(), text.size()));
	}
	if (gw_log_callback_t callback = log_callback.load())
		callback(level, message.data());
	else
		fprintf(stderr, "[%s] %s\n", tag(level), message.data());
	errno = saved_errno;
}

}  // namespace

void gw_set_log_callback(gw_log_callback_t callback) { log_callback.store(callback); }

// The body of every entry point: the arguments after format, logged at level.
#define GW_LOG_ARGS(level, with_errno) \
	va_list args; \
	va_start(args, format); \
	gw_log(level, with_errno, format, args); \
	va_end(args)

void gw_err(int status, const char *format, ...)
{
	GW_LOG_ARGS(GW_LOG_ERR, true);
	exit(status);
}

void gw_errx(int status, const char *format, ...)
{
	GW_LOG_ARGS(GW_LOG_ERR, false);
	exit(status);
}

void gw_warn(const char *format, ...) { GW_LOG_ARGS(GW_LOG_WARN, true); }
void gw_warnx(const char *format, ...) { GW_LOG_ARGS(GW_LOG_WARN, false); }
void gw_msgx(const char *format, ...) { GW_LOG_ARGS(GW_LOG_MSG, false); }
void _gw_debugx(const char *format, ...) { GW_LOG_ARGS(GW_LOG_DEBUG, false); }
