/* Part 1.3: the gw_* logging family; all entry points share gw_log(). */
#include <atomic>

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/log.h"
#include "core/util.h"

#define LOG_BUFSIZE     1024
#define LOG_ERRNO_LIMIT 1021

/* The only state shared between threads; atomic so that a concurrent
 * gw_set_log_callback is not a data race. */
static std::atomic<gw_log_callback_t> log_callback;

void
gw_set_log_callback(gw_log_callback_t callback)
{
	log_callback.store(callback);
}

static const char *
gw_log_tag(int level)
{
	switch (level) {
	case GW_LOG_DEBUG:
		return "debug";
	case GW_LOG_MSG:
		return "msg";
	case GW_LOG_WARN:
		return "warn";
	case GW_LOG_ERR:
		return "err";
	default:
		return "???";
	}
}

/* saved_errno is errno on entry to the public function, or -1 for the
 * functions that do not append the errno text. */
static void __attribute__((format(printf, 3, 0)))
gw_log(int level, int saved_errno, const char *format, va_list args)
{
	/* Zero-filled: a vsnprintf that fails half-way still leaves a string. */
	char buf[LOG_BUFSIZE] = "", errbuf[128];
	gw_log_callback_t callback;
	size_t len;

	if (format != NULL)
		gwutil_vsnprintf(buf, sizeof(buf), format, args);
	len = strlen(buf);
	if (saved_errno >= 0 && len < LOG_ERRNO_LIMIT)
		gwutil_snprintf(buf + len, sizeof(buf) - len, ": %s",
		    strerror_r(saved_errno, errbuf, sizeof(errbuf)));
	callback = log_callback.load();
	if (callback != NULL)
		callback(level, buf);
	else
		fprintf(stderr, "[%s] %s\n", gw_log_tag(level), buf);
}

void
gw_err(int status, const char *format, ...)
{
	int saved_errno = errno;
	va_list args;

	va_start(args, format);
	gw_log(GW_LOG_ERR, saved_errno, format, args);
	va_end(args);
	exit(status);
}

void
gw_errx(int status, const char *format, ...)
{
	va_list args;

	va_start(args, format);
	gw_log(GW_LOG_ERR, -1, format, args);
	va_end(args);
	exit(status);
}

void
gw_warn(const char *format, ...)
{
	int saved_errno = errno;
	va_list args;

	va_start(args, format);
	gw_log(GW_LOG_WARN, saved_errno, format, args);
	va_end(args);
	errno = saved_errno;
}

void
gw_warnx(const char *format, ...)
{
	int saved_errno = errno;
	va_list args;

	va_start(args, format);
	gw_log(GW_LOG_WARN, -1, format, args);
	va_end(args);
	errno = saved_errno;
}

void
gw_msgx(const char *format, ...)
{
	int saved_errno = errno;
	va_list args;

	va_start(args, format);
	gw_log(GW_LOG_MSG, -1, format, args);
	va_end(args);
	errno = saved_errno;
}

void
_gw_debugx(const char *format, ...)
{
	int saved_errno = errno;
	va_list args;

	va_start(args, format);
	gw_log(GW_LOG_DEBUG, -1, format, args);
	va_end(args);
	errno = saved_errno;
}
