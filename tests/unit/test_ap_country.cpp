// The country table's channel count (tokens, sections, entries) and the
// access point's value escaping.
#include <optional>
#include <string>
#include <string_view>

#include "tests/unit/support.h"
#include "wifi/ap.h"

namespace {

using namespace std::string_view_literals;

// The layout of the table the device ships: comments are tokens too.
constexpr std::string_view table =
	"/* Domain and country mapping are in this section */\n"
	"COUNTRY: DOMAIN_CODE_FCC1 US CA TW\n"
	"COUNTRY: DOMAIN_CODE_ETSI DE FR GB\n"
	"COUNTRY: DOMAIN_CODE_MKK JP\n"
	"\n"
	"/* Domain name followed by set of triplets separated by comma */\n"
	"DOMAIN: DOMAIN_CODE_FCC1    1 11 30\n"
	"DOMAIN: DOMAIN_CODE_ETSI    1 13 20\n"
	"DOMAIN: DOMAIN_CODE_MKK     1 14 23\n"
	"DOMAIN: DOMAIN_CODE_MKK2    1 14 23\n"
	"DOMAIN: DOMAIN_CODE_END\n";

struct Lookup {
	const char *what;
	std::string_view table;
	const char *country;
	bool listed;
	std::optional<int> count;
};

class CountryTable : public ::testing::TestWithParam<Lookup> {};

TEST_P(CountryTable, ChannelCount)
{
	const Lookup &c = GetParam();
	hx::wifi::CountryEntry entry = hx::wifi::find_country_channels(c.table, c.country);
	EXPECT_EQ(entry.listed, c.listed) << c.what;
	EXPECT_EQ(entry.count, c.count) << c.what;
}

const std::string long_word = std::string(63, 'A') + "US";
const std::string split_word = "COUNTRY: D1 " + long_word + "\nDOMAIN: D1 1 11 30\n";

INSTANTIATE_TEST_SUITE_P(
	Lookups, CountryTable,
	::testing::Values(
		Lookup{"first domain", table, "US", true, 11},
		Lookup{"second domain", table, "DE", true, 13},
		Lookup{"a longer name is another domain", table, "JP", true, 14},
		Lookup{"not listed", table, "ZZ", false, std::nullopt},
		Lookup{"case matters", table, "us", false, std::nullopt},
		Lookup{"four fields", "COUNTRY: D1 US\nDOMAIN: D1 1 11 30 7\n", "US", true, std::nullopt},
		Lookup{"last entry, commas attached or alone",
		       "COUNTRY: D1 US\nDOMAIN: D1 1 11 30, 36 4 17 , 149 5,23\nDOMAIN: D2 1 2 3\n",
		       "US", true, 5},
		Lookup{"three fields per entry across commas",
		       "COUNTRY: D1 US DOMAIN: D1 1 11 30, 2 3 4, 5 12 6", "US", true, 12},
		Lookup{"next DOMAIN: ends the section",
		       "COUNTRY: D1 US\nDOMAIN: D1 1 11 30\nDOMAIN: D2 1 2 30\n", "US", true, 11},
		Lookup{"end of file ends it", "COUNTRY: D1 US\nDOMAIN: D1 1 9", "US", true, 9},
		Lookup{"section never found", "COUNTRY: D9 US\nDOMAIN: D1 1 11 30\n", "US", true, 0},
		Lookup{"domain token compared as a country", "COUNTRY: XX US\nDOMAIN: XX 1 7 30\n",
		       "XX", true, 7},
		Lookup{"domain right after DOMAIN: only", "COUNTRY: D1 US\nDOMAIN: D0 D1 1 11 30\n",
		       "US", true, 0},
		Lookup{"words split at 63 characters", split_word, "US", true, 11},
		Lookup{"a NUL ends a token", "COUNTRY: D1 US\0junk\nDOMAIN: D1 1 11\0 30\n"sv, "US",
		       true, 11}));

struct Printed {
	const char *table;	// nullptr: no file
	const char *country;
	const char *out;
	int count;
};

class CountryMessages : public ::testing::TestWithParam<Printed> {};

TEST_P(CountryMessages, PrintsTheOutcome)
{
	const Printed &c = GetParam();
	hx::test::TempDir dir;
	std::string path = c.table != nullptr ? dir.write("80211d_domain.conf", c.table)
					      : dir.file("80211d_domain.conf");
	int count = -1;
	std::string out = hx::test::stdout_of(
		[&] { count = hx::wifi::country_channel_count(path.c_str(), c.country); });
	EXPECT_EQ(out, c.out);
	EXPECT_EQ(count, c.count);
}

INSTANTIATE_TEST_SUITE_P(
	Outcomes, CountryMessages,
	::testing::Values(
		Printed{nullptr, "US", "File: 80211d_domain.conf opening Error\n", 0},
		Printed{"COUNTRY: D1 US\nDOMAIN: D1 1 11 30\n", "US",
			"Match success for Country = US in conf. \nno_of_chan = 11 \n", 11},
		Printed{"COUNTRY: D1 US\n", "ZZ", "No match found for Country = ZZ in conf. \n", 0},
		Printed{"COUNTRY: D1 US\nDOMAIN: D1 1 11 30 7\n", "US",
			"Match success for Country = US in conf. \nERR: Incorrect 80211d_domain.conf file\n",
			0}));

TEST(UapEscape, BackslashBeforeCommaAndEquals)
{
	const std::pair<std::string_view, std::string_view> cases[] = {
		{"a,b=c", "a\\,b\\=c"}, {"", ""}, {",,==", "\\,\\,\\=\\="}, {"plain \"text\"", "plain \"text\""},
	};
	for (const auto &[value, escaped] : cases)
		EXPECT_EQ(UapEscape(value), escaped) << value;
}

}  // namespace
