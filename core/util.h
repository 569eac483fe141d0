// Small utilities shared by every subsystem: bounded copies and formatting,
// shell commands, directories, processes, URL encoding and escaping.
#ifndef HX_CORE_UTIL_H
#define HX_CORE_UTIL_H

#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>

#include <string>
#include <string_view>

// Copies at most size-1 bytes, zero-terminates when size > 0; returns strlen(src).
size_t strlcpy(char *dst, const char *src, size_t size);

// vsnprintf, then buf[size-1] = 0 always; returns what vsnprintf returned.
int gwutil_snprintf(char *buf, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));
int gwutil_vsnprintf(char *buf, size_t size, const char *format, va_list args)
	__attribute__((format(printf, 3, 0)));

// Stores the last path component of path (the whole path when nothing
// follows its last '/'), at most 31 characters.
const char *setprogname(const char *path);
const char *getprogname();

// atoi without undefined behaviour: strtol, clamped to the range of int.
int gw_atoi(const char *text);

long time_get();
void getcurrenttime();

// system(command) with the default SIGCHLD disposition; returns its status.
int do_system(const std::string &command);
int do_system(const char *command);
// do_system of the formatted command when it is shorter than size bytes:
// 0 when it ran (whatever its status), -1 when it did not fit (nothing run).
int do_systemf(size_t size, const char *format, ...) __attribute__((format(printf, 2, 3)));
// Runs a script judged by its exit status: true when it exited 0.  One that
// did not exit (ended by a signal, or no shell) prints what and errno as it
// stands ("exit illegal [%d] %s").
bool script_succeeds(const char *command, const char *what);

// Creates every missing directory of path (at most 1023 bytes with a
// trailing '/'): 0, or -1.
int mkdirs(const char *path, mode_t mode);
// SIGTERM to the pid of a pid file: errno when it cannot be read, -1 with
// EINVAL for a pid that is not a positive int, else the result of kill().
int kill_pidfile(const char *path);
// A pid whose command name matches name in its first 15 characters, or 0.
// The scan of /proc resumes after the last match on the next call.
pid_t find_pid_by_name(const char *name);

char _q_x2c(char hex_up, char hex_low);
// Percent-encodes every byte outside letters, digits and - . / : @ \ _
std::string _q_urlencode(std::string_view data);
// Decodes "%XX" and '+' in place; returns the new length.
size_t _q_urldecode(std::string &text);
int str_match(const char *string, const char *prefix);
// 1 when text holds only characters the shell takes literally in an unquoted word.
int gwutil_shell_safe(const char *text);

#define ESCAPE_QUOTE     0x1
#define ESCAPE_SEMICOLON 0x2
#define ESCAPE_SLASH     0x4
#define ESCAPE_BACKSLASH 0x8
std::string _escape_delimiter(std::string_view string, unsigned int flags);

#endif
