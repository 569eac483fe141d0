#include "tests/unit/support.h"

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include "core/console.h"
#include "core/owned.h"

// Takes core/console.cpp's place: a test never writes to the host's console.
void gw_console(const char *, ...) {}

namespace hx::test {

TempDir::TempDir()
	: path_(std::string(getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/hxunitXXXXXX")
{
	if (mkdtemp(path_.data()) == nullptr)
		abort();
}

TempDir::~TempDir()
{
	if (DirPtr d = open_dir(path_.c_str()))
		while (dirent *e = readdir(d.get()))
			unlink(file(e->d_name).c_str());
	rmdir(path_.c_str());
}

std::string TempDir::write(std::string_view name, std::string_view contents) const
{
	FilePtr f = open_file(file(name).c_str(), "w");
	if (!f || fwrite(contents.data(), 1, contents.size(), f.get()) != contents.size())
		abort();
	return file(name);
}

}  // namespace hx::test
