// hxload: load generator that behaves like hxsrvd's real clients.
//
// Each request: connect to the Unix socket, send the request in one write,
// read until the reply's JSON object is complete (its end is found by brace
// depth outside strings: the daemon sends bare JSON and does not close),
// then close.  With -c C, C clients do this at once.  With -H H, H idle
// connections are opened gradually first and held open while measuring.
//
// Prints one JSON object: latency median, p99 and max, requests per second,
// error counts; -L writes every measured latency (ns), one per line.
//
//   hxload [-s SOCKET] -f REQUESTS [-n N] [-w WARMUP] [-c CLIENTS]
//          [-H HOLD [-P]] [-L FILE] [-o FILE] [-t MS] [-a | -m]
//
// REQUESTS holds one request per line; request k goes to line k mod lines.
// The first reply to each line is parsed with json-c and must have "result"
// "success" (unless -a); later replies to the line must have its size.
// With -m (mixed requests, bench/soak) each line is "RESULT<TAB>REQUEST" and
// every reply is parsed and must have that "result"; RESULT "-" means the
// daemon closes the connection without a reply (a request that is not JSON).
// Replies may then differ in size.
#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "bench/benchutil.h"
#include "core/json.h"

namespace {

using hx::bench::Array;
using hx::bench::Bytes;
using hx::bench::now_ns;

constexpr const char *prog = "hxload";
constexpr size_t max_lines = 128;
constexpr unsigned long idle = ~0ul;	// the sequence number of a free slot

// Every read lands here; replies are kept only where they are checked.
std::array<char, 65536> chunk;

struct Request {
	std::string_view text;		// in the request file's text
	Bytes first;			// the first reply; empty until it came
	bool taken = false;		// a flight is capturing the first reply
	bool done = false;		// the first reply is complete
	std::string_view expect;	// -m: the "result" every reply must have
	bool expect_close = false;	// -m: closed without a reply
};

struct Counts {
	unsigned long connect_errors = 0;	// refused or failed, not EAGAIN
	unsigned long eagain = 0;		// backlog full on connect; retried
	unsigned long write_errors = 0;
	unsigned long read_errors = 0;
	unsigned long eof = 0;			// closed before a complete reply
	unsigned long timeouts = 0;
	unsigned long malformed = 0;		// not a JSON object
	unsigned long trailing = 0;		// bytes after the object
	unsigned long bad_result = 0;		// "result" not "success" (-m: not the expected)
	unsigned long size_changed = 0;		// reply size differs from the first
	unsigned long checked = 0;		// -m: replies with the expected result
	unsigned long closed = 0;		// -m: closed without a reply, as expected
};

struct Options {
	const char *socket_path = "/var/tmp/socket";
	const char *requests = nullptr;
	unsigned long n = 1000, warmup = 100, clients = 1, hold = 0;
	bool pause = false, any_result = false, mixed = false;
	int timeout_ms = 10000;
	const char *lat_path = nullptr, *reply_path = nullptr;
};

struct Load : Options {
	explicit Load(const Options &opt) : Options(opt), lat(opt.n + 1), held(opt.hold) {}

	Bytes file;			// the request file
	std::array<Request, max_lines> req;
	size_t lines = 0;
	Array<uint64_t> lat;
	size_t nlat = 0;
	Counts c;
	uint64_t t_start = 0, t_end = 0;
	Array<hx::UniqueFd> held;
	unsigned long held_open = 0, held_refused = 0, held_eagain = 0, held_closed = 0;
	uint64_t hold_t0 = 0, hold_t1 = 0;
};

[[noreturn]] void usage()
{
	fputs("usage: hxload [-s SOCKET] -f REQUESTS [-n N] [-w WARMUP] [-c CLIENTS]\n"
	      "              [-H HOLD [-P]] [-L FILE] [-o FILE] [-t MS] [-a | -m]\n", stderr);
	exit(64);
}

// The first n bytes of text, and the rest after the separator there.
std::string_view split(std::string_view &text, size_t n)
{
	std::string_view head(text.data(), n < text.size() ? n : text.size());
	text.remove_prefix(n < text.size() ? n + 1 : text.size());
	return head;
}

void load_requests(Load &L)
{
	if (!hx::bench::read_file(L.requests, L.file))
		hx::bench::die(prog, L.requests, true);
	for (std::string_view rest = L.file.view(); !rest.empty();) {
		std::string_view line = split(rest, rest.find('\n'));
		if (line.empty())
			continue;
		if (L.lines == max_lines)
			hx::bench::die(prog, "too many request lines", false);
		Request &r = L.req[L.lines++];
		if (L.mixed) {
			size_t tab = line.find('\t');
			if (tab == line.npos)
				hx::bench::die(prog, "-m: a line must be RESULT<TAB>REQUEST", false);
			r.expect = split(line, tab);
			r.expect_close = r.expect == "-";
		}
		r.text = line;
		if (r.text.size() <= 8)
			hx::bench::die(prog, "a request must be longer than 8 bytes", false);
	}
	if (L.lines == 0)
		hx::bench::die(prog, "no request in the file", false);
}

// The reply as JSON when it is an object.
hx::json::Ptr reply_object(const Bytes &reply)
{
	hx::json::Ptr o = hx::json::parse(reply.c_str());
	return hx::json::is(o.get(), json_type_object) ? std::move(o) : nullptr;
}

void check_first(Load &L, const Request &r)
{
	hx::json::Ptr o = reply_object(r.first);
	if (!o) {
		L.c.malformed++;
	} else if (!L.any_result && hx::json::string_member(o.get(), "result") != "success") {
		fprintf(stderr, "hxload: reply is not a success: %s\n", r.first.c_str());
		L.c.bad_result++;
	}
}

// -m: the first few wrong replies are shown, then only counted.
void mixed_mismatch(const Load &L, const Request &r, const char *reply)
{
	if (L.c.bad_result + L.c.malformed + L.c.eof < 10)
		fprintf(stderr, "hxload: expected \"%.*s\" for %.*s, got: %s\n",
			static_cast<int>(r.expect.size()), r.expect.data(),
			static_cast<int>(r.text.size()), r.text.data(), reply);
}

void check_mixed(Load &L, const Request &r, const Bytes &reply)
{
	hx::json::Ptr o = reply_object(reply);
	if (!o) {
		mixed_mismatch(L, r, reply.c_str());
		L.c.malformed++;
	} else if (r.expect_close || hx::json::string_member(o.get(), "result") != r.expect) {
		mixed_mismatch(L, r, reply.c_str());
		L.c.bad_result++;
	} else {
		L.c.checked++;
	}
}

// State of one request in flight.
struct Flight {
	hx::UniqueFd fd;
	size_t line = 0;
	unsigned long seq = idle;
	uint64_t t0 = 0;
	size_t got = 0;
	bool capturing = false;
	hx::bench::JsonEnd end;
	Bytes *reply = nullptr;		// -m
};

// Feeds received bytes; 1 when the reply is complete, 0 for more, -1 when
// it is malformed.
int flight_feed(Load &L, Flight &f, std::string_view bytes)
{
	Request &r = L.req[f.line];
	long end = f.end.feed(bytes);
	if (end < 0) {
		L.c.malformed++;
		return -1;
	}
	std::string_view part(bytes.data(), end > 0 ? static_cast<size_t>(end) : bytes.size());
	if (L.mixed)
		f.reply->append(part);
	else if (f.capturing)
		r.first.append(part);
	f.got += part.size();
	if (end == 0)
		return 0;
	if (part.size() < bytes.size())
		L.c.trailing++;
	if (L.mixed) {
		check_mixed(L, r, *f.reply);
	} else if (f.capturing) {
		r.done = true;
		check_first(L, r);
	} else if (r.done && f.got != r.first.size()) {
		L.c.size_changed++;
	}
	return 1;
}

void flight_begin(Load &L, Flight &f, unsigned long seq)
{
	Bytes *reply = f.reply;
	f = Flight{};
	f.reply = reply;
	if (reply != nullptr)
		reply->clear();
	f.seq = seq;
	f.line = seq % L.lines;
	f.capturing = !L.req[f.line].taken;
	L.req[f.line].taken = true;
	if (seq == L.warmup)
		L.t_start = now_ns();
	f.t0 = now_ns();
}

void flight_done(Load &L, const Flight &f)
{
	uint64_t t1 = now_ns();
	if (f.seq >= L.warmup) {
		L.lat[L.nlat++] = t1 - f.t0;
		L.t_end = t1;
	}
}

// A failed flight gives the capture of its line's first reply to the next.
void flight_failed(Load &L, const Flight &f)
{
	Request &r = L.req[f.line];
	if (f.capturing && !r.done) {
		r.taken = false;
		r.first.clear();
	}
}

// The end of the connection: true when -m expected it (no reply to a
// request that is not JSON), else an error.
bool flight_eof(Load &L, const Flight &f)
{
	const Request &r = L.req[f.line];
	if (L.mixed && r.expect_close && f.got == 0) {
		L.c.closed++;
		return true;
	}
	if (L.mixed)
		mixed_mismatch(L, r, f.got != 0 ? f.reply->c_str() : "(closed, no reply)");
	L.c.eof++;
	return false;
}

bool send_request(Load &L, int fd, const Request &r)
{
	ssize_t w;
	do
		w = send(fd, r.text.data(), r.text.size(), MSG_NOSIGNAL);
	while (w < 0 && errno == EINTR);
	if (w != static_cast<ssize_t>(r.text.size())) {
		L.c.write_errors++;
		return false;
	}
	return true;
}

// Sends the request and reads until the reply is complete, blocking: true
// when it came (or -m expected the close).
bool exchange(Load &L, Flight &f)
{
	if (!send_request(L, f.fd.get(), L.req[f.line]))
		return false;
	for (;;) {
		pollfd pfd = {f.fd.get(), POLLIN, 0};
		int p = poll(&pfd, 1, L.timeout_ms);
		if (p < 0 && errno == EINTR)
			continue;
		if (p == 0) {
			L.c.timeouts++;
			return false;
		}
		ssize_t r = read(f.fd.get(), chunk.data(), chunk.size());
		if (r < 0 && errno == EINTR)
			continue;
		if (r < 0) {
			L.c.read_errors++;
			return false;
		}
		if (r == 0)
			return flight_eof(L, f);
		if (int done = flight_feed(L, f, {chunk.data(), static_cast<size_t>(r)}); done != 0)
			return done > 0;
	}
}

// The reply buffer of the serial client (-m).
Bytes serial_reply;

// One request the way hxctl makes it: blocking connect, one write, poll and
// read until the object is complete, close.
void one_request(Load &L, unsigned long seq)
{
	Flight f;
	f.reply = L.mixed ? &serial_reply : nullptr;
	flight_begin(L, f, seq);
	f.fd = hx::bench::connect_unix(L.socket_path, false);
	if (!f.fd)
		L.c.connect_errors++;
	if (f.fd && exchange(L, f))
		flight_done(L, f);
	else
		flight_failed(L, f);
}

void run_serial(Load &L)
{
	for (unsigned long seq = 0; seq < L.warmup + L.n; seq++)
		one_request(L, seq);
}

// Concurrent clients on one epoll set, non-blocking sockets.  A connect
// that finds the backlog full (EAGAIN) is retried after 1 ms, the way a
// blocking connect would wait; the latency counts from the first try.
struct Pool {
	explicit Pool(Load &load) : L(load), ep(epoll_create1(EPOLL_CLOEXEC)), slots(load.clients),
		evs(load.clients), replies(load.clients), total(load.warmup + load.n) {}

	Load &L;
	hx::UniqueFd ep;
	Array<Flight> slots;
	Array<epoll_event> evs;
	Array<Bytes> replies;		// -m
	unsigned long issued = 0, finished = 0, total;
};

void slot_close(Pool &P, Flight &f)
{
	if (f.fd) {
		epoll_ctl(P.ep.get(), EPOLL_CTL_DEL, f.fd.get(), nullptr);
		f.fd.reset();
	}
}

// Connects slot f: 1 connected, 0 to be retried, -1 failed.
int slot_connect(Pool &P, Flight &f)
{
	f.fd = hx::bench::connect_unix(P.L.socket_path, true);
	if (!f.fd) {
		if (errno == EAGAIN) {
			P.L.c.eagain++;
			return 0;
		}
		P.L.c.connect_errors++;
		return -1;
	}
	epoll_event ev{};
	ev.events = EPOLLIN;
	ev.data.ptr = &f;
	if (!send_request(P.L, f.fd.get(), P.L.req[f.line]) ||
	    epoll_ctl(P.ep.get(), EPOLL_CTL_ADD, f.fd.get(), &ev) != 0) {
		slot_close(P, f);
		return -1;
	}
	return 1;
}

// Starts the next request in slot f, or leaves it idle.
void slot_next(Pool &P, Flight &f)
{
	while (P.issued < P.total) {
		flight_begin(P.L, f, P.issued++);
		if (slot_connect(P, f) >= 0)
			return;
		flight_failed(P.L, f);
		P.finished++;
	}
	f.fd.reset();
	f.seq = idle;
}

void slot_finish(Pool &P, Flight &f, bool ok)
{
	if (ok)
		flight_done(P.L, f);
	else
		flight_failed(P.L, f);
	slot_close(P, f);
	P.finished++;
	slot_next(P, f);
}

void slot_readable(Pool &P, Flight &f)
{
	for (;;) {
		ssize_t r = read(f.fd.get(), chunk.data(), chunk.size());
		if (r < 0 && errno == EINTR)
			continue;
		if (r < 0 && errno == EAGAIN)
			return;
		if (r <= 0) {
			bool ok = r == 0 && flight_eof(P.L, f);
			if (r < 0)
				P.L.c.read_errors++;
			slot_finish(P, f, ok);
			return;
		}
		if (int done = flight_feed(P.L, f, {chunk.data(), static_cast<size_t>(r)}); done != 0) {
			slot_finish(P, f, done > 0);
			return;
		}
	}
}

// Retries pending connects and fails requests past the time-out; true when
// a connect is still pending.
bool pool_sweep(Pool &P)
{
	uint64_t now = now_ns(), limit = static_cast<uint64_t>(P.L.timeout_ms) * 1000000u;
	bool pending = false;
	for (Flight &f : P.slots) {
		if (f.seq == idle)
			continue;
		if (now - f.t0 > limit) {
			P.L.c.timeouts++;
			slot_finish(P, f, false);
			continue;
		}
		if (f.fd)
			continue;
		int r = slot_connect(P, f);
		if (r < 0) {
			flight_failed(P.L, f);
			slot_close(P, f);
			P.finished++;
			slot_next(P, f);
		}
		pending |= r == 0;
	}
	return pending;
}

void run_pool(Load &L)
{
	Pool P(L);
	if (!P.ep)
		hx::bench::die(prog, "epoll set", true);
	bool pending = false;
	for (size_t i = 0; i < L.clients; i++) {
		Flight &f = P.slots[i];
		f.reply = L.mixed ? &P.replies[i] : nullptr;
		if (P.issued < P.total) {
			flight_begin(L, f, P.issued++);
			pending |= slot_connect(P, f) == 0;
		}
	}
	while (P.finished < P.total) {
		int n = epoll_wait(P.ep.get(), P.evs.begin(), static_cast<int>(L.clients), pending ? 1 : 100);
		if (n < 0 && errno != EINTR)
			hx::bench::die(prog, "epoll_wait", true);
		for (int k = 0; k < n; k++)
			slot_readable(P, *static_cast<Flight *>(P.evs[static_cast<size_t>(k)].data.ptr));
		pending = pool_sweep(P);
	}
}

// Opens the held connections gradually (batches of 32, 10 ms apart) so
// that the accept backlog of 128 is never the limit; a connect that still
// finds the backlog full is retried for up to 5 s.
void hold_open(Load &L)
{
	L.hold_t0 = now_ns();
	for (unsigned long i = 0; i < L.hold; i++) {
		uint64_t t0 = now_ns();
		if (i > 0 && i % 32 == 0)
			hx::bench::sleep_ns(10000000);
		hx::UniqueFd &fd = L.held[i];
		while (!(fd = hx::bench::connect_unix(L.socket_path, true)) && errno == EAGAIN &&
		       now_ns() - t0 < 5000000000u) {
			L.held_eagain++;
			hx::bench::sleep_ns(1000000);
		}
		(fd ? L.held_open : L.held_refused)++;
	}
}

// A held connection that has become readable was closed by the server.
void hold_check_close(Load &L)
{
	for (hx::UniqueFd &fd : L.held) {
		pollfd pfd = {fd.get(), POLLIN | POLLRDHUP, 0};
		if (fd && poll(&pfd, 1, 0) != 0)
			L.held_closed++;
		fd.reset();
	}
	L.hold_t1 = now_ns();
}

void pause_for_sample(const Load &L)
{
	std::array<char, 64> line;
	printf("{\"phase\": \"held\", \"held_open\": %lu, \"held_refused\": %lu}\n", L.held_open,
	       L.held_refused);
	fflush(stdout);
	if (fgets(line.data(), static_cast<int>(line.size()), stdin) == nullptr)
		return;
}

void write_outputs(Load &L)
{
	if (L.lat_path != nullptr) {
		hx::FilePtr f = hx::open_file(L.lat_path, "w");
		if (!f)
			hx::bench::die(prog, L.lat_path, true);
		for (size_t i = 0; i < L.nlat; i++)
			fprintf(f.get(), "%llu\n", static_cast<unsigned long long>(L.lat[i]));
		if (!hx::close_file(std::move(f)))
			hx::bench::die(prog, L.lat_path, true);
	}
	if (L.reply_path != nullptr) {
		std::string_view first = L.req[0].first.view();
		hx::FilePtr f = hx::open_file(L.reply_path, "w");
		if (!f || fwrite(first.data(), 1, first.size(), f.get()) != first.size() ||
		    !hx::close_file(std::move(f)))
			hx::bench::die(prog, L.reply_path, true);
	}
}

void report(Load &L)
{
	double wall = L.t_end > L.t_start ? static_cast<double>(L.t_end - L.t_start) / 1e9 : 0;
	const Counts &c = L.c;
	unsigned long errors = c.connect_errors + c.write_errors + c.read_errors + c.eof +
			       c.timeouts + c.malformed + c.trailing + c.bad_result + c.size_changed;
	write_outputs(L);
	hx::bench::Stats st = hx::bench::stats({L.lat.begin(), L.nlat});
	printf("{");
	hx::bench::print(stdout, st);
	printf(", \"requested\": %lu, \"clients\": %lu, \"wall_s\": %.6f, \"rps\": %.1f, "
	       "\"errors\": %lu, \"connect_errors\": %lu, \"eagain\": %lu, \"write_errors\": %lu, "
	       "\"read_errors\": %lu, \"eof\": %lu, \"timeouts\": %lu, \"malformed\": %lu, "
	       "\"trailing\": %lu, \"bad_result\": %lu, \"size_changed\": %lu, \"checked\": %lu, "
	       "\"closed_as_expected\": %lu, \"reply_bytes\": [",
	       L.n, L.clients, wall, wall > 0 ? static_cast<double>(st.n) / wall : 0.0, errors,
	       c.connect_errors, c.eagain, c.write_errors, c.read_errors, c.eof, c.timeouts,
	       c.malformed, c.trailing, c.bad_result, c.size_changed, c.checked, c.closed);
	for (size_t i = 0; i < L.lines; i++)
		printf("%s%zu", i ? ", " : "", L.req[i].first.size());
	printf("]");
	if (L.hold)
		printf(", \"hold\": %lu, \"held_open\": %lu, \"held_refused\": %lu, "
		       "\"held_eagain\": %lu, \"held_closed_by_server\": %lu, \"hold_s\": %.3f",
		       L.hold, L.held_open, L.held_refused, L.held_eagain, L.held_closed,
		       static_cast<double>(L.hold_t1 - L.hold_t0) / 1e9);
	printf("}\n");
}

// Enough descriptors for the held connections and the clients.
void raise_fd_limit(const Load &L)
{
	rlimit rl;
	rlim_t need = static_cast<rlim_t>(L.hold + L.clients + 32);
	if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < need) {
		rl.rlim_cur = need <= rl.rlim_max ? need : rl.rlim_max;
		setrlimit(RLIMIT_NOFILE, &rl);
	}
}

unsigned long number(const char *s)
{
	char *end;
	unsigned long v = strtoul(s, &end, 10);
	if (*s == '\0' || *end != '\0')
		usage();
	return v;
}

}  // namespace

int main(int argc, char *argv[])
{
	Options opt;
	int c;
	while ((c = getopt(argc, argv, "s:f:n:w:c:H:PL:o:t:am")) != -1) {
		switch (c) {
		case 's': opt.socket_path = optarg; break;
		case 'f': opt.requests = optarg; break;
		case 'n': opt.n = number(optarg); break;
		case 'w': opt.warmup = number(optarg); break;
		case 'c': opt.clients = number(optarg); break;
		case 'H': opt.hold = number(optarg); break;
		case 'P': opt.pause = true; break;
		case 'L': opt.lat_path = optarg; break;
		case 'o': opt.reply_path = optarg; break;
		case 't': opt.timeout_ms = static_cast<int>(number(optarg)); break;
		case 'a': opt.any_result = true; break;
		case 'm': opt.mixed = true; break;
		default: usage();
		}
	}
	if (opt.requests == nullptr || optind != argc || opt.clients == 0 ||
	    (opt.mixed && opt.any_result))
		usage();
	signal(SIGPIPE, SIG_IGN);
	Load L(opt);
	load_requests(L);
	raise_fd_limit(L);
	if (L.hold) {
		hold_open(L);
		if (L.pause)
			pause_for_sample(L);
	}
	if (L.clients == 1)
		run_serial(L);
	else
		run_pool(L);
	if (L.hold)
		hold_check_close(L);
	report(L);
	return 0;
}
