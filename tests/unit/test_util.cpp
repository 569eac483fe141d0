// The utility layer's bounds and refusals.
#include <errno.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/fmt.h"
#include "core/util.h"
#include "tests/unit/support.h"

namespace {

// With the '/' it adds, a path must leave a byte of 1024: nothing is made for one that does not.
TEST(Util, Mkdirs)
{
	hx::test::TempDir dir;
	auto path = [&](size_t len) {	// components of at most 200 characters
		std::string p = dir.file("d");
		while (len - p.size() > 201)
			p += "/" + std::string(200, 'd');
		return p + "/" + std::string(len - p.size() - 1, 'd');
	};
	struct stat st;
	EXPECT_EQ(mkdirs(path(1023).c_str(), 0755) + stat(dir.file("d").c_str(), &st), -2);
	EXPECT_EQ(mkdirs(path(1022).c_str(), 0755), 0);
	EXPECT_TRUE(stat(path(1022).c_str(), &st) == 0 && S_ISDIR(st.st_mode));
	for (std::string p = path(1022); p.size() > dir.path().size(); p.resize(p.rfind('/')))
		rmdir(p.c_str());
	EXPECT_EQ(mkdirs(dir.write("plain", "x").append("/sub").c_str(), 0755) + mkdirs("", 0755), -2);
}

// Pid 0 (from a group of its own) and a pid that wraps to the child's are refused.
TEST(Util, KillPidfileRefusals)
{
	hx::test::TempDir dir;
	EXPECT_EQ(kill_pidfile(dir.file("none").c_str()), ENOENT);
	std::string zero = dir.write("zero", "0\n");
	EXPECT_EXIT({ setpgid(0, 0); exit(kill_pidfile(zero.c_str()) == -1 && errno == EINVAL ? 0 : 1); }, ::testing::ExitedWithCode(0), "");
	pid_t child = fork();
	if (child == 0)
		execl("/bin/sleep", "sleep", "60", static_cast<char *>(nullptr));
	EXPECT_EQ(kill_pidfile(dir.write("wrap", hx::format("%llu\n", (1ULL << 32) + static_cast<unsigned>(child))).c_str()), -1);
	EXPECT_EQ(std::pair(errno, waitpid(child, nullptr, WNOHANG)), std::pair(EINVAL, 0));	// still running
	EXPECT_EQ(kill_pidfile(dir.write("pid", hx::format("0x%x\n", static_cast<unsigned>(child))).c_str()), 0);
	int status = 0;
	EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

// A command that does not leave its buffer a byte for the NUL is not run; a script succeeds by exit status 0 only.
TEST(Util, Commands)
{
	EXPECT_EQ(std::pair(do_systemf(6, "exit %d", 0), do_systemf(7, "exit %d", 0)), std::pair(-1, 0));
	EXPECT_EQ(std::pair(script_succeeds("exit 0", "x"), script_succeeds("exit 3", "x")), std::pair(true, false));
}

// The 69 characters of the safe set are kept; a "%" without two characters after it is copied.
TEST(Util, UrlEncoding)
{
	for (int c = 0; c < 256; c++)
		EXPECT_EQ(_q_urlencode(std::string(1, static_cast<char>(c))),
			  c != 0 && strchr("-./0123456789:@ABCDEFGHIJKLMNOPQRSTUVWXYZ\\_abcdefghijklmnopqrstuvwxyz", c) ? std::string(1, static_cast<char>(c)) : hx::format("%%%02x", c));
}

TEST(Util, UrlDecoding)
{
	for (auto [text, decoded] : {std::pair<std::string, std::string>{"a+b%2F", "a b/"}, {"%7e%7E", "~~"}, {"ab%", "ab%"}, {"ab%4", "ab%4"}, {"%41%", "A%"}})
	{
		size_t n = _q_urldecode(text);
		EXPECT_EQ(std::pair(n, text), std::pair(decoded.size(), decoded));
	}
}

}  // namespace
