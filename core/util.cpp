#include "core/util.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "core/fmt.h"
#include "core/log.h"
#include "core/owned.h"

namespace {

constexpr size_t mkdirs_size = 1024;	// a path (with its '/') must leave room for the NUL
constexpr size_t pidfile_line = 256;
constexpr size_t proc_stat_size = 1024;
constexpr size_t comm_match = 15;	// the kernel keeps 15 characters of a command name

std::array<char, 32> progname;

// The cursor of find_pid_by_name, open between calls while a scan is under way.
hx::DirPtr proc_dir;

// Whether /proc/PID is a process whose command name matches name.
bool proc_named(const char *pid, const char *name)
{
	struct stat st;
	std::string dir = hx::format("/proc/%d", static_cast<int>(strtol(pid, nullptr, 10)));
	hx::UniqueFd fd(stat(dir.c_str(), &st) == 0 ? open((dir + "/stat").c_str(), O_RDONLY | O_CLOEXEC) : -1);
	std::array<char, proc_stat_size + 1> text, comm;
	ssize_t n = fd ? read(fd.get(), text.data(), proc_stat_size) : -1;
	if (n <= 0)
		return false;
	text[static_cast<size_t>(n)] = '\0';
	char *paren = strrchr(text.data(), ')');
	if (paren == nullptr || paren[1] != ' ')
		return false;
	*paren = '\0';
	static_assert(proc_stat_size == 1024, "the name is scanned within the text read");
	return sscanf(text.data(), "%*s (%1024s", comm.data()) == 1 && strncmp(comm.data(), name, comm_match) == 0;
}

unsigned int hex_digit(char c)
{
	auto code = static_cast<unsigned char>(c);
	return code < 'A' ? code - '0' : (code & ~0x20u) - 'A' + 10;
}

bool url_safe(char c)
{
	constexpr std::string_view safe = "-./0123456789:@ABCDEFGHIJKLMNOPQRSTUVWXYZ\\_abcdefghijklmnopqrstuvwxyz";
	return safe.find(c) != std::string_view::npos;
}

struct Escape {
	unsigned int flag;
	char c;
	const char *with;
};
// Tested in this order.  ';' and '/' are escaped by a slash, which is
// what the readers of these texts expect.
constexpr Escape escapes[] = {
	{ESCAPE_QUOTE, '\'', "'\\''"},	// ends a single-quoted word, adds a quote, reopens
	{ESCAPE_SEMICOLON, ';', "/;"},
	{ESCAPE_SLASH, '/', "//"},
	{ESCAPE_BACKSLASH, '\\', "\\\\\\"},
};

}  // namespace

// glibc 2.36 has no strlcpy; same contract as the BSD one.
size_t strlcpy(char *dst, const char *src, size_t size)
{
	size_t len = strlen(src);
	if (size > 0) {
		size_t n = len < size - 1 ? len : size - 1;
		memcpy(dst, src, n);
		dst[n] = '\0';
	}
	return len;
}

int gwutil_vsnprintf(char *buf, size_t size, const char *format, va_list args)
{
	int ret = vsnprintf(buf, size, format, args);
	if (size > 0)
		buf[size - 1] = '\0';
	return ret;
}

int gwutil_snprintf(char *buf, size_t size, const char *format, ...)
{
	va_list args;
	va_start(args, format);
	int ret = gwutil_vsnprintf(buf, size, format, args);
	va_end(args);
	return ret;
}

// A null path leaves the stored name as it is.
const char *setprogname(const char *path)
{
	if (path != nullptr) {
		const char *slash = strrchr(path, '/');
		strlcpy(progname.data(), slash != nullptr && slash[1] != '\0' ? slash + 1 : path, progname.size());
	}
	return progname.data();
}

const char *getprogname() { return progname.data(); }

int gw_atoi(const char *text)
{
	long value = strtol(text, nullptr, 10);
	return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

long time_get()
{
	timeval tv;
	gettimeofday(&tv, nullptr);
	return static_cast<long>(tv.tv_sec);
}

void getcurrenttime()
{
	timeval tv;
	gettimeofday(&tv, nullptr);
	_gw_debugx("tv_sec:%ld,tv_usec:%ld\n", static_cast<long>(tv.tv_sec), static_cast<long>(tv.tv_usec));
}

// The daemon ignores SIGCHLD, with which system() would lose the status.
int do_system(const char *command)
{
	struct sigaction dfl = {}, old;
	dfl.sa_handler = SIG_DFL;
	sigaction(SIGCHLD, &dfl, &old);
	int status = system(command);
	sigaction(SIGCHLD, &old, nullptr);
	return status;
}

int do_system(const std::string &command) { return do_system(command.c_str()); }

int do_systemf(size_t size, const char *format, ...)
{
	va_list args;
	va_start(args, format);
	std::string command = hx::vformat(format, args);
	va_end(args);
	if (command.size() >= size)
		return -1;
	do_system(command);
	return 0;
}

bool script_succeeds(const char *command, const char *what)
{
	int status = do_system(command);
	if (WIFEXITED(status))
		return WEXITSTATUS(status) == 0;
	puts(what);
	printf("exit illegal [%d] %s\n", errno, strerror(errno));
	return false;
}

// A path that does not fit fails before anything is created.
int mkdirs(const char *path, mode_t mode)
{
	if (path == nullptr || path[0] == '\0')
		return -1;
	std::string dir(path);
	if (dir.back() != '/')
		dir += '/';
	if (dir.size() >= mkdirs_size)
		return -1;
	for (size_t i = dir.find('/', 1); i != std::string::npos; i = dir.find('/', i + 1)) {
		dir[i] = '\0';
		if (access(dir.c_str(), F_OK) != 0 && mkdir(dir.c_str(), mode) != 0)
			return -1;
		dir[i] = '/';
	}
	return 0;
}

// A pid of 0, or one that wraps to a negative pid_t, would signal a whole
// process group or every process: refused.
int kill_pidfile(const char *path)
{
	hx::FilePtr file = hx::open_file(path, "r");
	if (!file)
		return errno;
	std::array<char, pidfile_line> line;
	errno = 0;
	if (fgets(line.data(), static_cast<int>(line.size()), file.get()) == nullptr)
		return errno;
	unsigned long pid = strtoul(line.data(), nullptr, 0);
	if (pid == 0 || pid > INT_MAX) {
		errno = EINVAL;
		return -1;
	}
	return kill(static_cast<pid_t>(pid), SIGTERM);
}

// After a match the stream stays open, so that pollers of one process see
// it at most every other call.
pid_t find_pid_by_name(const char *name)
{
	if (name == nullptr)
		return 0;
	if (!proc_dir && !(proc_dir = hx::open_dir("/proc"))) {
		fputs("Can't open /proc", stdout);
		return 0;
	}
	while (dirent *entry = readdir(proc_dir.get())) {
		if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9' && proc_named(entry->d_name, name))
			return static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
	}
	proc_dir.reset();
	return 0;
}

// The digits are not validated; the result is reduced to one byte.
char _q_x2c(char hex_up, char hex_low)
{
	return static_cast<char>((hex_digit(hex_up) * 16 + hex_digit(hex_low)) & 0xffu);
}

std::string _q_urlencode(std::string_view data)
{
	constexpr std::string_view hex = "0123456789abcdef";
	std::string out;
	out.reserve(data.size() * 3);
	for (char c : data) {
		auto byte = static_cast<unsigned char>(c);
		if (url_safe(c))
			out += c;
		else
			out.append({'%', hex[byte >> 4], hex[byte & 0xfu]});
	}
	return out;
}

// A '%' followed by fewer than two characters is copied as it is.
size_t _q_urldecode(std::string &text)
{
	size_t out = 0;
	for (size_t i = 0; i < text.size(); i++, out++) {
		if (text[i] == '%' && i + 2 < text.size()) {
			text[out] = _q_x2c(text[i + 1], text[i + 2]);
			i += 2;
		} else {
			text[out] = text[i] == '+' ? ' ' : text[i];
		}
	}
	text.resize(out);
	return out;
}

// Letters, digits and . _ - / : only; the empty text passes, callers that
// need a word check that themselves.
int gwutil_shell_safe(const char *text)
{
	return text[strspn(text, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz._-/:")] == '\0';
}

// A null string or prefix gives 0.
int str_match(const char *string, const char *prefix)
{
	return string != nullptr && prefix != nullptr && strncmp(string, prefix, strlen(prefix)) == 0;
}

std::string _escape_delimiter(std::string_view string, unsigned int flags)
{
	std::string out;
	for (char c : string) {
		auto escape = std::find_if(std::begin(escapes), std::end(escapes),
					   [&](const Escape &e) { return (flags & e.flag) && e.c == c; });
		if (escape != std::end(escapes))
			out += escape->with;
		else
			out += c;
	}
	return out;
}
