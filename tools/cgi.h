// The web page's bridge to hxsrvd: hxctl started as "api.cgi" by the web
// server takes one POSTed JSON request, sends it as "hxctl raw" does and
// answers the reply as application/json.
#ifndef HX_TOOLS_CGI_H
#define HX_TOOLS_CGI_H

#include <stddef.h>

#include <string_view>

namespace hx::tools::cgi {

// The daemon takes one read of its socket as the whole request, and a read
// is at most this long.
inline constexpr size_t body_max = 4096;

// An HTTP answer other than the daemon's reply.
struct Refusal {
	int status;
	const char *reason;	// the status line's text
	const char *result;	// the JSON body's "result"
};

// The CGI variables the bridge judges; null when unset.
struct Variables {
	const char *method;		// REQUEST_METHOD
	const char *host;		// HTTP_HOST
	const char *content_type;	// CONTENT_TYPE
	const char *content_length;	// CONTENT_LENGTH
};

// What the variables refuse; nullptr when they are acceptable, with length
// set to the body's length.
const Refusal *check_headers(const Variables &vars, size_t &length);

// What the body refuses: not one JSON object whose "method" is a string
// the page may send; nullptr when it may go to the daemon.
const Refusal *check_body(std::string_view body);

// The whole CGI program: reads the environment and standard input, writes
// the HTTP answer on standard output; returns the exit status.
int main(const char *socket_path);

}  // namespace hx::tools::cgi

#endif
