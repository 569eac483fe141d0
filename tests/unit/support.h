// What the unit tests share: temporary directories.  support.cpp keeps the
// console off the host; shell_guard.cpp refuses the shell.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <string_view>

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

}  // namespace hx::test
