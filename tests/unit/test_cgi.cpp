// What the web bridge refuses before anything reaches the daemon.
#include <string>

#include "tests/unit/support.h"
#include "tools/cgi.h"

namespace {

using hx::tools::cgi::check_body;
using hx::tools::cgi::check_headers;

// The status of a refusal; 0 for none.
int status_of(const hx::tools::cgi::Refusal *refusal)
{
	return refusal == nullptr ? 0 : refusal->status;
}

TEST(Cgi, Headers)
{
	constexpr const char *ip = "192.168.100.1";
	struct Row {
		const char *method, *host, *type, *length;
		int status;
		size_t body;
	} rows[] = {
		{"POST", ip, "application/json", "10", 0, 10},
		{"POST", ip, " Application/JSON ; charset=utf-8", "4096", 0, 4096},
		{"POST", ip, "application/json", "00004096", 0, 4096},
		{"POST", ip, "application/json", "0", 0, 0},
		{"POST", ip, "application/json", "4097", 413, 0},
		{"POST", ip, "application/json", "99999999999999999999", 413, 0},
		{"POST", ip, "application/json", "", 411, 0},
		{"POST", ip, "application/json", "-1", 411, 0},
		{"POST", ip, "application/json", "12 ", 411, 0},
		{"POST", ip, "application/json", nullptr, 411, 0},
		{"POST", ip, "application/jsonx", "2", 415, 0},
		{"POST", ip, "text/plain", "2", 415, 0},
		{"POST", ip, "application/x-www-form-urlencoded", "2", 415, 0},
		{"POST", ip, "", "2", 415, 0},
		{"POST", ip, nullptr, "2", 415, 0},
		{"GET", ip, "application/json", "2", 405, 0},
		{"post", ip, "application/json", "2", 405, 0},
		{"OPTIONS", ip, nullptr, nullptr, 405, 0},
		{nullptr, ip, "application/json", "2", 405, 0},
		// Host: an address or a dot-free name of the device, with a port or not.
		{"POST", "127.0.0.1:8080", "application/json", "2", 0, 2},
		{"POST", "[fe80::1]", "application/json", "2", 0, 2},
		{"POST", "[::1]:80", "application/json", "2", 0, 2},
		{"POST", "HX-R1", "application/json", "2", 0, 2},
		{"POST", "localhost:80", "application/json", "2", 0, 2},
		{"POST", nullptr, "application/json", "2", 0, 2},
		{"POST", "evil.example.com", "application/json", "2", 403, 0},
		{"POST", "192.168.100.1.nip.io", "application/json", "2", 403, 0},
		{"POST", "192.168.100.1:", "application/json", "2", 403, 0},
		{"POST", "192.168.100.1:80x", "application/json", "2", 403, 0},
		{"POST", "[::1", "application/json", "2", 403, 0},
		{"POST", "[evil.com]", "application/json", "2", 403, 0},
		{"POST", "", "application/json", "2", 403, 0},
		{"POST", "a_b", "application/json", "2", 403, 0},
		{"POST", "evil.com", "text/plain", "2", 403, 0},
	};
	for (const Row &row : rows) {
		auto text = [](const char *s) { return std::string(s ? s : "-"); };
		SCOPED_TRACE(text(row.method) + " " + text(row.host) + " " + text(row.type) + " " + text(row.length));
		size_t length = 0;
		EXPECT_EQ(status_of(check_headers({row.method, row.host, row.type, row.length}, length)), row.status);
		EXPECT_EQ(length, row.body);
	}
}

TEST(Cgi, Body)
{
	using namespace std::string_literals;
	struct Row {
		std::string body;
		int status;
	} rows[] = {
		{R"({"method":"pref-get","arguments":{}})", 0},
		{R"( {"method":"pref-set"} )", 0},
		{R"({"method":"revalidate","arguments":{"wl":{"action":"restart"}}})", 0},
		{R"({"method":"sys-call"})", 400},
		{R"({"method":"PREF-GET"})", 400},
		{R"({"method":["pref-get"]})", 400},
		{R"({"arguments":{}})", 400},
		{R"(["pref-get"])", 400},
		{R"({"method":"pref-get"} {})", 400},
		{R"({"method":"pref-get")", 400},
		{"null", 400},
		{"", 400},
		{"{\"method\":\"pref-get\"}\0"s, 400},
		{"{\"method\":\"pref-get\",\"x\":\"" + std::string(4096 - 28, 'x') + "\"}", 0},
		{"{\"method\":\"pref-get\",\"x\":\"" + std::string(4097 - 28, 'x') + "\"}", 413},
	};
	for (const Row &row : rows) {
		SCOPED_TRACE(row.body.substr(0, 40));
		EXPECT_EQ(status_of(check_body(row.body)), row.status);
	}
}

}  // namespace
