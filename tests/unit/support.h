// What the unit tests share: temporary stores, raw records, the captured
// console and output.  shell_guard.cpp refuses the shell in every unit test:
// a handler that reached it would run its command on the host.
#pragma once
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

namespace hx::test {

// A mkdtemp directory under $TMPDIR (or /tmp), removed with its files.
class TempDir {
public:
	TempDir();
	~TempDir();
	TempDir(const TempDir &) = delete;
	TempDir &operator=(const TempDir &) = delete;
	const std::string &path() const { return path_; }
	std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }
	std::string write(std::string_view name, std::string_view contents) const;	// its path
private:
	std::string path_;
};

// DB_FILE, RT_DB_FILE and INFO_DB_FILE point to a directory of their own
// (no file made); the console capture starts empty.
class Stores : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;
	TempDir dir;
	std::string sysconf, rtconf, sysinfo;
};

// put_raw stores key and value as given; put adds the NULs the daemon stores.
void put_raw(const std::string &store, std::string_view key, std::string_view value);
void put(const std::string &store, std::string_view key, std::string_view value);
// The bytes under key + NUL; nullopt when the record or the store is missing.
std::optional<std::string> fetch(const std::string &store, std::string_view key);
std::string console();	// written since console_reset()
void console_reset();

// What f() writes to standard output (descriptor level), or to standard error.
template <typename F> std::string stdout_of(F &&f)
{
	fflush(stdout);
	::testing::internal::CaptureStdout();
	f();
	fflush(stdout);
	return ::testing::internal::GetCapturedStdout();
}
template <typename F> std::string stderr_of(F &&f)
{
	::testing::internal::CaptureStderr();
	f();
	return ::testing::internal::GetCapturedStderr();
}

}  // namespace hx::test
