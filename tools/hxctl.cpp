/* hxctl: the command-line client of hxsrvd.  Sends one request over the
 * daemon's socket (spec Parts 1.2, 2.1) and prints the reply.  Scripts and
 * CGI run it on every call, so it links json-c and nothing else. */
#include <errno.h>
#include <getopt.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <json-c/json.h>

#include "toolutil.h"

#define HXCTL_SOCKET "/var/tmp/socket"
#define HXCTL_TIMEOUT 30
#define HXCTL_TIMEOUT_MAX 2000000	/* seconds; keeps milliseconds in an int */

enum hxctl_status {
	HXCTL_OK = 0,
	HXCTL_FAILED = 1,	/* the reply's "result" is not "success" */
	HXCTL_NO_REPLY = 2,	/* closed or timed out before a complete reply */
	HXCTL_NO_CONNECTION = 3,	/* the request could not be delivered */
	HXCTL_USAGE = EX_USAGE,	/* 64 */
};

/* The help lists out of memory under status 3. */
const int tool_out_of_memory_status = HXCTL_NO_CONNECTION;

struct hxctl_options {
	const char *socket_path;
	int timeout;		/* seconds */
	int pretty;
	int help;
	const char *tag;	/* JSON text or plain word, NULL for none */
};

/* Fills a request's "arguments" object from the command's words; returns
 * HXCTL_OK or an exit status, with its message already printed. */
typedef int (*hxctl_build_fn)(struct json_object *args, int argc, char **argv);

struct hxctl_command {
	const char *name;
	const char *method;	/* NULL: the raw request text */
	hxctl_build_fn build;
};

static const char hxctl_help[] =
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
	"  -s PATH       daemon socket (default " HXCTL_SOCKET ")\n"
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

/* Adds val (NULL is JSON null) to obj. */
static void
member_add(struct json_object *obj, const char *key, struct json_object *val)
{
	if (json_object_object_add(obj, key, val) != 0)
		must_(NULL);
}

/* The value of a command-line text: its JSON value, or else the text itself
 * as a JSON string.  NULL is JSON null. */
static struct json_object *
value_parse(const char *text)
{
	struct json_object *value;

	if (json_text(text, &value))
		return value;
	return must(json_object_new_string(text));
}

static void
names_add(struct json_object *args, const char *member, int argc, char **argv)
{
	struct json_object *names = must(json_object_new_array());
	int i;

	member_add(args, member, names);
	for (i = 0; i < argc; i++)
		if (json_object_array_add(names, must(json_object_new_string(argv[i]))) != 0)
			must_(NULL);
}

/* Adds each NAME=VALUE word to obj. */
static int
assignments_add(struct json_object *obj, int argc, char **argv)
{
	int i;

	for (i = 0; i < argc; i++) {
		const char *eq = strchr(argv[i], '=');
		char *name;

		if (eq == NULL || eq == argv[i])
			return usage_error("'%s' is not NAME=VALUE", argv[i]);
		name = must(strndup(argv[i], (size_t)(eq - argv[i])));
		member_add(obj, name, value_parse(eq + 1));
		free(name);
	}
	return HXCTL_OK;
}

static int
build_get(struct json_object *args, int argc, char **argv)
{
	if (argc < 1)
		return usage_error("get needs at least one KEY");
	names_add(args, "confs", argc, argv);
	return HXCTL_OK;
}

static int
build_info(struct json_object *args, int argc, char **argv)
{
	if (argc < 1)
		return usage_error("info needs at least one ITEM");
	names_add(args, "infos", argc, argv);
	return HXCTL_OK;
}

static int
build_set(struct json_object *args, int argc, char **argv)
{
	struct json_object *confs = must(json_object_new_object());

	member_add(args, "confs", confs);
	if (argc < 1)
		return usage_error("set needs at least one KEY=JSON");
	return assignments_add(confs, argc, argv);
}

/* TARGET [ACTION] [NAME=VALUE...]: ACTION is the word after TARGET when it
 * holds no '='. */
static int
build_revalidate(struct json_object *args, int argc, char **argv)
{
	struct json_object *target = must(json_object_new_object());
	int first = 1;

	if (argc < 1) {
		json_object_put(target);
		return usage_error("revalidate needs a TARGET");
	}
	member_add(args, argv[0], target);
	if (argc > 1 && strchr(argv[1], '=') == NULL) {
		member_add(target, "action", must(json_object_new_string(argv[1])));
		first = 2;
	}
	return assignments_add(target, argc - first, argv + first);
}

static const struct hxctl_command hxctl_commands[] = {
	{ "get", "pref-get", build_get },
	{ "info", "pref-get", build_info },
	{ "set", "pref-set", build_set },
	{ "revalidate", "revalidate", build_revalidate },
	{ "raw", NULL, NULL },
};

static const struct hxctl_command *
command_find(const char *name)
{
	size_t i;

	for (i = 0; i < sizeof(hxctl_commands) / sizeof(hxctl_commands[0]); i++)
		if (strcmp(hxctl_commands[i].name, name) == 0)
			return &hxctl_commands[i];
	return NULL;
}

/* All of standard input as a NUL-terminated text; NULL on a read error,
 * with the message printed. */
static char *
stdin_read(void)
{
	size_t len = 0, size = 4096;
	char *text = must(static_cast<char *>(malloc(size)));
	size_t n;

	while ((n = fread(text + len, 1, size - len - 1, stdin)) > 0) {
		len += n;
		if (len + 1 == size) {
			size *= 2;
			text = must(static_cast<char *>(realloc(text, size)));
		}
	}
	if (ferror(stdin)) {
		fprintf(stderr, "hxctl: cannot read standard input: %s\n", strerror(errno));
		free(text);
		return NULL;
	}
	text[len] = '\0';
	return text;
}

static char *
raw_text(const struct hxctl_options *opt, int argc, char **argv, int *status)
{
	char *text;

	*status = HXCTL_USAGE;
	if (opt->tag != NULL) {
		usage_error("--tag cannot be added to a raw request");
		return NULL;
	}
	if (argc > 1) {
		usage_error("raw takes at most one JSON text");
		return NULL;
	}
	text = argc == 1 ? must(strdup(argv[0])) : stdin_read();
	if (text == NULL) {
		*status = HXCTL_NO_CONNECTION;
		return NULL;
	}
	if (text[0] == '\0') {
		usage_error("empty request");
		free(text);
		return NULL;
	}
	*status = HXCTL_OK;
	return text;
}

/* {"method":...,"arguments":{...}[,"tag":...]} as text, or NULL with
 * *status set. */
static char *
json_request(const struct hxctl_options *opt, const struct hxctl_command *cmd,
	     int argc, char **argv, int *status)
{
	struct json_object *req = must(json_object_new_object());
	struct json_object *args = must(json_object_new_object());
	char *text = NULL;

	member_add(req, "method", must(json_object_new_string(cmd->method)));
	member_add(req, "arguments", args);
	*status = cmd->build(args, argc, argv);
	if (*status == HXCTL_OK) {
		if (opt->tag != NULL)
			member_add(req, "tag", value_parse(opt->tag));
		text = must(strdup(json_object_to_json_string_ext(req, JSON_C_TO_STRING_PLAIN)));
	}
	json_object_put(req);
	return text;
}

/* The request text for the command words, or NULL with *status set. */
static char *
request_build(const struct hxctl_options *opt, int argc, char **argv, int *status)
{
	const struct hxctl_command *cmd;

	if (argc < 1) {
		*status = usage_error("missing command");
		return NULL;
	}
	cmd = command_find(argv[0]);
	if (cmd == NULL) {
		*status = usage_error("unknown command '%s'", argv[0]);
		return NULL;
	}
	if (cmd->method == NULL)
		return raw_text(opt, argc - 1, argv + 1, status);
	return json_request(opt, cmd, argc - 1, argv + 1, status);
}

static int
timeout_parse(const char *text, int *timeout)
{
	char *end;
	long value;

	errno = 0;
	value = strtol(text, &end, 10);
	if (errno != 0 || end == text || *end != '\0' || value < 1 || value > HXCTL_TIMEOUT_MAX)
		return usage_error("bad time-out '%s': whole seconds from 1 to %d expected",
				   text, HXCTL_TIMEOUT_MAX);
	*timeout = (int)value;
	return HXCTL_OK;
}

static int
options_parse(struct hxctl_options *opt, int argc, char **argv)
{
	static const struct option longopts[] = {
		{ "help", no_argument, NULL, 'h' },
		{ "tag", required_argument, NULL, 'T' },
		{ NULL, 0, NULL, 0 },
	};
	int c;

	opterr = 0;
	while ((c = getopt_long(argc, argv, "+:s:t:ph", longopts, NULL)) != -1) {
		switch (c) {
		case 's':
			opt->socket_path = optarg;
			break;
		case 't':
			if (timeout_parse(optarg, &opt->timeout) != HXCTL_OK)
				return HXCTL_USAGE;
			break;
		case 'p':
			opt->pretty = 1;
			break;
		case 'h':
			opt->help = 1;
			return HXCTL_OK;
		case 'T':
			opt->tag = optarg;
			break;
		default:	/* ':' or '?' */
			return option_error(c, argv);
		}
	}
	return HXCTL_OK;
}

/* A connected socket, or -1 with the reason printed. */
static int
socket_connect(const char *path)
{
	struct sockaddr_un addr = {};
	addr.sun_family = AF_UNIX;
	int fd;

	if (strlen(path) >= sizeof(addr.sun_path)) {
		fprintf(stderr, "hxctl: cannot connect to %s: socket path too long\n", path);
		return -1;
	}
	strcpy(addr.sun_path, path);
	fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0 || connect(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0) {
		fprintf(stderr, "hxctl: cannot connect to %s: %s\n", path, strerror(errno));
		if (fd >= 0)
			close(fd);
		return -1;
	}
	return fd;
}

/* The daemon takes each read as one whole request, so the request goes out
 * in one write; the write side stays open until the reply is read (the
 * daemon closes on EOF and the reply would be lost). */
static int
request_send(int fd, const char *path, const char *text)
{
	size_t len = strlen(text);
	ssize_t n;

	do
		n = send(fd, text, len, MSG_NOSIGNAL);
	while (n < 0 && errno == EINTR);
	if (n < 0) {
		fprintf(stderr, "hxctl: cannot send request to %s: %s\n", path, strerror(errno));
		return HXCTL_NO_CONNECTION;
	}
	if ((size_t)n != len) {
		fprintf(stderr, "hxctl: cannot send request to %s: short write\n", path);
		return HXCTL_NO_CONNECTION;
	}
	return HXCTL_OK;
}

static long long
now_ms(void)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* 1 when fd is readable (or closed) before the deadline, 0 on time-out,
 * -1 on error. */
static int
readable_wait(int fd, long long deadline)
{
	struct pollfd pfd = { fd, POLLIN, 0 };
	int r;

	do {
		long long left = deadline - now_ms();

		if (left <= 0)
			return 0;
		r = poll(&pfd, 1, (int)left);
	} while (r < 0 && errno == EINTR);
	return r;
}

/* One chunk of the reply into buf: its length, 0 at end of file, -1 on
 * time-out or error (message printed). */
static ssize_t
reply_chunk(int fd, long long deadline, int timeout, char *buf, size_t size)
{
	ssize_t n;
	int r = readable_wait(fd, deadline);

	if (r == 0) {
		fprintf(stderr, "hxctl: no reply after %d s\n", timeout);
		return -1;
	}
	if (r > 0) {
		do
			n = read(fd, buf, size);
		while (n < 0 && errno == EINTR);
		if (n >= 0)
			return n;
	}
	fprintf(stderr, "hxctl: cannot read reply: %s\n", strerror(errno));
	return -1;
}

/* Feeds one chunk to the tokener: 1 when *reply is complete, 0 when more
 * is needed, -1 on malformed text (message printed). */
static int
reply_feed(struct json_tokener *tok, const char *chunk, size_t len, struct json_object **reply)
{
	enum json_tokener_error err;

	*reply = json_tokener_parse_ex(tok, chunk, (int)len);
	err = json_tokener_get_error(tok);
	if (err == json_tokener_success)
		return 1;
	if (err == json_tokener_continue)
		return 0;
	fprintf(stderr, "hxctl: malformed reply: %s\n", json_tokener_error_desc(err));
	return -1;
}

/* At end of file a NUL completes a pending number; anything else is cut. */
static int
reply_end(struct json_tokener *tok, struct json_object **reply)
{
	*reply = json_tokener_parse_ex(tok, "", 1);
	if (json_tokener_get_error(tok) == json_tokener_success)
		return 1;
	fputs("hxctl: connection closed without a complete reply\n", stderr);
	return -1;
}

/* Reads until one complete JSON value; HXCTL_OK with *reply (NULL for a
 * literal null) or HXCTL_NO_REPLY. */
static int
reply_read(int fd, int timeout, struct json_object **reply)
{
	struct json_tokener *tok = must(json_tokener_new());
	long long deadline = now_ms() + (long long)timeout * 1000;
	char buf[4096];
	int done = 0;

	while (done == 0) {
		ssize_t n = reply_chunk(fd, deadline, timeout, buf, sizeof(buf));

		if (n < 0)
			done = -1;
		else if (n == 0)
			done = reply_end(tok, reply);
		else
			done = reply_feed(tok, buf, (size_t)n, reply);
	}
	json_tokener_free(tok);
	return done == 1 ? HXCTL_OK : HXCTL_NO_REPLY;
}

/* Prints the reply on stdout and judges its "result". */
static int
reply_report(struct json_object *reply, int pretty)
{
	int flags = pretty ? JSON_C_TO_STRING_PRETTY : JSON_C_TO_STRING_PLAIN;
	struct json_object *result = NULL;
	const char *text;
	size_t len;

	printf("%s\n", json_object_to_json_string_ext(reply, flags));
	if (!json_object_object_get_ex(reply, "result", &result)) {
		fputs("hxctl: reply without \"result\"\n", stderr);
		return HXCTL_FAILED;
	}
	if (json_object_is_type(result, json_type_string)) {
		text = json_object_get_string(result);
		if (strcmp(text, "success") == 0)
			return HXCTL_OK;
	} else {
		text = json_object_to_json_string_ext(result, JSON_C_TO_STRING_PLAIN);
	}
	len = strlen(text);
	while (len > 0 && text[len - 1] == '\n')
		len--;
	fprintf(stderr, "hxctl: %.*s\n", (int)len, text);
	return HXCTL_FAILED;
}

static int
exchange(const struct hxctl_options *opt, const char *request)
{
	struct json_object *reply = NULL;
	int fd = socket_connect(opt->socket_path);
	int status;

	if (fd < 0)
		return HXCTL_NO_CONNECTION;
	status = request_send(fd, opt->socket_path, request);
	if (status == HXCTL_OK)
		status = reply_read(fd, opt->timeout, &reply);
	close(fd);
	if (status == HXCTL_OK)
		status = reply_report(reply, opt->pretty);
	json_object_put(reply);
	return status;
}

int
main(int argc, char **argv)
{
	struct hxctl_options opt = { HXCTL_SOCKET, HXCTL_TIMEOUT, 0, 0, NULL };
	char *request;
	int status = options_parse(&opt, argc, argv);

	if (status != HXCTL_OK)
		return status;
	if (opt.help) {
		fputs(hxctl_help, stdout);
		return HXCTL_OK;
	}
	request = request_build(&opt, argc - optind, argv + optind, &status);
	if (request == NULL)
		return status;
	status = exchange(&opt, request);
	free(request);
	return status;
}
