// The WAN and station flow where it runs no command: what the station and
// the saved profiles ask of the WAN (through a recording link), and the
// argument shapes of the "wpa", "sys_event" and "ap_profiles" targets.
#include <string>

#include "core/fmt.h"
#include "core/json.h"
#include "net/lanwan.h"
#include "tests/unit/support.h"
#include "wifi/profiles.h"
#include "wifi/sta.h"

namespace {

using hx::test::put;

std::string asked;	// what the WAN was asked, in order

int stop() { asked += "stop;"; return 0; }
int services_stop() { asked += "services_stop;"; return 0; }
int ctrl(const char *ifname, int up) { asked += hx::format("ctrl %s %d;", ifname, up); return 0; }
int fallback() { asked += "fallback;"; return 0; }

class WanFlow : public hx::test::Stores {
protected:
	void SetUp() override
	{
		Stores::SetUp();
		asked.clear();
		hx::wifi::set_wan_link({stop, services_stop, ctrl, fallback});
	}
	// A stored value without its NUL; "-" when absent.
	std::string stored(const std::string &store, const char *key)
	{
		std::optional<std::string> bytes = hx::test::fetch(store, key);
		return bytes ? bytes->substr(0, bytes->size() - 1) : "-";
	}
};

struct EventCase {
	const char *event;
	const char *armed;	// rtconf "wan_auto_retry_times", nullptr: absent
	const char *status;	// what the event leaves in "wifi_sta_status"
	const char *reason;
	const char *asked;
};

class StationEvent : public WanFlow, public ::testing::WithParamInterface<EventCase> {};

// Only the exact event names, trailing blank included, do anything, and
// only a hotspot that cannot be found falls back, once armed.
TEST_P(StationEvent, SetsStatusAndFallsBackWhenArmed)
{
	const EventCase &c = GetParam();
	if (c.armed != nullptr)
		put(rtconf, "wan_auto_retry_times", c.armed);
	wpa_ctrl_event_handler(c.event, nullptr, nullptr);
	EXPECT_EQ(stored(rtconf, "wifi_sta_status"), c.status);
	EXPECT_EQ(stored(rtconf, "wifi_sta_reason"), c.reason);
	EXPECT_EQ(asked, c.asked);
}

INSTANTIATE_TEST_SUITE_P(
	Events, StationEvent,
	::testing::Values(
		EventCase{"CTRL-EVENT-ASSOC-REJECT ", "1", "\"Disconnected\"", "2", ""},
		EventCase{"CTRL-EVENT-SSID-TEMP-DISABLED ", "1", "\"Disconnected\"", "1", ""},
		EventCase{"CTRL-EVENT-SSID-NO-MATCH ", "1", "\"Disconnected\"", "2", "fallback;"},
		EventCase{"CTRL-EVENT-SSID-NO-MATCH ", "0", "\"Disconnected\"", "2", ""},
		EventCase{"CTRL-EVENT-SSID-NO-MATCH ", "\"1\"", "\"Disconnected\"", "2", "fallback;"},
		EventCase{"CTRL-EVENT-SSID-NO-MATCH ", nullptr, "\"Disconnected\"", "2", ""},
		EventCase{"CTRL-EVENT-ASSOC-REJECT", "1", "-", "-", ""},
		EventCase{"CTRL-EVENT-SCAN-RESULTS ", "1", "-", "-", ""},
		EventCase{"TDLS-LINK-UP ", "1", "-", "-", ""}));

TEST_F(WanFlow, NoEventNameDoesNothing)
{
	EXPECT_EQ(wpa_ctrl_event_handler(nullptr, nullptr, nullptr), 0);
	EXPECT_EQ(stored(rtconf, "wifi_sta_status"), "-");
}

const char *const two_profiles =
	"[ { \"id\": 1, \"essid\": \"Cafe\", \"encrypt\": \"none\", \"pass\": \"\", "
	"\"workmode\": \"Station Mode\" }, { \"id\": 2, \"essid\": \"Home\", \"encrypt\": "
	"\"none\", \"pass\": \"\", \"workmode\": \"Station Mode\" } ]";

struct ForgetCase {
	const char *essids;
	const char *wan_status;	// rtconf, as stored
	int result;
	const char *asked;
	const char *slot1;	// "wan_sta_ssid1" afterwards
};

class Forget : public WanFlow, public ::testing::WithParamInterface<ForgetCase> {};

// The WAN is stopped when all is forgotten, or the hotspot it is up on.
TEST_P(Forget, StopsTheWanOnlyForItsHotspot)
{
	const ForgetCase &c = GetParam();
	put(sysconf, "ap_profile", two_profiles);
	put(sysconf, "wan_sta_ssid", "\"Cafe\"");
	put(rtconf, "wan_status", c.wan_status);
	hx::json::Ptr essids = hx::json::parse(c.essids);
	EXPECT_EQ(gw_profiles_forget(essids.get()), c.result);
	EXPECT_EQ(asked, c.asked);
	EXPECT_EQ(stored(sysconf, "wan_sta_ssid1"), c.slot1);
}

INSTANTIATE_TEST_SUITE_P(
	Profiles, Forget,
	::testing::Values(
		ForgetCase{"[]", "\"WAN_DOWN\"", 0, "stop;", "\"\""},
		ForgetCase{"[\"Cafe\"]", "\"WAN_UP\"", 0, "stop;", "\"Home\""},
		ForgetCase{"[\"Cafe\"]", "\"WAN_DOWN\"", 0, "", "\"Home\""},
		ForgetCase{"[\"Cafe\"]", "WAN_UP", 0, "", "\"Home\""},
		ForgetCase{"[\"Home\"]", "\"WAN_UP\"", 0, "", "\"Cafe\""},
		ForgetCase{"[\"Home\", \"Nope\", \"Cafe\"]", "\"WAN_UP\"", -1, "", "\"Cafe\""},
		ForgetCase{"{}", "\"WAN_UP\"", -1, "", "-"}));

struct ShapeCase {
	const char *(*target)(json_object *value, json_object *reply, void *deferred);
	const char *value;	// "" for a null value
	const char *result;	// nullptr for success
	const char *out;
};

class TargetShape : public WanFlow, public ::testing::WithParamInterface<ShapeCase> {};

// Each of these targets answers its own way to a null value and to a
// missing action; none of these values reaches a command.
TEST_P(TargetShape, Answers)
{
	const ShapeCase &c = GetParam();
	hx::json::Ptr value = hx::json::parse(c.value);
	const char *result = nullptr;
	std::string out = hx::test::stdout_of(
		[&] { result = c.target(value.get(), nullptr, nullptr); });
	EXPECT_STREQ(result, c.result);
	EXPECT_EQ(out, c.out);
}

constexpr const char *invalid = "invalid arguments";
constexpr const char *internal = "internal error";

INSTANTIATE_TEST_SUITE_P(
	Targets, TargetShape,
	::testing::Values(
		ShapeCase{_revalidate_wpa, "", invalid, "Input parameter is NULL.\n"},
		ShapeCase{_revalidate_wpa, "[1]", invalid, "Unexpected json type.\n"},
		ShapeCase{_revalidate_wpa, "{}", internal, ""},
		ShapeCase{_revalidate_wpa, "{\"action\": 1}", internal, ""},
		ShapeCase{_revalidate_wpa, "{\"action\": \"restart\"}", nullptr, ""},
		ShapeCase{_revalidate_sysEvent, "", invalid, ""},
		ShapeCase{_revalidate_sysEvent, "\"x\"", invalid, "Unexpected json type.\n"},
		ShapeCase{_revalidate_sysEvent, "{\"action\": \"SYS_EVENT_HD_MOUNT\"}", internal, ""},
		ShapeCase{_revalidate_sysEvent, "{\"arg\": \"x\"}", internal, ""},
		ShapeCase{_revalidate_sysEvent, "{\"action\": \"X\", \"arg\": 1}", internal, ""},
		ShapeCase{_revalidate_sysEvent, "{\"action\": \"X\", \"arg\": \"\"}", nullptr, ""},
		ShapeCase{_revalidate_apProfiles, "", invalid, ""},
		ShapeCase{_revalidate_apProfiles, "[]", invalid, "Unexpected json type.\n"},
		ShapeCase{_revalidate_apProfiles, "{\"essid\": []}", invalid, ""},
		ShapeCase{_revalidate_apProfiles, "{\"action\": null}", nullptr, ""},
		ShapeCase{_revalidate_apProfiles, "{\"action\": \"Forget\"}", nullptr, ""},
		ShapeCase{_revalidate_apProfiles, "{\"action\": \"forget\"}", internal, ""}));

// Flags 0 and 1 would run the host's ifconfig; any other runs the empty
// command.
TEST(CtrlInterface, OtherFlagRunsTheEmptyCommand)
{
	EXPECT_EQ(ctrl_interface("hx-none0", 2), 0);
	EXPECT_EQ(ctrl_interface("hx-none0", -1), 0);
}

}  // namespace
