#include "tools/cgi.h"

#include <errno.h>
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

constexpr Refusal not_post = {405, "Method Not Allowed", "only POST is accepted"};
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

// Exactly length bytes of standard input into buf (NUL-terminated); false
// when it ends sooner.
bool read_body(char *buf, size_t length)
{
	size_t got = 0;
	while (got < length) {
		ssize_t n = read(STDIN_FILENO, buf + got, length - got);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return false;
		got += static_cast<size_t>(n);
	}
	buf[length] = '\0';
	return true;
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

const Refusal *check_headers(const char *method, const char *content_type,
			     const char *content_length, size_t &length)
{
	if (method == nullptr || strcmp(method, "POST") != 0)
		return &not_post;
	if (content_type == nullptr || !is_json_type(content_type))
		return &not_json;
	return content_length == nullptr ? &no_length : parse_length(content_length, length);
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
	const Refusal *refusal = check_headers(getenv("REQUEST_METHOD"), getenv("CONTENT_TYPE"),
					       getenv("CONTENT_LENGTH"), length);
	char body[body_max + 1];
	if (refusal == nullptr && !read_body(body, length))
		refusal = &cut_short;
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
