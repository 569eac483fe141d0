// The utility layer: bounded copies, names, shell commands, directories,
// processes, URL encoding and escaping.
#include "core/util.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/fmt.h"
#include "core/owned.h"
#include "tests/unit/support.h"

namespace {

bool is_dir(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Removes the directories of path below base, deepest first.
void rmdirs(std::string path, const std::string &base)
{
	for (; path.size() > base.size(); path.resize(path.rfind('/')))
		rmdir(path.c_str());
}

// A process running program (or a symlink naming it) with "60"; killed and
// reaped when it goes.
class Child {
public:
	explicit Child(const std::string &program = "/bin/sleep")
	{
		int ready[2];
		if (pipe2(ready, O_CLOEXEC) != 0 || (pid_ = fork()) < 0)
			abort();
		if (pid_ == 0) {
			execl(program.c_str(), program.c_str(), "60", static_cast<char *>(nullptr));
			_exit(127);
		}
		close(ready[1]);
		char byte;
		EXPECT_EQ(read(ready[0], &byte, 1), 0);	// closed by the exec
		close(ready[0]);
	}
	~Child()
	{
		if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
			waitpid(pid_, nullptr, 0);
	}
	pid_t pid() const { return pid_; }
	// The signal that ended it, once it has ended.
	int ended_by()
	{
		int status = 0;
		waitpid(std::exchange(pid_, -1), &status, 0);
		return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
	}

private:
	pid_t pid_ = -1;
};

TEST(Util, BoundedTexts)
{
	char dst[8] = "XYZ";
	EXPECT_EQ(strlcpy(dst, "hello", 0), 5u);
	EXPECT_STREQ(dst, "XYZ");
	EXPECT_EQ(strlcpy(dst, "hello", 4), 5u);
	EXPECT_STREQ(dst, "hel");
	EXPECT_EQ(gwutil_snprintf(dst, sizeof(dst), "%s-%d", "abcdef", 123), 10);
	EXPECT_STREQ(dst, "abcdef-");
	EXPECT_STREQ(setprogname("/usr/sbin/hxsrvd"), "hxsrvd");
	EXPECT_STREQ(setprogname(nullptr), "hxsrvd");
	EXPECT_STREQ(setprogname("/usr/sbin/"), "/usr/sbin/");
	EXPECT_STREQ(setprogname("/bin/abcdefghijklmnopqrstuvwxyz0123456789"), "abcdefghijklmnopqrstuvwxyz01234");
	EXPECT_STREQ(getprogname(), "abcdefghijklmnopqrstuvwxyz01234");
	EXPECT_EQ(gw_atoi("15min"), 15);
	EXPECT_EQ(gw_atoi("abc"), 0);
	EXPECT_EQ(gw_atoi("-7"), -7);
	EXPECT_EQ(gw_atoi("99999999999999999999"), INT_MAX);
	EXPECT_EQ(gw_atoi("-99999999999999999999"), INT_MIN);
}

void on_sigchld(int) {}

// The status survives an ignored SIGCHLD, and the caller's disposition is
// given back whatever it was.
TEST(Util, SystemStatusAndSigchld)
{
	for (auto handler : {SIG_IGN, on_sigchld}) {
		struct sigaction mine = {}, old, now;
		mine.sa_handler = handler;
		sigaction(SIGCHLD, &mine, &old);
		int status = do_system(std::string("exit 3"));
		sigaction(SIGCHLD, &old, &now);
		EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
		EXPECT_EQ(now.sa_handler, handler);
	}
}

TEST(Util, SystemfRunsOnlyWhatFits)
{
	hx::test::TempDir dir;
	std::string path = dir.file("ran"), command = "touch " + path;
	EXPECT_EQ(do_systemf(command.size(), "touch %s", path.c_str()), -1);
	EXPECT_NE(access(path.c_str(), F_OK), 0);
	EXPECT_EQ(do_systemf(command.size() + 1, "touch %s", path.c_str()), 0);
	EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

// With the '/' it adds, a path must leave a byte of 1024: nothing is
// created for one that does not.
TEST(Util, Mkdirs)
{
	hx::test::TempDir dir;
	std::string base = dir.file("d");
	ASSERT_LT(base.size(), 700u);
	auto path = [&](size_t len) {	// components of at most 200 characters
		std::string p = base;
		while (len - p.size() > 201)
			p += "/" + std::string(200, 'd');
		return p + "/" + std::string(len - p.size() - 1, 'd');
	};
	EXPECT_EQ(mkdirs(path(1023).c_str(), 0755), -1);
	EXPECT_FALSE(is_dir(base));
	EXPECT_EQ(mkdirs(path(1022).c_str(), 0755), 0);
	EXPECT_TRUE(is_dir(path(1022)));
	EXPECT_EQ(mkdirs((path(1022) + "/").c_str(), 0755), 0);
	rmdirs(path(1022), dir.path());
	dir.write("plain", "x");
	EXPECT_EQ(mkdirs(dir.file("plain/sub").c_str(), 0755), -1);
	EXPECT_EQ(mkdirs("/", 0755), 0);
	EXPECT_EQ(mkdirs(nullptr, 0755), -1);
	EXPECT_EQ(mkdirs("", 0755), -1);
}

TEST(Util, KillPidfileSignalsThePidInAnyBase)
{
	hx::test::TempDir dir;
	for (int base : {10, 16, 8}) {
		Child child;
		auto pid = static_cast<unsigned int>(child.pid());
		std::string text = base == 10 ? hx::format("%u\n", pid)
				 : base == 16 ? hx::format("0x%x\n", pid) : hx::format("0%o", pid);
		EXPECT_EQ(kill_pidfile(dir.write("pid", text).c_str()), 0) << text;
		EXPECT_EQ(child.ended_by(), SIGTERM) << text;
	}
}

TEST(Util, KillPidfileRefusals)
{
	hx::test::TempDir dir;
	EXPECT_EQ(kill_pidfile(dir.file("none").c_str()), ENOENT);
	errno = EBADF;
	EXPECT_EQ(kill_pidfile(dir.write("empty", "").c_str()), 0);
	// Pid 0 from a process group of its own, and a pid that wraps to the
	// child's: a regression signals nothing but them.
	std::string zero = dir.write("zero", "0\n");
	EXPECT_EXIT(
		{
			setpgid(0, 0);
			exit(kill_pidfile(zero.c_str()) == -1 && errno == EINVAL ? 0 : 1);
		},
		::testing::ExitedWithCode(0), "");
	Child child;
	std::string wrap = hx::format("%llu\n", (1ULL << 32) + static_cast<unsigned int>(child.pid()));
	errno = 0;
	EXPECT_EQ(kill_pidfile(dir.write("wrap", wrap).c_str()), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(waitpid(child.pid(), nullptr, WNOHANG), 0);	// still running
}

// The scan to its end, so that the next call starts afresh.
void rewind_scan(const char *name)
{
	for (int i = 0; i < 1000 && find_pid_by_name(name) != 0; i++)
		continue;
}

// The kernel keeps 15 characters of a name, and the scan resumes after a
// match: one process is seen every other call.
TEST(Util, FindPidByName)
{
	hx::test::TempDir dir;
	std::string name = hx::format("hxts%d_long_name", static_cast<int>(getpid()));
	ASSERT_EQ(symlink("/bin/sleep", dir.file(name).c_str()), 0);
	Child child(dir.file(name));
	std::string search = name.substr(0, 15) + "ZZZ";
	rewind_scan(search.c_str());
	EXPECT_EQ(find_pid_by_name(search.c_str()), child.pid());
	EXPECT_EQ(find_pid_by_name(search.c_str()), 0);
	EXPECT_EQ(find_pid_by_name(search.c_str()), child.pid());
	EXPECT_EQ(find_pid_by_name(nullptr), 0);
	rewind_scan("hx-no-such-proc");
	EXPECT_EQ(find_pid_by_name("hx-no-such-proc"), 0);
}

TEST(Util, UrlEncoding)
{
	const std::string safe = "-./0123456789:@ABCDEFGHIJKLMNOPQRSTUVWXYZ\\_abcdefghijklmnopqrstuvwxyz";
	for (int c = 0; c < 256; c++) {
		std::string byte(1, static_cast<char>(c));
		bool kept = safe.find(byte) != std::string::npos;
		EXPECT_EQ(_q_urlencode(byte), kept ? byte : hx::format("%%%02x", c)) << c;
	}
	EXPECT_EQ(_q_urlencode("a b~"), "a%20b%7e");
	EXPECT_EQ(_q_urlencode(""), "");
	EXPECT_EQ(static_cast<unsigned char>(_q_x2c('2', 'f')), 0x2f);
	EXPECT_EQ(static_cast<unsigned char>(_q_x2c('F', 'f')), 0xff);
}

TEST(Util, UrlDecoding)
{
	const std::pair<std::string, std::string> cases[] = {
		{"a+b%2F", "a b/"}, {"%7e%7E", "~~"}, {"ab%", "ab%"}, {"ab%4", "ab%4"},
		{"%41%", "A%"}, {"", ""}, {"%zz", std::string(1, _q_x2c('z', 'z'))},	// not validated
	};
	for (auto [text, decoded] : cases) {
		EXPECT_EQ(_q_urldecode(text), decoded.size()) << text;
		EXPECT_EQ(text, decoded);
	}
}

TEST(Util, EscapeDelimiter)
{
	constexpr std::pair<unsigned int, std::string_view> cases[] = {
		{0, "it's;a/b\\"}, {ESCAPE_QUOTE, "it'\\''s;a/b\\"}, {ESCAPE_SEMICOLON, "it's/;a/b\\"},
		{ESCAPE_SLASH, "it's;a//b\\"}, {ESCAPE_BACKSLASH, "it's;a/b\\\\\\"}, {0xF, "it'\\''s/;a//b\\\\\\"},
	};
	for (auto [flags, escaped] : cases)
		EXPECT_EQ(_escape_delimiter(std::string_view("it's;a/b\\"), flags), escaped) << flags;
}

TEST(Util, PrefixAndShellWords)
{
	EXPECT_EQ(str_match("hxsrvd", "hx"), 1);
	EXPECT_EQ(str_match("hx", "hxsrvd"), 0);
	EXPECT_EQ(str_match("abc", ""), 1);
	EXPECT_EQ(str_match(nullptr, "a"), 0);
	EXPECT_EQ(gwutil_shell_safe("br0.1_a-b/c:d"), 1);
	EXPECT_EQ(gwutil_shell_safe(""), 1);
	for (const char *bad : {"a b", "a;b", "$(x)", "`x`", "a'b", "a\nb"})
		EXPECT_EQ(gwutil_shell_safe(bad), 0) << bad;
}

}  // namespace
