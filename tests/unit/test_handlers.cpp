// The handler plumbing that whole requests through the daemon cannot reach:
// the handlers' own checks, the target dispatcher's options, the deferred
// reply, running out of memory, stored values answered without the tokener.
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "ipc/handlers.h"
#include "ipc/ipc.h"
#include "ipc/registry.h"
#include "ipc/target.h"
#include "tests/unit/support.h"

namespace {

void capture(json_object *reply, void *client)
{
	static_cast<std::vector<std::string> *>(client)->push_back(json_object_to_json_string(reply));
}

#define FAILS(result) "{ \"arguments\": { }, \"result\": \"" result "\" }"

TEST(PrefHandlers, RefuseMissingOrWrongArguments)
{
	struct {
		ipc_handler_func handler;
		const char *arguments;
		bool reply;
		const char *out;
	} cases[] = {
		{prefGet, "null", true, "Input parameters are NULL.\n"}, {prefGet, "{}", false, "Input parameters are NULL.\n"},
		{prefGet, "[1]", true, "Unexpected json type.\n"}, {prefSet, "null", true, "Input parameter is NULL.\n"},
		{prefSet, "5", true, "Unexpected json type.\n"},
	};
	for (const auto &c : cases) {
		hx::json::Ptr arguments = hx::json::parse(c.arguments), reply(c.reply ? json_object_new_object() : nullptr);
		const char *result = nullptr;
		EXPECT_EQ(hx::test::stdout_of([&] { result = c.handler(arguments.get(), reply.get(), nullptr); }), c.out);
		EXPECT_STREQ(result, "invalid arguments");
	}
	int context;
	EXPECT_DEATH(prefGet(hx::json::parse("{}").get(), json_object_new_object(), &context),
		     "ipcimpl:[0-9]+: prefGet: Assertion `idle_data == \\(\\(void \\*\\)0\\)' failed");
	EXPECT_DEATH(prefSet(hx::json::parse("{}").get(), json_object_new_object(), &context),
		     "ipcimpl:[0-9]+: prefSet: Assertion `idle_data == \\(\\(void \\*\\)0\\)' failed");
}

// A method table of the test's own: the deferred mode, running out of memory.
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
	ipc_request_exec_table(hx::json::parse(text).get(), reply_func, &replies, test_methods);
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
	EXPECT_EQ(replies[0], "{ \"tag\": 9, \"arguments\": { \"late\": 2 }, \"result\": \"success\" }");
	// A shape error is answered at once; without a reply function nothing is sent.
	EXPECT_EQ(hx::test::stdout_of([] { EXPECT_EQ(exec_table(R"({"method":"stash","arguments":5})")[0], FAILS("invalid arguments")); }),
		  "invalid arguments.\n");
	EXPECT_EQ(stashed, nullptr);
	exec_table(R"({"method":"stash","arguments":{}})", nullptr);
	context.reset(std::exchange(stashed, nullptr));
	context->reply_func(context->reply.get(), context->client);
	// Out of memory: the request is dropped and the next one answered.
	EXPECT_EQ(hx::test::stdout_of([&] { EXPECT_TRUE(exec_table(R"({"method":"exhaust","arguments":{}})").empty()); }),
		  "out of memory\n");
	EXPECT_EQ(exec_table(R"({"method":"none","arguments":{}})")[0], FAILS("method not found"));
}

// Stored values answered without json-c's tokener come out exactly as the
// tokener's; everything else is left to it.
TEST(PlainValues, SameObjectAsTheTokenerOrNone)
{
	for (const char *text : {"\"on\"", "\"\"", "\"a/b c~\"", "0", "-7", "123456789012345678", "true", "false"}) {
		hx::json::Ptr plain = hx::ipc::plain_value(text), parsed = hx::json::parse(text);
		ASSERT_TRUE(plain && parsed) << text;
		EXPECT_EQ(json_object_get_type(plain.get()), json_object_get_type(parsed.get())) << text;
		EXPECT_STREQ(json_object_to_json_string(plain.get()), json_object_to_json_string(parsed.get())) << text;
	}
	for (const char *text : {"-0", "007", "1.5", "1e3", "1234567890123456789", "-", "", "null", "\"a\\\"b\"",
				 "\"\xc3\xa9\"", "\"tab\there\"", "\"\x7f\"", "\"on\" ", " \"on\"", "\"on", "\"", "[ 1 ]", "True", "1 2"})
		EXPECT_FALSE(hx::ipc::plain_value(text)) << text;
}


std::string ran;
const char *start(json_object *) { ran += "start;"; return nullptr; }
const char *stop(json_object *) { ran += "stop;"; return "stop failed"; }
constexpr hx::ipc::Action actions[] = {{"start", start}, {"stop", stop}};

TEST(Target, ShapeThenOneActionRow)
{
	struct {
		const char *value, *result, *out, *ran;
	} cases[] = {
		{"null", "Invalid arguments.", "Input parameter is NULL.\n", ""},
		{"[1]", "Invalid arguments.", "Unexpected json type.\n", ""},
		{"\"start\"", "Invalid arguments.", "Unexpected json type.\n", ""},
		{"{}", nullptr, "", ""}, {"{\"action\": 1}", nullptr, "", ""}, {"{\"action\": [\"start\"]}", nullptr, "", ""},
		{"{\"action\": \"START\"}", nullptr, "", ""}, {"{\"action\": \"star\"}", nullptr, "", ""},
		{"{\"action\": \"startx\"}", nullptr, "", ""}, {"{\"action\": \"start\\u0000x\"}", nullptr, "", "start;"},
		{"{\"action\": \"start\"}", nullptr, "", "start;"}, {"{\"action\": \"stop\"}", "stop failed", "", "stop;"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.value);
		ran.clear();
		const char *result = nullptr;
		EXPECT_EQ(hx::test::stdout_of([&] {
			result = hx::ipc::run_target(hx::json::parse(c.value).get(), hx::ipc::Target{actions, "Invalid arguments."});
		}), c.out);
		EXPECT_STREQ(result, c.result);
		EXPECT_EQ(ran, c.ran);
	}
	static std::string announced;
	ran.clear();
	hx::ipc::Target t{actions};
	t.unknown = "fail", t.ignore_case = true, t.announce = [](const char *a) { announced += a; };
	EXPECT_STREQ(hx::ipc::run_target(hx::json::parse("{}").get(), t), "fail");
	EXPECT_STREQ(hx::ipc::run_target(hx::json::parse("{\"action\":\"x\"}").get(), t), "fail");
	EXPECT_EQ(hx::ipc::run_target(hx::json::parse("{\"action\":\"Start\"}").get(), t), nullptr);
	EXPECT_EQ(ran + announced, "start;xStart");
}

TEST(RegistryDeathTest, ASecondLoadMeetsEveryNameAgain)
{
	infos_init();
	revalidates_init();
	EXPECT_DEATH(infos_init(), "ipcimpl:[0-9]+: infos_init: Assertion `\\(\\(void \\*\\)0\\) == old' failed");
	EXPECT_DEATH(revalidates_init(), "ipcimpl:[0-9]+: revalidates_init: Assertion `\\(\\(void \\*\\)0\\) == old' failed");
	EXPECT_EQ(revalidate_find(nullptr), nullptr);
	EXPECT_EQ(info_find("wan"), nullptr);
}

}  // namespace
