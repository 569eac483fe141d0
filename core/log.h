// The gw_* logging family: "[tag] message" on standard error, or every
// message to one callback.
#ifndef HX_CORE_LOG_H
#define HX_CORE_LOG_H

#define GW_LOG_DEBUG 0
#define GW_LOG_MSG   1
#define GW_LOG_WARN  2
#define GW_LOG_ERR   3

typedef void (*gw_log_callback_t)(int level, const char *message);

// Routes all log output to callback(level, message); NULL restores stderr.
void gw_set_log_callback(gw_log_callback_t callback);

// gw_err and gw_warn append ": " and the text of errno as it was on entry.
// gw_err and gw_errx end the process with exit(status).
void gw_err(int status, const char *format, ...) __attribute__((format(printf, 2, 3), noreturn));
void gw_errx(int status, const char *format, ...) __attribute__((format(printf, 2, 3), noreturn));
void gw_warn(const char *format, ...) __attribute__((format(printf, 1, 2)));
void gw_warnx(const char *format, ...) __attribute__((format(printf, 1, 2)));
void gw_msgx(const char *format, ...) __attribute__((format(printf, 1, 2)));
void _gw_debugx(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
