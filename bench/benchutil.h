// What the bench tools share: clock, latency statistics, the end of a bare
// JSON reply, the daemon's socket framing, and memory on the C heap.
//
// The tools stay off the C++ runtime (built without exceptions; no
// std::string, containers or operator new): the floor must remain the
// smallest server, and a library that the client maps too would no longer
// count as the measured server's own memory.
#ifndef HX_BENCH_BENCHUTIL_H
#define HX_BENCH_BENCHUTIL_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <span>
#include <string_view>

#include "core/owned.h"

namespace hx::bench {

// Prints "PROG: message[: strerror]" and exits with status 2.
[[noreturn]] void die(const char *prog, const char *msg, bool with_errno);

// Growable bytes, always NUL-terminated.
class Bytes {
public:
	void append(std::string_view s);	// exits when out of memory
	void clear()
	{
		size_ = 0;
		if (data_)
			data_.get()[0] = '\0';
	}
	size_t size() const { return size_; }
	std::string_view view() const { return {c_str(), size_}; }
	const char *c_str() const { return data_ ? data_.get() : ""; }

private:
	Owned<char, free> data_;
	size_t size_ = 0, capacity_ = 0;
};

// n value-initialized Ts, fixed in number.
template <typename T>
class Array {
public:
	explicit Array(size_t n) : items_(static_cast<T *>(calloc(n > 0 ? n : 1, sizeof(T)))), n_(n)
	{
		if (!items_)
			die("bench", "out of memory", false);
		std::uninitialized_value_construct_n(items_.get(), n);
	}
	~Array() { std::destroy_n(items_.get(), n_); }
	Array(const Array &) = delete;
	Array &operator=(const Array &) = delete;

	T &operator[](size_t i) { return items_.get()[i]; }
	T *begin() { return items_.get(); }
	T *end() { return items_.get() + n_; }
	size_t size() const { return n_; }

private:
	Owned<T, free> items_;
	size_t n_;
};

// CLOCK_MONOTONIC in nanoseconds.
uint64_t now_ns();

// Sleeps ns nanoseconds (restarted on EINTR).
void sleep_ns(uint64_t ns);

struct Stats {
	size_t n = 0;
	uint64_t median_ns = 0;	// nearest rank
	uint64_t p99_ns = 0;	// nearest rank
	uint64_t max_ns = 0;
	uint64_t min_ns = 0;
	double mean_ns = 0;
};

// Sorts samples in place; all zero when there are none.
Stats stats(std::span<uint64_t> samples);

// Prints st as the members of a JSON object ("n": .., "median_ns": .., ...),
// without the braces.
void print(FILE *f, const Stats &st);

// The end of a bare JSON object on a stream: brace and bracket depth outside
// strings, escapes skipped.  The daemon's reply is one object with no
// delimiter after it, so the reader has to find its end this way.
class JsonEnd {
public:
	// Feeds bytes: the number up to and including the closing brace when the
	// object is complete, 0 when more is needed, -1 when the text cannot be
	// a JSON object.
	long feed(std::string_view bytes);

private:
	int depth_ = 1;		// the opening brace, once started
	bool started_ = false;
	bool in_string_ = false;
	bool escape_ = false;
};

// A connected Unix stream socket (blocking unless nonblock); none with
// errno set.
UniqueFd connect_unix(const char *path, bool nonblock);

// Appends the whole of a file to text; false with errno set.
bool read_file(const char *path, Bytes &text);

}  // namespace hx::bench

#endif
