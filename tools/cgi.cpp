#include "tools/cgi.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "tools/client.h"
#include "tools/toolutil.h"

namespace hx::tools::cgi {
namespace {

using json::Ptr;

// The daemon has more methods; these are the ones a page may call.
constexpr std::string_view methods[] = {"pref-get", "pref-set", "revalidate"};
// revalidate of "wan" can wait on a hotspot; the web server's own CGI limit
// is longer.
constexpr int reply_timeout = 30;
// The body follows the header at once from a browser; a client that stalls
// must not hold the bridge and a web server process.
constexpr int body_timeout_ms = 10000;
// What a refusal reads of a body it does not want: the web server may hand
// the connection itself over as standard input, and closing it with unread
// data resets it, which can lose the answer at the client.
constexpr int drain_idle_ms = 100;
constexpr size_t drain_max = 65536;

constexpr Refusal not_post = {405, "Method Not Allowed", "only POST is accepted"};
constexpr Refusal foreign_host = {403, "Forbidden",
				  "open the page by the device's address or name"};
constexpr Refusal not_json = {415, "Unsupported Media Type",
			      "the request must be application/json"};
constexpr Refusal no_length = {411, "Length Required", "the request has no length"};
constexpr Refusal too_long = {413, "Payload Too Large", "the request is over 4096 bytes"};
constexpr Refusal cut_short = {400, "Bad Request", "the request is cut short"};
constexpr Refusal not_object = {400, "Bad Request", "the request is not a JSON object"};
constexpr Refusal bad_method = {400, "Bad Request",
				"the method must be pref-get, pref-set or revalidate"};
constexpr Refusal no_daemon = {502, "Bad Gateway", "cannot reach hxsrvd"};
constexpr Refusal no_reply_from = {502, "Bad Gateway", "no complete reply from hxsrvd"};

constexpr std::string_view blanks = " \t";

// The media type of a Content-Type value: before any parameter, unpadded.
// (remove_prefix and remove_suffix, unlike substr, cannot throw: hxctl
// carries nothing of the C++ runtime.)
std::string_view media_type(std::string_view value)
{
	if (size_t semicolon = value.find(';'); semicolon != std::string_view::npos)
		value.remove_suffix(value.size() - semicolon);
	while (!value.empty() && blanks.find(value.front()) != std::string_view::npos)
		value.remove_prefix(1);
	while (!value.empty() && blanks.find(value.back()) != std::string_view::npos)
		value.remove_suffix(1);
	return value;
}

bool is_json_type(const char *content_type)
{
	constexpr std::string_view json_type = "application/json";
	std::string_view type = media_type(content_type);
	return type.size() == json_type.size() &&
	       strncasecmp(type.data(), json_type.data(), json_type.size()) == 0;
}

// CONTENT_LENGTH: digits only; anything longer than body_max is too long.
const Refusal *parse_length(const char *text, size_t &length)
{
	size_t digits = strspn(text, "0123456789");
	if (digits == 0 || text[digits] != '\0')
		return &no_length;
	while (*text == '0' && text[1] != '\0')
		++text;
	if (strlen(text) > 4)
		return &too_long;
	size_t value = strtoul(text, nullptr, 10);
	if (value > body_max)
		return &too_long;
	length = value;
	return nullptr;
}

void answer(int status, const char *reason, const char *body)
{
	if (status != 200)
		printf("Status: %d %s\r\n", status, reason);
	if (status == not_post.status)
		printf("Allow: POST\r\n");
	printf("Content-Type: application/json\r\nCache-Control: no-store\r\n"
	       "Content-Length: %zu\r\n\r\n%s\n", strlen(body) + 1, body);
}

void refuse(const Refusal &refusal)
{
	Ptr body(must(json_object_new_object()));
	add(body.get(), "result", Ptr(must(json_object_new_string(refusal.result))));
	answer(refusal.status, refusal.reason,
	       json_object_to_json_string_ext(body.get(), JSON_C_TO_STRING_PLAIN |
							       JSON_C_TO_STRING_NOSLASHESCAPE));
}

// Exactly length bytes of standard input into buf (NUL-terminated) within
// body_timeout_ms; false when it ends or stalls sooner.
bool read_body(char *buf, size_t length)
{
	long long deadline = now_ms() + body_timeout_ms;
	for (size_t got = 0; got < length;) {
		ssize_t n = read_by(STDIN_FILENO, deadline, {buf + got, length - got});
		if (n <= 0)
			return false;
		got += static_cast<size_t>(n);
	}
	buf[length] = '\0';
	return true;
}

// Reads and drops what a refused request still sends, until it pauses.
void drain_input()
{
	char buf[4096];
	for (size_t total = 0; total < drain_max;) {
		ssize_t n = read_by(STDIN_FILENO, now_ms() + drain_idle_ms, buf);
		if (n <= 0)
			return;
		total += static_cast<size_t>(n);
	}
}

// Host: an IP address, or a name without a dot (the device's own, from its
// hosts file), with an optional port.  A page of another domain whose name
// has been made to resolve to the device (DNS rebinding) sends that name:
// it must not reach the daemon.  No Host at all is no browser.
bool is_own_host(const char *host)
{
	if (host == nullptr)
		return true;
	std::string_view name = host, port;
	bool bracketed = name.starts_with('[');
	if (size_t end = name.find(bracketed ? ']' : ':'); end != std::string_view::npos) {
		port = name;
		port.remove_prefix(end + bracketed);
		name.remove_suffix(name.size() - end);
	} else if (bracketed) {
		return false;
	}
	if (bracketed)
		name.remove_prefix(1);
	char address[INET6_ADDRSTRLEN];
	if (name.empty() || name.size() >= sizeof(address) ||
	    !(port.empty() || (port.size() > 1 && port[0] == ':' &&
			       port.find_first_not_of("0123456789", 1) == std::string_view::npos)))
		return false;
	memcpy(address, name.data(), name.size());
	address[name.size()] = '\0';
	unsigned char binary[sizeof(in6_addr)];
	if (bracketed)
		return inet_pton(AF_INET6, address, binary) == 1;
	return inet_pton(AF_INET, address, binary) == 1 ||
	       strspn(address, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-") ==
		       name.size();
}

// The web server sends a CGI program's standard error to the browser
// inside the answer; hxctl's reasons would corrupt it.
void silence_stderr()
{
	int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
	if (fd >= 0 && fd != STDERR_FILENO) {
		dup2(fd, STDERR_FILENO);
		close(fd);
	}
}

}  // namespace

const Refusal *check_headers(const Variables &vars, size_t &length)
{
	if (vars.method == nullptr || strcmp(vars.method, "POST") != 0)
		return &not_post;
	if (!is_own_host(vars.host))
		return &foreign_host;
	if (vars.content_type == nullptr || !is_json_type(vars.content_type))
		return &not_json;
	return vars.content_length == nullptr ? &no_length
					      : parse_length(vars.content_length, length);
}

const Refusal *check_body(std::string_view body)
{
	if (body.find('\0') != std::string_view::npos)
		return &not_object;
	char text[body_max + 1];
	if (body.size() > body_max)
		return &too_long;
	memcpy(text, body.data(), body.size());
	text[body.size()] = '\0';
	std::optional<Ptr> request = json_text(text);
	if (!request || !json::is(request->get(), json_type_object))
		return &not_object;
	json_object *method = nullptr;
	if (!json_object_object_get_ex(request->get(), "method", &method) ||
	    !json::is(method, json_type_string))
		return &bad_method;
	for (std::string_view known : methods)
		if (known == json::text(method))
			return nullptr;
	return &bad_method;
}

int main(const char *socket_path)
{
	silence_stderr();
	size_t length = 0;
	const Refusal *refusal = check_headers({getenv("REQUEST_METHOD"), getenv("HTTP_HOST"),
						getenv("CONTENT_TYPE"), getenv("CONTENT_LENGTH")},
					       length);
	char body[body_max + 1];
	if (refusal == nullptr && !read_body(body, length))
		refusal = &cut_short;
	if (refusal != nullptr)
		drain_input();
	if (refusal == nullptr)
		refusal = check_body({body, length});
	Ptr reply;
	int status = refusal == nullptr ? exchange(socket_path, reply_timeout, {body, length}, reply)
					: ok;
	if (status == no_connection)
		refusal = &no_daemon;
	else if (status != ok)
		refusal = &no_reply_from;
	if (refusal != nullptr)
		refuse(*refusal);
	else
		answer(200, "OK", json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN));
	return fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace hx::tools::cgi
