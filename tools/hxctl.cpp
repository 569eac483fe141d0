// hxctl: the command-line client of hxsrvd.  Sends one request over the
// daemon's socket and prints the reply.  Started as "api.cgi" it is the web
// page's bridge (tools/cgi.h).  Scripts and CGI programs run it on
// every call, so it links json-c and libc and nothing of the C++ runtime:
// no std::string, no operator new, built without exceptions.
#include <err.h>
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <utility>

#include "core/owned.h"
#include "tools/cgi.h"
#include "tools/client.h"
#include "tools/toolutil.h"

namespace {

using hx::json::Ptr;
using hx::tools::Args;
using hx::tools::must;
using hx::tools::usage_error;

using enum hx::tools::Status;

constexpr long timeout_max = 2000000;	// seconds; keeps milliseconds in an int

struct Options {
	const char *socket_path = "/var/tmp/socket";
	int timeout = 30;		// seconds
	bool pretty = false;
	bool help = false;
	const char *tag = nullptr;	// JSON text or plain word
};

// The request text, and what keeps it alive.
struct Request {
	const char *text = nullptr;
	Ptr json;
	hx::Owned<char, free> input;	// standard input
};

constexpr char help[] =
	"Usage: hxctl [-s PATH] [-t SECONDS] [-p] [--tag JSON] COMMAND [ARG...]\n"
	"Send one request to hxsrvd and print its JSON reply.\n"
	"\n"
	"Commands:\n"
	"  get KEY...                 read settings (pref-get confs)\n"
	"                               hxctl get lan_ipaddr wl_ssid\n"
	"  info ITEM...               read status items (pref-get infos)\n"
	"                               hxctl info s_time\n"
	"  set KEY=JSON...            write settings (pref-set confs); a value that\n"
	"                             is not JSON text is sent as a JSON string\n"
	"                               hxctl set wl_ssid='\"Trip\"' wl_wpa_key=secret123\n"
	"  revalidate TARGET [ACTION] [NAME=JSON...]\n"
	"                             apply settings or post an event (revalidate);\n"
	"                             ACTION is the first word after TARGET without '='\n"
	"                               hxctl revalidate dhcp restart\n"
	"                               hxctl revalidate sys_event SYS_EVENT_DHCP_SUCCESS arg=mlan0\n"
	"  raw [JSON]                 send JSON exactly as given, or standard input\n"
	"                               hxctl raw '{\"method\":\"pref-get\",\"arguments\":{}}'\n"
	"                               echo '{\"method\":\"revalidate\",\"arguments\":{}}' | hxctl raw\n"
	"\n"
	"Options:\n"
	"  -s PATH       daemon socket (default /var/tmp/socket)\n"
	"                  hxctl -s /tmp/socket get lan_ipaddr\n"
	"  -t SECONDS    wait at most SECONDS for the reply (default 30)\n"
	"                  hxctl -t 120 revalidate wan restart\n"
	"  -p            print the reply indented\n"
	"                  hxctl -p info s_time\n"
	"  --tag JSON    add \"tag\" to the request (not with raw)\n"
	"                  hxctl --tag 7 get lan_ipaddr\n"
	"  -h, --help    print this help\n"
	"\n"
	"Exit status:\n"
	"  0   the reply's \"result\" is \"success\"\n"
	"  1   the reply's \"result\" is anything else (also printed on stderr)\n"
	"  2   no complete reply: the daemon closed the connection or time-out\n"
	"  3   the request could not be sent: connection failed (or out of memory)\n"
	"  64  usage error\n";

Ptr string_value(const char *text)
{
	return Ptr(must(json_object_new_string(text)));
}

// A command-line text's value: its JSON value, else the text itself as a
// JSON string.
Ptr value_of(const char *text)
{
	std::optional<Ptr> value = hx::tools::json_text(text);
	return value ? std::move(*value) : string_value(text);
}

// Adds each NAME=VALUE word to object.
int add_assignments(json_object *object, Args words)
{
	for (const char *word : words) {
		const char *eq = strchr(word, '=');
		if (eq == nullptr || eq == word)
			return usage_error("'%s' is not NAME=VALUE", word);
		hx::Owned<char, free> name(must(strndup(word, static_cast<size_t>(eq - word))));
		hx::tools::add(object, name.get(), value_of(eq + 1));
	}
	return ok;
}

int build_names(json_object *args, const char *member, Args words)
{
	Ptr names(must(json_object_new_array()));
	for (const char *word : words)
		if (json_object_array_add(names.get(), string_value(word).release()) != 0)
			hx::tools::out_of_memory();
	hx::tools::add(args, member, std::move(names));
	return ok;
}

int build_set(json_object *args, const char *member, Args words)
{
	Ptr confs(must(json_object_new_object()));
	json_object *object = confs.get();
	hx::tools::add(args, member, std::move(confs));
	return add_assignments(object, words);
}

// TARGET [ACTION] [NAME=VALUE...]: ACTION is the word after TARGET when it
// holds no '='.
int build_revalidate(json_object *args, const char *, Args words)
{
	Ptr target(must(json_object_new_object()));
	json_object *object = target.get();
	hx::tools::add(args, words[0], std::move(target));
	words = words.subspan(1);
	if (!words.empty() && strchr(words[0], '=') == nullptr) {
		hx::tools::add(object, "action", string_value(words[0]));
		words = words.subspan(1);
	}
	return add_assignments(object, words);
}

struct Command {
	const char *name;
	const char *method;	// nullptr: the raw request text
	const char *member;	// of "arguments"
	const char *no_words;	// the usage error without words
	int (*build)(json_object *args, const char *member, Args words);
};

constexpr Command commands[] = {
	{"get", "pref-get", "confs", "get needs at least one KEY", build_names},
	{"info", "pref-get", "infos", "info needs at least one ITEM", build_names},
	{"set", "pref-set", "confs", "set needs at least one KEY=JSON", build_set},
	{"revalidate", "revalidate", nullptr, "revalidate needs a TARGET", build_revalidate},
	{"raw", nullptr, nullptr, nullptr, nullptr},
};

// Standard input up to its first NUL, which ends the request text anyway;
// false on a read error, with the reason printed.
bool read_input(Request &request)
{
	char *text = nullptr;
	size_t size = 0;
	errno = 0;
	ssize_t len = getdelim(&text, &size, '\0', stdin);
	request.input.reset(text);
	if (len < 0 && errno == ENOMEM)
		hx::tools::out_of_memory();
	if (len < 0 && ferror(stdin)) {
		warn("cannot read standard input");
		return false;
	}
	request.text = len > 0 ? text : "";
	return true;
}

int raw_request(Request &request, const Options &opt, Args words)
{
	if (opt.tag != nullptr)
		return usage_error("--tag cannot be added to a raw request");
	if (words.size() > 1)
		return usage_error("raw takes at most one JSON text");
	if (!words.empty())
		request.text = words[0];
	else if (!read_input(request))
		return no_connection;
	if (*request.text == '\0')
		return usage_error("empty request");
	return ok;
}

// {"method":...,"arguments":{...}[,"tag":...]} or the raw text.
int build_request(Request &request, const Options &opt, Args words)
{
	if (words.empty())
		return usage_error("missing command");
	const Command *cmd = hx::tools::find(commands, words[0]);
	if (cmd == nullptr)
		return usage_error("unknown command '%s'", words[0]);
	words = words.subspan(1);
	if (cmd->method == nullptr)
		return raw_request(request, opt, words);
	if (words.empty())
		return usage_error("%s", cmd->no_words);
	request.json.reset(must(json_object_new_object()));
	Ptr args(must(json_object_new_object()));
	json_object *object = args.get();
	hx::tools::add(request.json.get(), "method", string_value(cmd->method));
	hx::tools::add(request.json.get(), "arguments", std::move(args));
	if (int status = cmd->build(object, cmd->member, words); status != ok)
		return status;
	if (opt.tag != nullptr)
		hx::tools::add(request.json.get(), "tag", value_of(opt.tag));
	request.text = must(json_object_to_json_string_ext(request.json.get(), JSON_C_TO_STRING_PLAIN));
	return ok;
}

int parse_timeout(const char *text, int &timeout)
{
	char *end;
	errno = 0;
	long value = strtol(text, &end, 10);
	if (errno != 0 || end == text || *end != '\0' || value < 1 || value > timeout_max)
		return usage_error("bad time-out '%s': whole seconds from 1 to %ld expected", text,
				   timeout_max);
	timeout = static_cast<int>(value);
	return ok;
}

int parse_options(Options &opt, int argc, char **argv)
{
	static constexpr option longopts[] = {
		{"help", no_argument, nullptr, 'h'},
		{"tag", required_argument, nullptr, 'T'},
		{nullptr, 0, nullptr, 0},
	};
	opterr = 0;
	int c;
	while ((c = getopt_long(argc, argv, "+:s:t:ph", longopts, nullptr)) != -1) {
		switch (c) {
		case 's': opt.socket_path = optarg; break;
		case 't':
			if (int status = parse_timeout(optarg, opt.timeout); status != ok)
				return status;
			break;
		case 'p': opt.pretty = true; break;
		case 'h': opt.help = true; return ok;
		case 'T': opt.tag = optarg; break;
		default: return hx::tools::option_error(c, argv);	// ':' or '?'
		}
	}
	return ok;
}

// Prints the reply on stdout and judges its "result".
int report(json_object *reply, bool pretty)
{
	printf("%s\n", json_object_to_json_string_ext(reply, pretty ? JSON_C_TO_STRING_PRETTY
								     : JSON_C_TO_STRING_PLAIN));
	json_object *result = nullptr;
	if (!json_object_object_get_ex(reply, "result", &result)) {
		warnx("reply without \"result\"");
		return failed;
	}
	bool is_string = hx::json::is(result, json_type_string);
	std::string_view text = is_string ? hx::json::text(result)
					  : json_object_to_json_string_ext(result, JSON_C_TO_STRING_PLAIN);
	if (is_string && text == "success")
		return ok;
	while (text.ends_with('\n'))
		text.remove_suffix(1);
	warnx("%.*s", static_cast<int>(text.size()), text.data());
	return failed;
}

int exchange(const Options &opt, const char *request)
{
	Ptr reply;
	int status = hx::tools::exchange(opt.socket_path, opt.timeout, request, reply);
	return status == ok ? report(reply.get(), opt.pretty) : status;
}

}  // namespace

int main(int argc, char **argv)
{
	Options opt;
	if (strcmp(program_invocation_short_name, "api.cgi") == 0)
		return hx::tools::cgi::main(opt.socket_path);
	if (int status = parse_options(opt, argc, argv); status != ok)
		return status;
	if (opt.help) {
		fputs(help, stdout);
		return ok;
	}
	Request request;
	if (int status = build_request(request, opt, Args(argv + optind, argc - optind)); status != ok)
		return status;
	return exchange(opt, request.text);
}
