#include "tests/unit/support.h"

#include <dirent.h>
#include <stdarg.h>
#include <stdlib.h>
#include <unistd.h>

#include <gdbm.h>

#include "core/console.h"
#include "core/owned.h"

// Takes core/console.cpp's place: messages are kept in memory.
static std::string captured;

void gw_console(const char *format, ...)
{
	char text[4096];
	va_list args;
	va_start(args, format);
	vsnprintf(text, sizeof(text), format, args);
	va_end(args);
	captured += text;
}

namespace hx::test {

std::string console() { return captured; }
void console_reset() { captured.clear(); }

TempDir::TempDir() : path_(std::string(getenv("TMPDIR") && *getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/hxunitXXXXXX")
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
	if (FilePtr f = open_file(file(name).c_str(), "w"); !f || fwrite(contents.data(), 1, contents.size(), f.get()) != contents.size())
		abort();
	return file(name);
}

void Stores::SetUp()
{
	for (auto [name, path, file] : {std::tuple{"DB_FILE", &sysconf, "sysconf.gdbm"}, {"RT_DB_FILE", &rtconf, "rtconf.gdbm"},
					{"INFO_DB_FILE", &sysinfo, "sysinfo.gdbm"}})
		setenv(name, (*path = dir.file(file)).c_str(), 1);
	console_reset();
}

void Stores::TearDown() { unsetenv("DB_FILE"), unsetenv("RT_DB_FILE"), unsetenv("INFO_DB_FILE"); }

void put_raw(const std::string &store, std::string_view key, std::string_view value)
{
	GDBM_FILE db = gdbm_open(store.c_str(), 0, GDBM_WRCREAT, 0664, nullptr);
	ASSERT_NE(db, nullptr) << store;
	datum k{const_cast<char *>(key.data()), static_cast<int>(key.size())}, v{const_cast<char *>(value.data()), static_cast<int>(value.size())};
	EXPECT_EQ(gdbm_store(db, k, v, GDBM_REPLACE), 0);
	gdbm_close(db);
}

std::optional<std::string> fetch(const std::string &store, std::string_view key)
{
	GDBM_FILE db = gdbm_open(store.c_str(), 0, GDBM_READER, 0, nullptr);
	std::string k = std::string(key) + '\0';
	datum v = db != nullptr ? gdbm_fetch(db, datum{k.data(), static_cast<int>(k.size())}) : datum{nullptr, 0};
	Owned<char, free> owner(v.dptr);
	if (db != nullptr)
		gdbm_close(db);
	return v.dptr != nullptr ? std::optional(std::string(v.dptr, static_cast<size_t>(v.dsize))) : std::nullopt;
}

}  // namespace hx::test
