// The static-route target's refusals and errors, which run nothing (the
// shell guard aborts the program if a command is run), and the time zone
// that "datetime" stores.
#include <optional>
#include <string>

#include "core/json.h"
#include "net/route.h"
#include "tests/unit/support.h"

namespace {

struct RouteCase {
	const char *name;
	const char *request;
	std::optional<std::string> routes;	// nullopt: the key is missing
	const char *wan_if;
	const char *result;
	const char *out;
};

class StaticRoute : public hx::test::Stores, public ::testing::WithParamInterface<RouteCase> {};

TEST_P(StaticRoute, RunsNothing)
{
	const RouteCase &c = GetParam();
	hx::test::put(rtconf, "wan_if", c.wan_if);
	hx::test::put(rtconf, "lan_if", "\"br0\"");
	if (c.routes)
		hx::test::put(sysconf, "routes_static", *c.routes);
	hx::json::Ptr value = hx::json::parse(c.request);
	const char *result = nullptr;
	std::string out = hx::test::stdout_of(
		[&] { result = _revalidate_staticRoute(value.get(), nullptr, nullptr); });
	EXPECT_STREQ(result, c.result);
	EXPECT_EQ(out, c.out);
}

constexpr char error[] = "internal error";
constexpr char all[] = "{\"action\": \"commitall\"}";
constexpr char wan[] = "\"mlan0\"";

std::string route(const std::string &dest, const char *inf = "LAN")
{
	return "[{\"id\": \"1\", \"dest\": \"" + dest + "\", \"subnet\": \"255.255.0.0\", \"gw\": \"\", "
	       "\"metric\": \"1\", \"inf\": \"" + inf + "\"}]";
}

// "/sbin/route add -net D netmask 255.255.0.0 metric 1 dev br0" has 255
// characters with a D of 197, one too many with 198.
const std::string long_dest(198, '1');

INSTANTIATE_TEST_SUITE_P(
	Refusals, StaticRoute,
	::testing::Values(
		RouteCase{"shell_text_in_dest", all, "[{\"dest\": \"10.0.0.0;reboot\"}]", wan, error, ""},
		RouteCase{"command_substitution_in_gw", all, "[{\"gw\": \"$(id)\"}]", wan, error, ""},
		RouteCase{"space_in_metric", all, "[{\"metric\": \"1 2\"}]", wan, error, ""},
		RouteCase{"unsafe_wan_interface", all, route("10.0.0.0", "WAN"), "\"ml an0\"", error, ""},
		RouteCase{"command_over_255", all, route(long_dest), wan, error, ""},
		RouteCase{"single_route_refused", "{\"action\": \"commitdelete\", \"id\": \"1\"}",
			  route("10.0.0.0`id`"), wan, error, ""},
		RouteCase{"interface_over_15", "{\"action\": \"x\"}", "[]", "\"abcdefghijklmnop\"", error, ""},
		RouteCase{"routes_missing", "{}", std::nullopt, wan, error, ""},
		RouteCase{"routes_not_json", "{\"action\": \"bogus\"}", "[ {", wan, error,
			  "json_tokener_parse failed.\n"},
		RouteCase{"routes_not_array", all, "{}", wan, error, "Unexpected json type.\n"},
		RouteCase{"null_element", all, "[null]", wan, error, "json_object_array_get_idx failed.\n"},
		RouteCase{"number_element", all, "[1]", wan, error, "Unexpected json type.\n"},
		RouteCase{"non_string_action", "{\"action\": 5}", "[ {", wan, nullptr, ""},
		RouteCase{"no_matching_id", "{\"action\": \"commitadd\", \"id\": \"9\"}", route("10.0.0.0"),
			  wan, nullptr, ""},
		RouteCase{"no_id", "{\"action\": \"commitadd\"}", route("10.0.0.0"), wan, nullptr, ""},
		RouteCase{"empty_list", all, "[]", wan, nullptr, ""},
		RouteCase{"null_argument", "null", "[]", wan, "invalid arguments", "Input parameter is NULL.\n"}),
	[](const auto &param) { return std::string(param.param.name); });

class Datetime : public hx::test::Stores {};

// The stored sign is the opposite of the user's offset; the time 0 leaves
// the clock alone.
TEST_F(Datetime, StoresTheNegatedZone)
{
	const std::pair<const char *, const char *> cases[] = {
		{"{\"action\": \"set\", \"time\": 0, \"timezone\": 8}", "\"GMT-8\""},
		{"{\"action\": \"set\", \"timezone\": 0}", "\"GMT+0\""},
		{"{\"action\": \"set\", \"timezone\": -2147483648}", "\"GMT+2147483648\""},
		{"{\"action\": \"Set\", \"timezone\": 3}", "\"GMT+2147483648\""},
	};
	for (const auto &[request, stored] : cases) {
		EXPECT_EQ(_revalidate_datetime(hx::json::parse(request).get(), nullptr, nullptr), nullptr);
		EXPECT_EQ(hx::test::fetch(sysconf, "timezone"), std::string(stored) + '\0') << request;
	}
	EXPECT_EQ(dtime, 0);
}

}  // namespace
