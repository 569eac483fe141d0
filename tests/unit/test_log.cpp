// The gw_* logging family: "[tag] message" on stderr, or a callback; the
// 1024-byte message with its errno text; gw_err and gw_errx end the process.
#include "core/log.h"

#include <errno.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/unit/support.h"

namespace {

std::vector<std::pair<int, std::string>> logged;

void record(int level, const char *message) { logged.emplace_back(level, message); }

class Log : public ::testing::Test {
protected:
	void SetUp() override { logged.clear(); }
	void TearDown() override { gw_set_log_callback(nullptr); }
};

template <typename F>
std::string stderr_of(F &&f)
{
	::testing::internal::CaptureStderr();
	f();
	return ::testing::internal::GetCapturedStderr();
}

TEST_F(Log, StderrOrCallback)
{
	auto log_all = [] {
		errno = EACCES;
		gw_warn("open %s", "/x");
		gw_warnx("plain %d", 2);
		gw_msgx("line\n");
		_gw_debugx("dbg");
	};
	EXPECT_EQ(stderr_of(log_all),
		  "[warn] open /x: Permission denied\n[warn] plain 2\n[msg] line\n\n[debug] dbg\n");
	gw_set_log_callback(record);
	EXPECT_EQ(stderr_of(log_all), "");
	using Entry = std::pair<int, std::string>;
	EXPECT_EQ(logged, (std::vector<Entry>{{GW_LOG_WARN, "open /x: Permission denied"},
					     {GW_LOG_WARN, "plain 2"},
					     {GW_LOG_MSG, "line\n"},
					     {GW_LOG_DEBUG, "dbg"}}));
	gw_set_log_callback(nullptr);
	EXPECT_EQ(stderr_of([] { gw_msgx("back"); }), "[msg] back\n");
}

// The errno text fits behind a message shorter than 1021 characters; a
// message is cut to 1023.  errno is the one on entry, and is kept.
TEST_F(Log, MessageBufferAndErrno)
{
	gw_set_log_callback(record);
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
	EXPECT_THAT(logged[3].second, ::testing::EndsWith(": No such file or directory"));
}

TEST_F(Log, NullFormatIsAnEmptyMessage)
{
	// Through a pointer without the format attribute, to pass NULL.
	void (*warn)(const char *, ...) = gw_warn;
	errno = EACCES;
	EXPECT_EQ(stderr_of([&] { warn(nullptr); }), "[warn] : Permission denied\n");
}

void errx_exits() { gw_errx(7, "bye %d", 1); }
void err_exits()
{
	gw_set_log_callback([](int level, const char *message) { fprintf(stderr, "cb %d <%s>", level, message); });
	errno = ENOENT;
	gw_err(5, "quit");
}

TEST_F(Log, ErrEndsTheProcess)
{
	EXPECT_EXIT(errx_exits(), ::testing::ExitedWithCode(7), "^\\[err\\] bye 1\n$");
	EXPECT_EXIT(err_exits(), ::testing::ExitedWithCode(5), "^cb 3 <quit: No such file or directory>$");
}

}  // namespace
