// What the unit tests share: temporary stores, raw records, the captured
// console and standard output.  shell_guard.cpp refuses the shell.
#pragma once
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace hx::test {

// A mkdtemp directory under $TMPDIR (or /tmp), removed with its files.
class TempDir {
public:
	TempDir();
	~TempDir();
	const std::string &path() const { return path_; }
	std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }
	std::string write(std::string_view name, std::string_view contents) const;	// its path
private:
	std::string path_;
};

// DB_FILE, RT_DB_FILE and INFO_DB_FILE point into dir (no file made); the console starts empty.
class Stores : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;
	TempDir dir;
	std::string sysconf, rtconf, sysinfo;
};

// put_raw stores key and value as given, put with the NULs the daemon adds;
// fetch gives the bytes under key + NUL (nullopt: no record or no store).
void put_raw(const std::string &store, std::string_view key, std::string_view value);
inline void put(const std::string &store, std::string_view key, std::string_view value)
{
	put_raw(store, std::string(key) + '\0', std::string(value) + '\0');
}
std::optional<std::string> fetch(const std::string &store, std::string_view key);
std::string console();	// written since console_reset()
void console_reset();

template <typename F> std::string stdout_of(F &&f)	// at descriptor level
{
	fflush(stdout);
	::testing::internal::CaptureStdout();
	f();
	fflush(stdout);
	return ::testing::internal::GetCapturedStdout();
}

}  // namespace hx::test
