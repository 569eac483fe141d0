// The revalidate walk and the guard that refuses every target while a
// firmware upgrade is under way.
#include <vector>

#include "ipc/handlers.h"
#include "ipc/registry.h"
#include "tests/unit/support.h"

namespace {

class Targets : public ::testing::Environment {
	void SetUp() override { revalidates_init(); }
};
::testing::Environment *const targets_env = ::testing::AddGlobalTestEnvironment(new Targets);

struct Busy {
	const char *fwup_status;	// nullptr: absent
	int busy;
};

class BusyGuard : public hx::test::Stores, public ::testing::WithParamInterface<Busy> {};

TEST_P(BusyGuard, ReadsTheUpgradeStage)
{
	hx::test::put(rtconf, "wan_if", "\"mlan0\"");
	hx::test::put(sysconf, "fwup_status", R"({"upgrade_stage": "ongoing"})");
	if (GetParam().fwup_status != nullptr)
		hx::test::put(rtconf, "fwup_status", GetParam().fwup_status);
	EXPECT_EQ(is_system_busy(), GetParam().busy);
}

INSTANTIATE_TEST_SUITE_P(
	Stages, BusyGuard,
	::testing::Values(Busy{nullptr, 0}, Busy{R"({"upgrade_stage": "ongoing"})", 1},
			  Busy{R"({"upgrade_stage": "idle"})", 0}, Busy{R"({"upgrade_stage": 5})", 0},
			  Busy{R"({"upgrade_stage": "Ongoing"})", 0}, Busy{"\"ongoing\"", 0},
			  Busy{R"({"progress": 50})", 0}, Busy{"", 0}, Busy{"ongoing", -1}, Busy{"null", -1}));

using Guard = hx::test::Stores;

TEST_F(Guard, FollowsTheStoreOnEveryCall)
{
	std::string other = dir.file("other.gdbm");
	hx::test::put(other, "fwup_status", R"({"upgrade_stage": "ongoing"})");
	EXPECT_EQ(is_system_busy(), 0);
	setenv("RT_DB_FILE", other.c_str(), 1);
	EXPECT_EQ(is_system_busy(), 1);
}

struct Walk {
	const char *fwup_status;	// nullptr: absent
	const char *arguments;
	const char *result;
	const char *out = "";
};

class RevalidateWalk : public hx::test::Stores, public ::testing::WithParamInterface<Walk> {};

TEST_P(RevalidateWalk, RunsKnownTargetsInOrder)
{
	const Walk &w = GetParam();
	if (w.fwup_status != nullptr)
		hx::test::put(rtconf, "fwup_status", w.fwup_status);
	hx::json::Ptr arguments = hx::json::parse(w.arguments), reply(json_object_new_object());
	const char *result = nullptr;
	EXPECT_EQ(hx::test::stdout_of([&] { result = revalidate(arguments.get(), reply.get(), nullptr); }),
		  w.out);
	EXPECT_STREQ(result, w.result);
	EXPECT_EQ(hx::test::console(), "");
}

constexpr const char *ongoing = R"({"upgrade_stage": "ongoing"})";

// "reboot" would signal the host's init if it ran: the guard must stop it.
INSTANTIATE_TEST_SUITE_P(
	Targets, RevalidateWalk,
	::testing::Values(
		Walk{nullptr, R"({"bogus": 1})", nullptr}, Walk{nullptr, "{}", nullptr},
		Walk{nullptr, R"({"video": 1, "thumbnail": {}, "owner_chg": null})", nullptr},
		Walk{ongoing, R"({"reboot": {}})", "system busy"},
		Walk{ongoing, R"({"bogus": 1, "Reboot": {}})", nullptr},
		Walk{ongoing, R"({"bogus": 1, "video": 1})", "system busy"},
		Walk{"not json", R"({"owner_chg": {}})", "system busy"},
		Walk{R"({"upgrade_stage": "idle"})", R"({"fw_upgrade": null})", "invalid arguments",
		     "Input parameter is NULL.\n"},
		// the first failure ends the walk: "upnp" would print its action
		Walk{nullptr, R"({"dhcp": 5, "upnp": {"action": "start"}})", "invalid arguments",
		     "Unexpected json type.\n"},
		Walk{nullptr, R"({"bogus": 1, "video": 1, "samba": 5, "video2": 1})", "invalid arguments",
		     "Unexpected json type.\n"},
		Walk{nullptr, "[{\"video\": 1}]", "invalid arguments", "Arguments are not required type data.\n"},
		Walk{nullptr, "5", "invalid arguments", "Arguments are not required type data.\n"},
		Walk{nullptr, "null", "invalid arguments", "Input parameters are NULL.\n"}));

}  // namespace
