/* What hxctl and sysconf share.  hxctl links json-c and nothing else, so
 * this needs nothing more than libc and json-c.  Messages start with the
 * program's name as err.h prints it (program_invocation_short_name). */
#ifndef HX_TOOLS_TOOLUTIL_H
#define HX_TOOLS_TOOLUTIL_H

#include <sysexits.h>

struct json_object;

/* The exit status after an allocation failure; each tool defines it. */
extern const int tool_out_of_memory_status;

/* Prints "PROG: message" and a pointer to --help on stderr; returns
 * EX_USAGE (64), the tools' usage status. */
int usage_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* The usage error of getopt_long's ':' (missing argument) or '?' (unknown
 * option), for an option string that starts with ':' and opterr 0. */
int option_error(int c, char **argv);

/* p, unless it is NULL: then "PROG: out of memory" ends the program with
 * tool_out_of_memory_status.  A short-lived tool has nothing to clean up,
 * and every caller would only pass the failure on. */
void *must_(void *p);
template <typename T> T *must(T *p) { return static_cast<T *>(must_(p)); }

/* 1 and *value set (NULL for null) when the whole of text is one strict
 * JSON value; 0 otherwise.  NaN and Infinity, which json-c takes even in
 * strict mode, are words, not JSON. */
int json_text(const char *text, struct json_object **value);

#endif
