// The utility layer and the gw_* log family.
#include "core/util.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/fmt.h"
#include "core/log.h"
#include "tests/unit/support.h"

namespace {

bool is_dir(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A process running program (or a symlink naming it) with "60"; killed and reaped when it goes.
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
	int ended_by()	// the signal that ended it
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
	for (auto [text, n] : {std::pair{"15min", 15}, {"abc", 0}, {"-7", -7}, {"99999999999999999999", INT_MAX},
			       {"-99999999999999999999", INT_MIN}})
		EXPECT_EQ(gw_atoi(text), n) << text;
	EXPECT_EQ(str_match("hxsrvd", "hx") * 4 + str_match("hx", "hxsrvd") * 2 + str_match("abc", ""), 5);
	EXPECT_EQ(str_match(nullptr, "a"), 0);
	for (auto [text, safe] : {std::pair{"br0.1_a-b/c:d", 1}, {"", 1}, {"a b", 0}, {"a;b", 0}, {"$(x)", 0}, {"`x`", 0},
				  {"a'b", 0}, {"a\nb", 0}, {"a|b&", 0}})
		EXPECT_EQ(gwutil_shell_safe(text), safe) << text;
}

void on_sigchld(int) {}

// The status survives an ignored SIGCHLD; the caller's disposition is given back.
TEST(Util, SystemStatusSigchldAndBound)
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
	hx::test::TempDir dir;
	std::string path = dir.file("ran"), command = "touch " + path;
	EXPECT_EQ(do_systemf(command.size(), "touch %s", path.c_str()), -1);	// does not fit: not run
	EXPECT_NE(access(path.c_str(), F_OK), 0);
	EXPECT_EQ(do_systemf(command.size() + 1, "touch %s", path.c_str()), 0);
	EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

// With the '/' it adds, a path must leave a byte of 1024.
TEST(Util, Mkdirs)
{
	hx::test::TempDir dir;
	std::string base = dir.file("d");
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
	for (std::string p = path(1022); p.size() > dir.path().size(); p.resize(p.rfind('/')))
		rmdir(p.c_str());
	dir.write("plain", "x");
	for (const char *bad : {dir.file("plain/sub").c_str(), static_cast<const char *>(nullptr), ""})
		EXPECT_EQ(mkdirs(bad, 0755), -1);
	EXPECT_EQ(mkdirs("/", 0755), 0);
}

TEST(Util, KillPidfileSignalsThePidInAnyBase)
{
	hx::test::TempDir dir;
	for (int base : {10, 16, 8}) {
		Child child;
		auto pid = static_cast<unsigned int>(child.pid());
		std::string text = base == 10 ? hx::format("%u\n", pid) : base == 16 ? hx::format("0x%x\n", pid) : hx::format("0%o", pid);
		EXPECT_EQ(kill_pidfile(dir.write("pid", text).c_str()), 0) << text;
		EXPECT_EQ(child.ended_by(), SIGTERM) << text;
	}
}

TEST(Util, KillPidfileRefusals)
{
	hx::test::TempDir dir;
	EXPECT_EQ(kill_pidfile(dir.file("none").c_str()), ENOENT);
	EXPECT_EQ(kill_pidfile(dir.write("empty", "").c_str()), 0);
	// Pid 0 from a group of its own, and a pid that wraps to the child's: a regression signals only them.
	std::string zero = dir.write("zero", "0\n");
	EXPECT_EXIT({ setpgid(0, 0); exit(kill_pidfile(zero.c_str()) == -1 && errno == EINVAL ? 0 : 1); },
		    ::testing::ExitedWithCode(0), "");
	Child child;
	errno = 0;
	EXPECT_EQ(kill_pidfile(dir.write("wrap", hx::format("%llu\n", (1ULL << 32) + static_cast<unsigned int>(child.pid()))).c_str()), -1);
	EXPECT_EQ(errno, EINVAL);
	EXPECT_EQ(waitpid(child.pid(), nullptr, WNOHANG), 0);	// still running
}

// The kernel keeps 15 characters of a name; the scan resumes after a match,
// so one process is seen every other call.
TEST(Util, FindPidByName)
{
	hx::test::TempDir dir;
	std::string name = hx::format("hxts%d_long_name", static_cast<int>(getpid()));
	ASSERT_EQ(symlink("/bin/sleep", dir.file(name).c_str()), 0);
	Child child(dir.file(name));
	std::string search = name.substr(0, 15) + "ZZZ";
	for (int i = 0; i < 1000 && find_pid_by_name(search.c_str()) != 0; i++)
		continue;	// to the scan's end
	EXPECT_EQ(find_pid_by_name(search.c_str()), child.pid());
	EXPECT_EQ(find_pid_by_name(search.c_str()), 0);
	EXPECT_EQ(find_pid_by_name(search.c_str()), child.pid());
	EXPECT_EQ(find_pid_by_name(nullptr), 0);
}

TEST(Util, UrlEncoding)
{
	const std::string safe = "-./0123456789:@ABCDEFGHIJKLMNOPQRSTUVWXYZ\\_abcdefghijklmnopqrstuvwxyz";
	for (int c = 0; c < 256; c++) {
		std::string byte(1, static_cast<char>(c));
		EXPECT_EQ(_q_urlencode(byte), safe.find(byte) != std::string::npos ? byte : hx::format("%%%02x", c)) << c;
	}
	EXPECT_EQ(_q_urlencode("a b~"), "a%20b%7e");
	EXPECT_EQ(static_cast<unsigned char>(_q_x2c('2', 'f')), 0x2f);
	EXPECT_EQ(static_cast<unsigned char>(_q_x2c('F', 'f')), 0xff);
}

TEST(Util, UrlDecoding)
{
	const std::pair<std::string, std::string> cases[] = {
		{"a+b%2F", "a b/"}, {"%7e%7E", "~~"}, {"ab%", "ab%"}, {"ab%4", "ab%4"}, {"%41%", "A%"}, {"", ""},
	};
	for (auto [text, decoded] : cases) {
		EXPECT_EQ(_q_urldecode(text), decoded.size()) << text;
		EXPECT_EQ(text, decoded);
	}
	constexpr std::pair<unsigned int, std::string_view> escapes[] = {
		{0, "it's;a/b\\"}, {ESCAPE_QUOTE, "it'\\''s;a/b\\"}, {ESCAPE_SEMICOLON, "it's/;a/b\\"},
		{ESCAPE_SLASH, "it's;a//b\\"}, {ESCAPE_BACKSLASH, "it's;a/b\\\\\\"}, {0xF, "it'\\''s/;a//b\\\\\\"},
	};
	for (auto [flags, escaped] : escapes)
		EXPECT_EQ(_escape_delimiter(std::string_view("it's;a/b\\"), flags), escaped) << flags;
}

std::vector<std::pair<int, std::string>> logged;
void record(int level, const char *message) { logged.emplace_back(level, message); }

// "[tag] message" on stderr or to the callback; the errno text fits behind a
// message shorter than 1021 characters, a message is cut to 1023; errno is kept.
TEST(Log, StderrOrCallbackAndBuffer)
{
	auto log_all = [] {
		errno = EACCES;
		gw_warn("open %s", "/x");
		gw_warnx("plain %d", 2);
		gw_msgx("line\n");
		_gw_debugx("dbg");
		void (*warn)(const char *, ...) = gw_warn;	// without the format attribute, to pass NULL
		warn(nullptr);
	};
	EXPECT_EQ(hx::test::stderr_of(log_all),
		  "[warn] open /x: Permission denied\n[warn] plain 2\n[msg] line\n\n[debug] dbg\n[warn] : Permission denied\n");
	gw_set_log_callback(record);
	EXPECT_EQ(hx::test::stderr_of(log_all), "");
	EXPECT_EQ(logged, (std::vector<std::pair<int, std::string>>{{GW_LOG_WARN, "open /x: Permission denied"},
		{GW_LOG_WARN, "plain 2"}, {GW_LOG_MSG, "line\n"}, {GW_LOG_DEBUG, "dbg"}, {GW_LOG_WARN, ": Permission denied"}}));
	logged.clear();
	for (size_t len : {1020, 1021, 1050}) {
		errno = ENOENT;
		gw_warn("%s", std::string(len, 'a').c_str());
	}
	EXPECT_EQ(logged[0].second, std::string(1020, 'a') + ": N");
	EXPECT_EQ(logged[1].second, std::string(1021, 'a'));
	EXPECT_EQ(logged[2].second, std::string(1023, 'a'));
	errno = ENOENT;
	gw_warn("x%ls", L"\u00e9");	// fails in the C locale, setting errno
	EXPECT_EQ(errno, ENOENT);
	EXPECT_EQ(logged[3].second, "x: No such file or directory");
	gw_set_log_callback(nullptr);
	EXPECT_EXIT(gw_errx(7, "bye %d", 1), ::testing::ExitedWithCode(7), "^\\[err\\] bye 1\n$");
	EXPECT_EXIT({ gw_set_log_callback(record); errno = ENOENT; gw_err(5, "quit"); },
		    ::testing::ExitedWithCode(5), "^$");
}

}  // namespace
