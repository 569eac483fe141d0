// See fuzzutil.h.
#include "fuzz/fuzzutil.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "core/fmt.h"

namespace hx::fuzz {
namespace {

[[noreturn]] void system_fail(const char *what)
{
	perror(what);
	abort();
}

}  // namespace

FilePtr stream(Bytes data)
{
	// fmemopen refuses a null buffer; an empty input may come as one.
	static uint8_t none;
	uint8_t *bytes = data.empty() ? &none : const_cast<uint8_t *>(data.data());
	FilePtr file(fmemopen(bytes, data.size(), "r"));
	if (!file)
		system_fail("fmemopen");
	return file;
}

void fail(const char *what)
{
	fprintf(stderr, "fuzz target: %s\n", what);
	abort();
}

MemFile::MemFile(const char *name) : fd_(memfd_create(name, MFD_CLOEXEC))
{
	if (!fd_)
		system_fail("memfd_create");
	path_ = format("/proc/self/fd/%d", fd_.get());
}

void MemFile::set(Bytes data)
{
	if (ftruncate(fd_.get(), 0) != 0 ||
	    (!data.empty() && pwrite(fd_.get(), data.data(), data.size(), 0) !=
				      static_cast<ssize_t>(data.size())))
		system_fail("memfile");
}

std::string MemFile::contents() const
{
	struct stat st;
	if (fstat(fd_.get(), &st) != 0)
		system_fail("memfile");
	std::string bytes(static_cast<size_t>(st.st_size), '\0');
	if (pread(fd_.get(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
		system_fail("memfile");
	return bytes;
}

}  // namespace hx::fuzz
