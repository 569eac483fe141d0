// What the GoogleTest unit tests share: temporary stores, raw records,
// captured console and standard output.  The shell is refused in every
// unit test (shell_guard.cpp): a handler that reached it would run its
// command on the host.
#ifndef HX_TEST_SUPPORT_H
#define HX_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

namespace hx::test {

// A directory made by mkdtemp under $TMPDIR (or /tmp), removed with its
// files (one level) when it goes.
class TempDir {
public:
	TempDir();
	~TempDir();
	TempDir(const TempDir &) = delete;
	TempDir &operator=(const TempDir &) = delete;

	const std::string &path() const { return path_; }
	std::string file(std::string_view name) const;
	// Writes contents to the file name and returns its path.
	std::string write(std::string_view name, std::string_view contents) const;

private:
	std::string path_;
};

// A fixture whose three stores live in a directory of their own:
// DB_FILE, RT_DB_FILE and INFO_DB_FILE point there (the files are not
// created) and the console capture starts empty.
class Stores : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;

	TempDir dir;
	std::string sysconf, rtconf, sysinfo;
};

// Writes one record with gdbm directly: key and value exactly as given,
// NULs included.
void put_raw(const std::string &store, std::string_view key, std::string_view value);
// Key = name + NUL, value = text + NUL, as the daemon stores them.
void put(const std::string &store, std::string_view key, std::string_view value);
// The bytes stored under key + NUL; nullopt when the record or the store is
// missing.
std::optional<std::string> fetch(const std::string &store, std::string_view key);

// What the daemon wrote to the console since the last reset.
std::string console();
void console_reset();

// What f() writes to standard output (descriptor level).
template <typename F>
std::string stdout_of(F &&f)
{
	fflush(stdout);
	::testing::internal::CaptureStdout();
	f();
	fflush(stdout);
	return ::testing::internal::GetCapturedStdout();
}

}  // namespace hx::test

#endif
