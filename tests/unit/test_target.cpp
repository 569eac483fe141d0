// The shared dispatcher of the service targets: the argument's shape is
// checked once, the action word picks one row.
#include "ipc/target.h"

#include <string>

#include "tests/unit/support.h"

namespace {

using hx::ipc::Action;
using hx::ipc::Target;

std::string ran;

const char *start(json_object *) { ran += "start;"; return nullptr; }
const char *stop(json_object *) { ran += "stop;"; return "stop failed"; }

constexpr Action actions[] = {{"start", start}, {"stop", stop}};

struct Case {
	const char *request;	// the target's value; "" for a null value
	const char *result;	// nullptr for success
	const char *out;	// standard output
	const char *ran;
};

class TargetShape : public ::testing::TestWithParam<Case> {};

TEST_P(TargetShape, AnswersAndRuns)
{
	const Case &c = GetParam();
	ran.clear();
	hx::json::Ptr value = hx::json::parse(c.request);
	const char *result = nullptr;
	std::string out = hx::test::stdout_of([&] {
		result = hx::ipc::run_target(value.get(), Target{actions, "Invalid arguments."});
	});
	EXPECT_STREQ(result, c.result);
	EXPECT_EQ(out, c.out);
	EXPECT_EQ(ran, c.ran);
}

INSTANTIATE_TEST_SUITE_P(
	Dispatch, TargetShape,
	::testing::Values(
		Case{"", "Invalid arguments.", "Input parameter is NULL.\n", ""},
		Case{"[1]", "Invalid arguments.", "Unexpected json type.\n", ""},
		Case{"\"start\"", "Invalid arguments.", "Unexpected json type.\n", ""},
		Case{"{}", nullptr, "", ""},
		Case{"{\"action\": 1}", nullptr, "", ""},
		Case{"{\"action\": [\"start\"]}", nullptr, "", ""},
		Case{"{\"action\": \"START\"}", nullptr, "", ""},
		Case{"{\"action\": \"star\"}", nullptr, "", ""},
		Case{"{\"action\": \"start\\u0000x\"}", nullptr, "", "start;"},
		Case{"{\"action\": \"start\"}", nullptr, "", "start;"},
		Case{"{\"action\": \"stop\"}", "stop failed", "", "stop;"}));

TEST(TargetOptions, UnknownAnswerCaseAndAnnounce)
{
	static std::string announced;
	ran.clear();
	Target t{actions};
	t.unknown = "fail";
	t.ignore_case = true;
	t.announce = [](const char *a) { announced += a; };
	EXPECT_STREQ(hx::ipc::run_target(hx::json::parse("{}").get(), t), "fail");
	EXPECT_STREQ(hx::ipc::run_target(hx::json::parse("{\"action\":\"x\"}").get(), t), "fail");
	EXPECT_EQ(hx::ipc::run_target(hx::json::parse("{\"action\":\"Start\"}").get(), t), nullptr);
	EXPECT_EQ(ran, "start;");
	EXPECT_EQ(announced, "xStart");
}

}  // namespace
