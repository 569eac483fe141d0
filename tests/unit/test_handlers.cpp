// What whole requests cannot reach: the deferred reply, running out of
// memory, stored values answered without the tokener.
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "ipc/handlers.h"
#include "ipc/ipc.h"
#include "tests/unit/support.h"

namespace {

void capture(json_object *reply, void *client)
{
	static_cast<std::vector<std::string> *>(client)->push_back(json_object_to_json_string(reply));
}
ipc_deferred_reply *stashed;
const char *stash(json_object *, json_object *, void *deferred) { return stashed = static_cast<ipc_deferred_reply *>(deferred), "x"; }
const char *exhaust(json_object *, json_object *, void *) { throw std::bad_alloc(); }
constexpr ipc_method methods[] = {{"stash", 0, stash}, {"exhaust", 1, exhaust}, {"stash", 1, exhaust}};

TEST(DeferredReply, TheHandlerOwnsTheContextAndAnswersLater)
{
	std::vector<std::string> replies;
	ipc_request_exec_table(hx::json::parse(R"({"method":"stash","arguments":{},"tag":9})").get(), capture, &replies, methods);
	std::unique_ptr<ipc_deferred_reply> context(std::exchange(stashed, nullptr));
	ASSERT_TRUE(context && replies.empty());
	EXPECT_EQ(hx::json::member(context->reply.get(), "arguments"), context->reply_arguments);
	hx::json::add_string(context->reply.get(), "result", "success");
	context->reply_func(context->reply.get(), context->client);
	EXPECT_EQ(hx::test::stdout_of([&] {
		ipc_request_exec_table(hx::json::parse(R"({"method":"exhaust","arguments":{}})").get(), capture, &replies, methods);
	}), "out of memory\n");
	EXPECT_EQ(replies, std::vector<std::string>{"{ \"tag\": 9, \"arguments\": { }, \"result\": \"success\" }"});
}

// Stored values answered without the tokener come out as the tokener's; the others are left to it.
TEST(PlainValues, SameTextAsTheTokenerOrNone)
{
	const char *texts[] = {"\"on\"", "\"a/b c~\"", "-7", "123456789012345678", "false", "-0", "007", "1.5",
			       "1234567890123456789", "\"a\\\"b\"", "\"\xc3\xa9\"", "\"\x7f\"", "\"on", "\"on\" ", "null", "True"};
	for (size_t i = 0; i < std::size(texts); i++) {
		hx::json::Ptr plain = hx::ipc::plain_value(texts[i]);
		ASSERT_EQ(plain != nullptr, i < 5) << texts[i];
		if (!plain)
			continue;
		EXPECT_STREQ(json_object_to_json_string(plain.get()), json_object_to_json_string(hx::json::parse(texts[i]).get()));
	}
}

}  // namespace
