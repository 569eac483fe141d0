#include "bench/benchutil.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <string_view>

namespace hx::bench {

namespace {

// Nearest-rank percentile of sorted v: the smallest value with at least p
// percent of the samples at or below it.
uint64_t rank(std::span<const uint64_t> v, size_t p)
{
	size_t k = (v.size() * p + 99) / 100;
	return v[k > 0 ? k - 1 : 0];
}

}  // namespace

uint64_t now_ns()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

void sleep_ns(uint64_t ns)
{
	timespec ts = {static_cast<time_t>(ns / 1000000000u), static_cast<long>(ns % 1000000000u)};
	while (nanosleep(&ts, &ts) != 0 && errno == EINTR)
		;
}

Stats stats(std::span<uint64_t> v)
{
	Stats st;
	if (v.empty())
		return st;
	std::sort(v.begin(), v.end());
	double sum = std::accumulate(v.begin(), v.end(), 0.0,
				     [](double s, uint64_t x) { return s + static_cast<double>(x); });
	st.n = v.size();
	st.median_ns = rank(v, 50);
	st.p99_ns = rank(v, 99);
	st.min_ns = v.front();
	st.max_ns = v.back();
	st.mean_ns = sum / static_cast<double>(v.size());
	return st;
}

void print(FILE *f, const Stats &st)
{
	fprintf(f, "\"n\": %zu, \"median_ns\": %llu, \"p99_ns\": %llu, \"max_ns\": %llu, "
		"\"min_ns\": %llu, \"mean_ns\": %.0f",
		st.n, static_cast<unsigned long long>(st.median_ns),
		static_cast<unsigned long long>(st.p99_ns), static_cast<unsigned long long>(st.max_ns),
		static_cast<unsigned long long>(st.min_ns), st.mean_ns);
}

long JsonEnd::feed(std::string_view bytes)
{
	for (size_t i = 0; i < bytes.size(); i++) {
		char c = bytes[i];
		if (in_string_) {
			if (escape_)
				escape_ = false;
			else if (c == '\\')
				escape_ = true;
			else if (c == '"')
				in_string_ = false;
		} else if (!started_) {
			if (c == '{')
				started_ = true;
			else if (c != ' ' && c != '\t' && c != '\n' && c != '\r')
				return -1;
		} else if (c == '"') {
			in_string_ = true;
		} else if (c == '{' || c == '[') {
			depth_++;
		} else if ((c == '}' || c == ']') && --depth_ == 0) {
			return static_cast<long>(i + 1);
		}
	}
	return 0;
}

UniqueFd connect_unix(const char *path, bool nonblock)
{
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	size_t len = strlen(path);
	if (len >= sizeof(addr.sun_path)) {
		errno = ENAMETOOLONG;
		return {};
	}
	memcpy(addr.sun_path, path, len);
	UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (nonblock ? SOCK_NONBLOCK : 0), 0));
	if (fd && connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
		int e = errno;
		fd.reset();
		errno = e;
	}
	return fd;
}

bool read_file(const char *path, Bytes &text)
{
	UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
	std::array<char, 65536> buf;
	ssize_t got = -1;
	while (fd && (got = read(fd.get(), buf.data(), buf.size())) != 0) {
		if (got < 0 && errno != EINTR)
			return false;
		text.append({buf.data(), got > 0 ? static_cast<size_t>(got) : 0});
	}
	return static_cast<bool>(fd);
}

void Bytes::append(std::string_view s)
{
	if (capacity_ - size_ < s.size() + 1) {
		capacity_ = (size_ + s.size() + 1) * 2;
		char *grown = static_cast<char *>(realloc(data_.get(), capacity_));
		if (grown == nullptr)
			die("bench", "out of memory", false);
		(void)data_.release();
		data_.reset(grown);
	}
	memcpy(data_.get() + size_, s.data(), s.size());
	size_ += s.size();
	data_.get()[size_] = '\0';
}

void die(const char *prog, const char *msg, bool with_errno)
{
	if (with_errno)
		fprintf(stderr, "%s: %s: %s\n", prog, msg, strerror(errno));
	else
		fprintf(stderr, "%s: %s\n", prog, msg);
	exit(2);
}

}  // namespace hx::bench
