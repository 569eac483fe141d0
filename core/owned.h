// Owners of the C resources the daemon holds: every FILE*, DIR*, pipe and
// descriptor is released by exactly one destructor, on every path.
#ifndef HX_CORE_OWNED_H
#define HX_CORE_OWNED_H

#include <dirent.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace hx {

// A deleter calling the C library's release function F (never on NULL).
template <auto F>
struct Release {
	template <typename T>
	void operator()(T *p) const noexcept { F(p); }
};

template <typename T, auto F>
using Owned = std::unique_ptr<T, Release<F>>;

using FilePtr = Owned<FILE, fclose>;
using PipePtr = Owned<FILE, pclose>;	// popen(3)
using DirPtr = Owned<DIR, closedir>;

inline FilePtr open_file(const char *path, const char *mode) { return FilePtr(fopen(path, mode)); }
inline PipePtr open_pipe(const char *command, const char *mode) { return PipePtr(popen(command, mode)); }
inline DirPtr open_dir(const char *path) { return DirPtr(opendir(path)); }

// fclose that reports what could not be written: false when the stream
// had an error or its buffer could not be flushed.  The file is closed
// either way.
inline bool close_file(FilePtr file)
{
	bool ok = ferror(file.get()) == 0;
	return fclose(file.release()) == 0 && ok;
}

// A move-only descriptor; -1 is "none".
class UniqueFd {
public:
	UniqueFd() = default;
	explicit UniqueFd(int fd) noexcept : fd_(fd) {}
	UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
	UniqueFd &operator=(UniqueFd &&other) noexcept
	{
		reset(other.release());
		return *this;
	}
	UniqueFd(const UniqueFd &) = delete;
	UniqueFd &operator=(const UniqueFd &) = delete;
	~UniqueFd() { reset(); }

	int get() const noexcept { return fd_; }
	explicit operator bool() const noexcept { return fd_ >= 0; }
	[[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
	void reset(int fd = -1) noexcept
	{
		if (fd_ >= 0)
			::close(fd_);
		fd_ = fd;
	}

private:
	int fd_ = -1;
};

}  // namespace hx

#endif
