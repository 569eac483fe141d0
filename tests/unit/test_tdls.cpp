// TDLS: the supplicant's events, the items and the "tdls" target, called
// directly (no supplicant here: every request to it fails).
#include <string>

#include "core/json.h"
#include "tests/unit/support.h"
#include "wifi/scan.h"

namespace {

using Item = const char *(*)(json_object *, json_object *, void *);

// The item's member as the daemon renders it.
std::string render(Item item)
{
	hx::json::Ptr infos(json_object_new_object());
	hx::json::Ptr name(json_object_new_string("i"));
	EXPECT_EQ(item(name.get(), infos.get(), nullptr), nullptr);
	return json_object_to_json_string(json_object_object_get(infos.get(), "i"));
}

// A new discovery empties the list (its request fails here).
void forget_peers()
{
	hx::test::stdout_of([] { render(info_s_scantdlsdevice); });
}

constexpr const char *idle = "{ \"state\": \"idle\", \"peer\": \"\" }";

TEST(Tdls, EventsFillTheItems)
{
	forget_peers();
	EXPECT_EQ(render(info_s_scantdlsdeviceresult), "[ ]");
	const char *peers[] = {"aa:bb:cc:dd:ee:ff", "AA:BB:CC:DD:EE:FF", "02:00:00:00:00:01",
			       "garbage", "02:00:00:00:00:01x", nullptr};
	std::string out = hx::test::stdout_of([&] {
		for (const char *peer : peers)
			wpa_tdls_event_handler("TDLS-DISC-RESP ", peer, nullptr);
		wpa_tdls_event_handler(nullptr, nullptr, nullptr);
		wpa_tdls_event_handler("TDLS-LINK-UP ", nullptr, nullptr);
	});
	EXPECT_EQ(out, "TDLS: Discovered peer aa:bb:cc:dd:ee:ff\n"
		       "TDLS: Discovered peer AA:BB:CC:DD:EE:FF\n"
		       "TDLS: Discovered peer 02:00:00:00:00:01\n"
		       "TDLS: Link up\n");
	EXPECT_EQ(render(info_s_scantdlsdeviceresult),
		  "[ { \"mac\": \"aa:bb:cc:dd:ee:ff\" }, { \"mac\": \"02:00:00:00:00:01\" } ]");
	EXPECT_EQ(render(info_s_tdlsstatus), "{ \"state\": \"connected\", \"peer\": \"\" }");
	hx::test::stdout_of([] { wpa_tdls_event_handler("TDLS-LINK-DOWN ", nullptr, nullptr); });
	EXPECT_EQ(render(info_s_tdlsstatus), idle);
}

TEST(Tdls, DiscoveredPeersAreBounded)
{
	forget_peers();
	hx::test::stdout_of([] {
		for (int i = 0; i < 40; i++) {
			std::string mac = "02:00:00:00:01:" + std::string(1, "0123456789abcdef"[i / 16])
					  + "0123456789abcdef"[i % 16];
			wpa_tdls_event_handler("TDLS-DISC-RESP ", mac.c_str(), nullptr);
		}
	});
	hx::json::Ptr list = hx::json::parse(render(info_s_scantdlsdeviceresult).c_str());
	EXPECT_EQ(json_object_array_length(list.get()), 16u);
}

struct Setup {
	const char *peer;
	const char *out;
};

class TdlsSetup : public ::testing::TestWithParam<Setup> {};

TEST_P(TdlsSetup, FailsWithoutSupplicantAndStaysIdle)
{
	int rc = 0;
	EXPECT_EQ(hx::test::stdout_of([&] { rc = wifi_sta_tdls_setup(GetParam().peer); }), GetParam().out);
	EXPECT_EQ(rc, -1);
	EXPECT_EQ(render(info_s_tdlsstatus), idle);
}

INSTANTIATE_TEST_SUITE_P(
	Peers, TdlsSetup,
	::testing::Values(Setup{"aa:bb:cc:dd:ee:ff", "WPACli: Not connected to wpa_supplicant, command "
						     "TDLS_SETUP aa:bb:cc:dd:ee:ff dropped\n"},
			  Setup{"not a mac", "TDLS: Invalid peer address\n"},
			  Setup{nullptr, "TDLS: Invalid peer address\n"}));

struct Request {
	const char *value;
	const char *result;
};

class TdlsTarget : public ::testing::TestWithParam<Request> {};

// With a peer discovered: a "peer" member that is not a MAC address (null
// included) is refused rather than replaced by the discovered one.
TEST_P(TdlsTarget, Answers)
{
	forget_peers();
	hx::test::stdout_of([] { wpa_tdls_event_handler("TDLS-DISC-RESP ", "02:00:00:00:00:09", nullptr); });
	hx::json::Ptr value = hx::json::parse(GetParam().value);
	const char *result = nullptr;
	hx::test::stdout_of([&] { result = _revalidate_tdls(value.get(), nullptr, nullptr); });
	EXPECT_STREQ(result, GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(
	Values, TdlsTarget,
	::testing::Values(Request{R"({"action": "start"})", "internal error"},
			  Request{R"({"action": "start", "peer": null})", "invalid arguments"},
			  Request{R"({"action": "start", "peer": 5})", "invalid arguments"},
			  Request{R"({"action": "start", "peer": "02:00:00:00:00:0"})", "invalid arguments"},
			  Request{R"({"action": "stop"})", nullptr},
			  Request{R"({"action": "pause"})", nullptr},
			  Request{R"(["start"])", "invalid arguments"}));

TEST(TdlsItems, CheckTheirArguments)
{
	const Item items[] = {info_s_tdlsstatus, info_s_scantdlsdeviceresult, info_cutthrough_status,
			      info_s_scantdlsdevice};
	hx::json::Ptr infos(json_object_new_object());
	for (Item item : items) {
		std::string out = hx::test::stdout_of([&] {
			EXPECT_STREQ(item(nullptr, infos.get(), nullptr), "Invalid arguments.");
			EXPECT_STREQ(item(infos.get(), nullptr, nullptr), "Invalid arguments.");
		});
		EXPECT_EQ(out, "Input parameters are NULL.\nInput parameters are NULL.\n");
	}
}

}  // namespace
