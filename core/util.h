/* Part 1.3: utility functions. */
#ifndef HX_CORE_UTIL_H
#define HX_CORE_UTIL_H

#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>

/* Copies at most size-1 bytes, zero-terminates when size > 0; returns strlen(src). */
size_t strlcpy(char *dst, const char *src, size_t size);

/* vsnprintf, then buf[size-1] = 0 always; returns what vsnprintf returned. */
int gwutil_snprintf(char *buf, size_t size, const char *format, ...)
	__attribute__((format(printf, 3, 4)));
int gwutil_vsnprintf(char *buf, size_t size, const char *format, va_list args)
	__attribute__((format(printf, 3, 0)));

/* Stores the last path component of path (at most 31 characters). */
const char *setprogname(const char *path);
const char *getprogname(void);

/* atoi without undefined behaviour: strtol, clamped to the range of int. */
int gw_atoi(const char *text);

long time_get(void);
void getcurrenttime(void);

/* system(command) with the default SIGCHLD disposition; returns its status. */
int do_system(const char *command);
/* do_system of the formatted command when it is shorter than size bytes:
 * 0 when it ran (whatever its status), -1 when it did not fit (nothing run). */
int do_systemf(size_t size, const char *format, ...) __attribute__((format(printf, 2, 3)));

int mkdirs(const char *path, mode_t mode);
int kill_pidfile(const char *path);
/* Resumable scan of /proc: see Part 1.3. */
pid_t find_pid_by_name(const char *name);

char _q_x2c(char hex_up, char hex_low);
char *_q_urlencode(const unsigned char *data, size_t length);
size_t _q_urldecode(char *string);
int str_match(const char *string, const char *prefix);
/* 1 when text holds only characters the shell takes literally in an unquoted word. */
int gwutil_shell_safe(const char *text);

#define ESCAPE_QUOTE     0x1
#define ESCAPE_SEMICOLON 0x2
#define ESCAPE_SLASH     0x4
#define ESCAPE_BACKSLASH 0x8
char *_escape_delimiter(const char *string, unsigned int flags);

#endif
