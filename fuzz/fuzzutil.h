// What the fuzz targets share: libFuzzer's entry points, the input as text,
// lines or a stream, and in-memory files for code that opens a path.
#ifndef HX_FUZZ_FUZZUTIL_H
#define HX_FUZZ_FUZZUTIL_H

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string>
#include <string_view>

#include "core/owned.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace hx::fuzz {

using Bytes = std::span<const uint8_t>;

inline std::string_view text(Bytes data)
{
	return {reinterpret_cast<const char *>(data.data()), data.size()};
}

// Each line of text without its newline, the last one too (empty when the
// text ends with a newline), whatever its length.
template <typename F>
void each_line(std::string_view text, F &&fn)
{
	for (;;) {
		size_t end = text.find('\n');
		fn(text.substr(0, end));
		if (end == std::string_view::npos)
			return;
		text.remove_prefix(end + 1);
	}
}

// data as a read-only stream (fmemopen); aborts when it cannot be made.
FilePtr stream(Bytes data);

// A target's property does not hold: says which and aborts, so libFuzzer
// keeps the input.
[[noreturn]] void fail(const char *what);

// An in-memory file (memfd) with a path, "/proc/self/fd/N".
class MemFile {
public:
	explicit MemFile(const char *name);	// aborts when it cannot
	const char *path() const { return path_.c_str(); }
	void set(Bytes data);			// aborts when it cannot
	std::string contents() const;		// aborts when it cannot

private:
	UniqueFd fd_;
	std::string path_;
};

}  // namespace hx::fuzz

#endif
