// The request protocol and the two preference methods, through whole
// requests: replies, standard output, warnings and the records stored.
#include "ipc/ipc.h"

#include <errno.h>

#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "ipc/handlers.h"
#include "tests/unit/support.h"

namespace {

using hx::test::put;
using hx::test::put_raw;
using namespace std::string_literals;

// The key index is built once per process: from these keys, at start.
class KeyIndex : public ::testing::Environment {
	void SetUp() override
	{
		std::string store = dir.file("index.gdbm");
		for (const char *key : {"a", "b", "n", "o", "wl_enable", "product_model"})
			put(store, key, "1");
		setenv("DB_FILE", store.c_str(), 1);
		ASSERT_EQ(ipc_init(), 0);
		unsetenv("DB_FILE");
	}
	hx::test::TempDir dir;
};
::testing::Environment *const key_index_env = ::testing::AddGlobalTestEnvironment(new KeyIndex);

void capture(json_object *reply, void *client)
{
	static_cast<std::vector<std::string> *>(client)->push_back(json_object_to_json_string(reply));
}

struct Outcome {
	ssize_t ret;
	int error;
	std::vector<std::string> replies;
	std::string out, err;
};

Outcome send(const char *text)
{
	Outcome r{};
	::testing::internal::CaptureStderr();
	r.out = hx::test::stdout_of([&] {
		errno = 0;
		r.ret = ipc_request_exec_json(text, -5, capture, &r.replies);
		r.error = errno;
	});
	r.err = ::testing::internal::GetCapturedStderr();
	return r;
}

class Requests : public hx::test::Stores {
protected:
	void SetUp() override
	{
		Stores::SetUp();
		put(sysconf, "lan_ipaddr", "\"192.168.1.1\"");
		put(sysconf, "n", "5");
		put(sysconf, "o", "{\"a\":[1,2]}");
		put(sysconf, "b", "true");
		put(sysconf, "wl_enable", "on");	// a script's value, not JSON
		put(sysconf, "a", "1");
		put(sysconf, "product_model", "\"HX100\"");
		put(sysconf, "late", "1");		// not in the index
		put(sysconf, "nul", "null");
		put(sysconf, "empty", "");
		put_raw(sysconf, "bare\0"s, "7");	// stored without its NUL
		put_raw(sysconf, "tail\0"s, "\"x\"\0junk"s);
	}
};

struct Case {
	const char *request;
	const char *reply;	// nullptr: none is sent
	const char *out = "";
	const char *err = "";
};

class Protocol : public Requests, public ::testing::WithParamInterface<Case> {};

TEST_P(Protocol, Answers)
{
	const Case &c = GetParam();
	Outcome r = send(c.request);
	EXPECT_EQ(r.out, c.out);
	EXPECT_EQ(r.err, c.err);
	EXPECT_EQ(hx::test::console(), "");
	if (c.reply == nullptr) {
		// Text that is not JSON is refused; JSON that is not an object
		// is consumed, with the line.
		EXPECT_EQ(r.ret, *c.out != '\0' ? static_cast<ssize_t>(strlen(c.request)) : -1);
		EXPECT_EQ(r.error, *c.out != '\0' ? 0 : EINVAL);
		EXPECT_TRUE(r.replies.empty());
		return;
	}
	EXPECT_EQ(r.ret, static_cast<ssize_t>(strlen(c.request)));
	EXPECT_EQ(r.replies, std::vector<std::string>{c.reply});
}

#define REPLY(args, result) "{ \"arguments\": " args ", \"result\": \"" result "\""
#define GET(confs, infos) REPLY("{ \"confs\": " confs ", \"infos\": " infos " }", "success") " }"

INSTANTIATE_TEST_SUITE_P(
	Methods, Protocol,
	::testing::Values(
		Case{R"({"method":"revalidate","arguments":{},"tag":7})", REPLY("{ }", "success") ", \"tag\": 7 }"},
		Case{R"({"method":"bogus","arguments":{}})", REPLY("{ }", "method not found") " }"},
		Case{R"({"method":"Revalidate","arguments":{}})", REPLY("{ }", "method not found") " }"},
		Case{R"({"method":5,"arguments":{}})", REPLY("{ }", "method not found") " }"},
		Case{R"({"method":"pref-get"})", REPLY("{ }", "invalid arguments") " }", "invalid arguments.\n"},
		Case{R"({"method":"revalidate","arguments":[1]})", REPLY("{ }", "invalid arguments") " }", "invalid arguments.\n"},
		Case{R"({"arguments":5})", REPLY("{ }", "no method name") " }", "invalid arguments.\n"},
		Case{R"({"arguments":{}})", REPLY("{ }", "no method name") " }"},
		Case{R"({"method":null,"arguments":{}})", REPLY("{ }", "no method name") " }"},
		Case{R"({"method":"bogus"})", REPLY("{ }", "method not found") " }", "invalid arguments.\n"},
		Case{R"({"method":"bogus","arguments":{},"tag":"t1"})", REPLY("{ }", "method not found") ", \"tag\": \"t1\" }"},
		Case{R"({"tag":[1,"x",{"y":null}],"method":"revalidate","extra":1,"arguments":{}})",
		     REPLY("{ }", "success") ", \"tag\": [ 1, \"x\", { \"y\": null } ] }"},
		Case{R"({"method":"revalidate","arguments":{},"tag":null})", REPLY("{ }", "success") ", \"tag\": null }"},
		Case{"hello", nullptr},
		Case{R"({"method":"revalidate",)", nullptr},
		Case{"", nullptr},
		Case{"null", nullptr, "request_exec: invalid parameters.\n"},
		Case{R"(["method"])", nullptr, "request_exec: invalid parameters.\n"},
		// pref-get
		Case{R"({"method":"pref-get","arguments":{}})", GET("{ }", "{ }"), "No confs field.\nNo info field.\n"},
		Case{R"({"method":"pref-get","arguments":{"confs":"n","infos":[]}})", GET("{ }", "{ }"),
		     "confs invalid data.\n"},
		Case{R"({"method":"pref-get","arguments":{"infos":"s_time"}})", GET("{ }", "{ }"),
		     "No confs field.\ninfos invalid data.\n"},
		Case{R"({"method":"pref-get","arguments":{"confs":["lan_ipaddr","no_such","lan_ipaddr"],"infos":["no_such"]}})",
		     GET("{ \"lan_ipaddr\": \"192.168.1.1\" }", "{ }")},
		Case{R"({"method":"pref-get","arguments":{"confs":["n","o","b"],"infos":[]}})",
		     GET("{ \"n\": 5, \"o\": { \"a\": [ 1, 2 ] }, \"b\": true }", "{ }")},
		// values that do not parse are left out, values without their NUL
		// end where their record ends
		Case{R"({"method":"pref-get","arguments":{"confs":["wl_enable","nul","empty",null,5,"bare","tail"],"infos":[]}})",
		     GET("{ \"bare\": 7, \"tail\": \"x\" }", "{ }")},
		// pref-set
		Case{R"({"method":"pref-set","arguments":{}})", REPLY("{ }", "internal error") " }", "",
		     "[warn] prefSet: No confs field.\n\n"},
		Case{R"({"method":"pref-set","arguments":{"confs":["a",1]}})", REPLY("{ }", "internal error") " }", "",
		     "[warn] confs not required type data.\n\n"},
		Case{R"({"method":"pref-set","arguments":{"confs":{"a":10,"product_model":"X","b":20}}})",
		     REPLY("{ }", "internal error") " }", "", "[warn] Set invalid sysconf key product_model.\n\n"},
		Case{R"({"method":"pref-set","arguments":{"confs":{"late":2}}})", REPLY("{ }", "internal error") " }", "",
		     "[warn] Set invalid sysconf key late.\n\n"}));

TEST_F(Requests, SetStoresJsonTextAndStopsAtTheFirstRefusedKey)
{
	const char *requests[] = {
		R"({"method":"pref-set","arguments":{"confs":{"wl_enable":"on","n":42,"o":{"k":[1,"v"]},"b":true}}})",
		R"({"method":"pref-set","arguments":{"confs":{"a":10,"product_model":"X","b":20}}})",
	};
	for (const char *request : requests)
		send(request);
	auto record = [&](const char *key) { return hx::test::fetch(sysconf, key).value_or("(none)"); };
	EXPECT_EQ(record("wl_enable"), "\"on\"\0"s);
	EXPECT_EQ(record("n"), "42\0"s);
	EXPECT_EQ(record("o"), "{ \"k\": [ 1, \"v\" ] }\0"s);
	EXPECT_EQ(record("a"), "10\0"s);
	EXPECT_EQ(record("product_model"), "\"HX100\"\0"s);
	EXPECT_EQ(record("b"), "true\0"s);	// the second request stopped before it
	EXPECT_EQ(send(R"({"method":"pref-get","arguments":{"confs":["wl_enable"]}})").replies[0],
		  GET("{ \"wl_enable\": \"on\" }", "{ }"));
}

TEST_F(Requests, StoreThatCannotBeOpened)
{
	setenv("DB_FILE", dir.file("missing/sysconf.gdbm").c_str(), 1);
	Outcome get = send(R"({"method":"pref-get","arguments":{"confs":["a"],"infos":[]}})");
	EXPECT_EQ(get.replies[0], REPLY("{ \"confs\": { } }", "Database open failed!\\n") " }");
	EXPECT_EQ(get.out, "Database open failed!\n");
	Outcome set = send(R"({"method":"pref-set","arguments":{"confs":{"a":1}}})");
	EXPECT_EQ(set.replies[0], REPLY("{ }", "internal error") " }");
	EXPECT_EQ(set.err, "[warn] Database open failed!\n\n");
}

TEST(PrefHandlers, RefuseMissingOrWrongArguments)
{
	struct {
		ipc_handler_func handler;
		const char *arguments;	// nullptr: none
		bool reply;
		const char *out;
	} cases[] = {
		{prefGet, nullptr, true, "Input parameters are NULL.\n"},
		{prefGet, "{}", false, "Input parameters are NULL.\n"},
		{prefGet, "[1]", true, "Unexpected json type.\n"},
		{prefSet, nullptr, true, "Input parameter is NULL.\n"},
		{prefSet, "5", true, "Unexpected json type.\n"},
	};
	for (const auto &c : cases) {
		hx::json::Ptr arguments = hx::json::parse(c.arguments != nullptr ? c.arguments : "null");
		hx::json::Ptr reply(c.reply ? json_object_new_object() : nullptr);
		const char *result = nullptr;
		EXPECT_EQ(hx::test::stdout_of([&] { result = c.handler(arguments.get(), reply.get(), nullptr); }),
			  c.out);
		EXPECT_STREQ(result, "invalid arguments");
	}
}

TEST(PrefHandlersDeathTest, ADeferredContextIsAnAssertion)
{
	hx::json::Ptr arguments(json_object_new_object()), reply(json_object_new_object());
	int context;
	EXPECT_DEATH(prefGet(arguments.get(), reply.get(), &context),
		     "ipcimpl:[0-9]+: prefGet: Assertion `idle_data == \\(\\(void \\*\\)0\\)' failed");
	EXPECT_DEATH(prefSet(arguments.get(), reply.get(), &context),
		     "ipcimpl:[0-9]+: prefSet: Assertion `idle_data == \\(\\(void \\*\\)0\\)' failed");
}

// ---- a method table of the test's own: the deferred mode, running out of memory

ipc_deferred_reply *stashed;

const char *stash(json_object *, json_object *, void *deferred)
{
	stashed = static_cast<ipc_deferred_reply *>(deferred);
	return "ignored";
}

const char *exhaust(json_object *, json_object *reply_arguments, void *)
{
	json_object_object_add(reply_arguments, "partial", json_object_new_int(1));
	throw std::bad_alloc();
}

constexpr ipc_method test_methods[] = {{"stash", 0, stash}, {"exhaust", 1, exhaust}, {"stash", 1, exhaust}};

std::vector<std::string> exec_table(const char *text, ipc_reply_func reply_func = capture)
{
	std::vector<std::string> replies;
	hx::json::Ptr request = hx::json::parse(text);
	ipc_request_exec_table(request.get(), reply_func, &replies, test_methods);
	return replies;
}

TEST(DeferredReply, TheHandlerOwnsTheContextAndAnswersLater)
{
	std::vector<std::string> replies = exec_table(R"({"method":"stash","arguments":{"k":"v"},"tag":9})");
	EXPECT_TRUE(replies.empty());
	std::unique_ptr<ipc_deferred_reply> context(std::exchange(stashed, nullptr));
	ASSERT_NE(context, nullptr);
	EXPECT_STREQ(json_object_to_json_string(context->reply.get()), "{ \"tag\": 9, \"arguments\": { } }");
	EXPECT_EQ(hx::json::member(context->reply.get(), "arguments"), context->reply_arguments);
	json_object_object_add(context->reply_arguments, "late", json_object_new_int(2));
	hx::json::add_string(context->reply.get(), "result", "success");
	context->reply_func(context->reply.get(), context->client);
	EXPECT_EQ(replies, std::vector<std::string>{
				   "{ \"tag\": 9, \"arguments\": { \"late\": 2 }, \"result\": \"success\" }"});

	// A shape error is answered at once; without a reply function nothing is sent.
	EXPECT_EQ(hx::test::stdout_of([] {
			  EXPECT_EQ(exec_table(R"({"method":"stash","arguments":5})")[0],
				    REPLY("{ }", "invalid arguments") " }");
		  }),
		  "invalid arguments.\n");
	EXPECT_EQ(stashed, nullptr);
	exec_table(R"({"method":"stash","arguments":{}})", nullptr);
	context.reset(std::exchange(stashed, nullptr));
	context->reply_func(context->reply.get(), context->client);
}

TEST(OutOfMemory, TheRequestIsDroppedAndTheNextOneAnswered)
{
	std::vector<std::string> replies;
	EXPECT_EQ(hx::test::stdout_of([&] { replies = exec_table(R"({"method":"exhaust","arguments":{}})"); }),
		  "out of memory\n");
	EXPECT_TRUE(replies.empty());
	EXPECT_EQ(exec_table(R"({"method":"none","arguments":{}})")[0], REPLY("{ }", "method not found") " }");
}

}  // namespace

// The stored values pref-get answers without json-c's tokener must come out
// exactly as the tokener's; everything else must be left to it.
TEST(PlainValues, SameObjectAsTheTokenerOrNone)
{
	struct Case {
		const char *text;
		bool plain;
	};
	constexpr Case cases[] = {
		{"\"on\"", true}, {"\"\"", true}, {"\"192.168.100.1\"", true}, {"\"a/b c~\"", true},
		{"0", true}, {"42", true}, {"-7", true}, {"123456789012345678", true},
		{"true", true}, {"false", true},
		{"-0", false}, {"007", false}, {"1.5", false}, {"1e3", false}, {"1234567890123456789", false},
		{"-", false}, {"", false}, {"null", false}, {"\"a\\\"b\"", false}, {"\"\xc3\xa9\"", false},
		{"\"tab\there\"", false}, {"\"on\" ", false}, {" \"on\"", false}, {"\"on", false},
		{"[ 1, 2 ]", false}, {"{ \"a\": 1 }", false}, {"True", false}, {"1 2", false},
	};
	for (const Case &c : cases) {
		hx::json::Ptr plain = hx::ipc::plain_value(c.text);
		ASSERT_EQ(plain != nullptr, c.plain) << c.text;
		if (!plain)
			continue;
		hx::json::Ptr parsed = hx::json::parse(c.text);
		ASSERT_TRUE(parsed) << c.text;
		EXPECT_EQ(json_object_get_type(plain.get()), json_object_get_type(parsed.get())) << c.text;
		EXPECT_STREQ(json_object_to_json_string(plain.get()), json_object_to_json_string(parsed.get()))
			<< c.text;
	}
}
