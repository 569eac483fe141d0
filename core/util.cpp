/* Part 1.3: utility functions. */
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "core/log.h"
#include "core/util.h"

#define PROGNAME_SIZE  32
#define MKDIRS_BUFSIZE 1024
#define PIDFILE_LINE   256
#define PROC_STAT_MAX  1024
#define COMM_MATCH_LEN 15

/* The "%1024s" of proc_comm bounds the name to the text it is read from. */
static_assert(PROC_STAT_MAX == 1024, "proc_comm scans at most 1024 characters");

static char progname[PROGNAME_SIZE];

/* The find_pid_by_name cursor: kept open between calls (Part 1.3). */
static DIR *proc_dir;

/* glibc 2.36 (Debian 12) has no strlcpy; same contract as the BSD one. */
size_t
strlcpy(char *dst, const char *src, size_t size)
{
	size_t len = strlen(src);

	if (size > 0) {
		size_t n = len < size - 1 ? len : size - 1;

		memcpy(dst, src, n);
		dst[n] = '\0';
	}
	return len;
}

int
gwutil_vsnprintf(char *buf, size_t size, const char *format, va_list args)
{
	int ret = vsnprintf(buf, size, format, args);

	if (size > 0)
		buf[size - 1] = '\0';
	return ret;
}

int
gwutil_snprintf(char *buf, size_t size, const char *format, ...)
{
	va_list args;
	int ret;

	va_start(args, format);
	ret = gwutil_vsnprintf(buf, size, format, args);
	va_end(args);
	return ret;
}

/* A null path leaves the stored name as it is. */
const char *
setprogname(const char *path)
{
	const char *slash;

	if (path == NULL)
		return progname;
	slash = strrchr(path, '/');
	if (slash != NULL && slash[1] != '\0')
		path = slash + 1;
	strlcpy(progname, path, sizeof(progname));
	return progname;
}

const char *
getprogname(void)
{
	return progname;
}

int
gw_atoi(const char *text)
{
	long value = strtol(text, NULL, 10);

	if (value > INT_MAX)
		return INT_MAX;
	if (value < INT_MIN)
		return INT_MIN;
	return (int)value;
}

long
time_get(void)
{
	struct timeval tv;

	gettimeofday(&tv, NULL);
	return (long)tv.tv_sec;
}

void
getcurrenttime(void)
{
	struct timeval tv;

	gettimeofday(&tv, NULL);
	_gw_debugx("tv_sec:%ld,tv_usec:%ld\n", (long)tv.tv_sec, (long)tv.tv_usec);
}

/* The daemon ignores SIGCHLD, which would make system() lose the status. */
int
do_system(const char *command)
{
	struct sigaction dfl, old;
	int status;

	memset(&dfl, 0, sizeof(dfl));
	dfl.sa_handler = SIG_DFL;
	sigemptyset(&dfl.sa_mask);
	sigaction(SIGCHLD, &dfl, &old);
	status = system(command);
	sigaction(SIGCHLD, &old, NULL);
	return status;
}

int
do_systemf(size_t size, const char *format, ...)
{
	va_list args;
	char *cmd;
	int len;

	va_start(args, format);
	len = vasprintf(&cmd, format, args);
	va_end(args);
	if (len < 0)
		return -1;
	if ((size_t)len < size)
		do_system(cmd);
	free(cmd);
	return (size_t)len < size ? 0 : -1;
}

/* 0 on success, -1 on failure; a path longer than the 1024-byte working
 * buffer (with its trailing '/') fails instead of being cut. */
int
mkdirs(const char *path, mode_t mode)
{
	char buf[MKDIRS_BUFSIZE];
	size_t len, i;

	if (path == NULL || path[0] == '\0')
		return -1;
	len = strlen(path);
	if (len + (path[len - 1] != '/') >= sizeof(buf))
		return -1;
	memcpy(buf, path, len + 1);
	if (buf[len - 1] != '/') {
		buf[len] = '/';
		buf[len + 1] = '\0';
	}
	for (i = 1; buf[i] != '\0'; i++) {
		if (buf[i] != '/')
			continue;
		buf[i] = '\0';
		if (access(buf, F_OK) != 0 && mkdir(buf, mode) != 0)
			return -1;
		buf[i] = '/';
	}
	return 0;
}

/* The pid must be a positive pid_t: 0 or a value that wraps to a negative
 * one would signal a whole process group or every process. */
static int
pidfile_parse(const char *line, pid_t *pid)
{
	unsigned long value = strtoul(line, NULL, 0);

	if (value == 0 || value > INT_MAX)
		return -1;
	*pid = (pid_t)value;
	return 0;
}

/* errno of a failed open or read (0 for an empty file); otherwise the
 * result of kill(pid, SIGTERM). */
int
kill_pidfile(const char *path)
{
	char line[PIDFILE_LINE];
	FILE *fp;
	pid_t pid;
	int ret;

	fp = fopen(path, "r");
	if (fp == NULL)
		return errno;
	errno = 0;
	if (fgets(line, sizeof(line), fp) == NULL) {
		ret = errno;
		fclose(fp);
		return ret;
	}
	fclose(fp);
	if (pidfile_parse(line, &pid) != 0) {
		errno = EINVAL;
		return -1;
	}
	return kill(pid, SIGTERM);
}

/* Reads /proc/PID/stat and extracts the command name into comm. */
static int
proc_comm(pid_t pid, char comm[PROC_STAT_MAX + 1])
{
	char path[64], text[PROC_STAT_MAX + 1];
	struct stat st;
	ssize_t n;
	char *paren;
	int fd;

	gwutil_snprintf(path, sizeof(path), "/proc/%d", (int)pid);
	if (stat(path, &st) != 0)
		return -1;
	gwutil_snprintf(path, sizeof(path), "/proc/%d/stat", (int)pid);
	fd = open(path, O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return -1;
	n = read(fd, text, PROC_STAT_MAX);
	close(fd);
	if (n <= 0)
		return -1;
	text[n] = '\0';
	paren = strrchr(text, ')');
	if (paren == NULL || paren[1] != ' ')
		return -1;
	*paren = '\0';
	return sscanf(text, "%*s (%1024s", comm) == 1 ? 0 : -1;
}

static pid_t
proc_dir_next(const char *name)
{
	char comm[PROC_STAT_MAX + 1];
	struct dirent *entry;
	pid_t pid;

	while ((entry = readdir(proc_dir)) != NULL) {
		if (entry->d_name[0] < '0' || entry->d_name[0] > '9')
			continue;
		pid = (pid_t)strtol(entry->d_name, NULL, 10);
		if (proc_comm(pid, comm) != 0)
			continue;
		if (strncmp(comm, name, COMM_MATCH_LEN) == 0)
			return pid;
	}
	closedir(proc_dir);
	proc_dir = NULL;
	return 0;
}

/* Resumable: after a match the stream stays open and the next call
 * continues after the matching entry (Part 1.3). */
pid_t
find_pid_by_name(const char *name)
{
	if (name == NULL)
		return 0;
	if (proc_dir == NULL) {
		proc_dir = opendir("/proc");
		if (proc_dir == NULL) {
			fputs("Can't open /proc", stdout);
			return 0;
		}
	}
	return proc_dir_next(name);
}

static unsigned int
hex_digit(char c)
{
	unsigned int code = (unsigned char)c;

	if (code < 'A')
		return code - '0';
	return (code & ~0x20u) - 'A' + 10;
}

/* Digits are not validated; the result is reduced to one byte. */
char
_q_x2c(char hex_up, char hex_low)
{
	unsigned int value = hex_digit(hex_up) * 16 + hex_digit(hex_low);

	return (char)(unsigned char)(value & 0xffu);
}

static bool url_safe_char(unsigned char c)
{
	return c != 0 && (isalnum(c) || strchr("-./:@\\_", c) != NULL);
}

char *
_q_urlencode(const unsigned char *data, size_t length)
{
	static const char hex[] = "0123456789abcdef";
	char *out, *p;
	size_t i;

	if (data == NULL)
		return NULL;
	if (length > (SIZE_MAX - 1) / 3)
		return NULL;
	out = (char *)malloc(length * 3 + 1);
	if (out == NULL)
		return NULL;
	p = out;
	for (i = 0; i < length; i++) {
		if (url_safe_char(data[i])) {
			*p++ = (char)data[i];
			continue;
		}
		*p++ = '%';
		*p++ = hex[data[i] >> 4];
		*p++ = hex[data[i] & 0x0f];
	}
	*p = '\0';
	return out;
}

/* A '%' followed by fewer than two characters is copied as it is. */
size_t
_q_urldecode(char *string)
{
	char *src, *dst;

	if (string == NULL)
		return 0;
	for (src = dst = string; *src != '\0'; src++, dst++) {
		if (*src == '%' && src[1] != '\0' && src[2] != '\0') {
			*dst = _q_x2c(src[1], src[2]);
			src += 2;
		} else if (*src == '+') {
			*dst = ' ';
		} else {
			*dst = *src;
		}
	}
	*dst = '\0';
	return (size_t)(dst - string);
}

/* Letters, digits and . _ - / : (DESIGN.md section 8): the empty text
 * passes; callers that need a word check that themselves. */
int
gwutil_shell_safe(const char *text)
{
	return text[strspn(text, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"
				 "abcdefghijklmnopqrstuvwxyz._-/:")] == '\0';
}

/* A null string or prefix gives 0. */
int
str_match(const char *string, const char *prefix)
{
	if (string == NULL || prefix == NULL)
		return 0;
	return strncmp(string, prefix, strlen(prefix)) == 0;
}

/* The replacement of c under flags, or NULL when c stays as it is. */
static const char *
escape_of(char c, unsigned int flags)
{
	if ((flags & ESCAPE_QUOTE) && c == '\'')
		return "'\\''";
	if ((flags & ESCAPE_SEMICOLON) && c == ';')
		return "/;";
	if ((flags & ESCAPE_SLASH) && c == '/')
		return "//";
	if ((flags & ESCAPE_BACKSLASH) && c == '\\')
		return "\\\\\\";
	return NULL;
}

char *
_escape_delimiter(const char *string, unsigned int flags)
{
	const char *s, *esc;
	size_t len = 0;
	char *out, *p;

	if (string == NULL)
		return NULL;
	for (s = string; *s != '\0'; s++) {
		esc = escape_of(*s, flags);
		len += esc != NULL ? strlen(esc) : 1;
	}
	out = (char *)calloc(len + 1, 1);
	if (out == NULL) {
		puts("_escape_delimiter: calloc failed");
		return NULL;
	}
	for (s = string, p = out; *s != '\0'; s++) {
		esc = escape_of(*s, flags);
		if (esc == NULL) {
			*p++ = *s;
			continue;
		}
		memcpy(p, esc, strlen(esc));
		p += strlen(esc);
	}
	return out;
}
