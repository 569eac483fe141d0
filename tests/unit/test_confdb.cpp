// The store layer's copy and swap of raw records and its JSON readers.
#include "conf/confdb.h"

#include <unistd.h>

#include "tests/unit/support.h"

namespace {

using namespace std::literals;
using hx::conf::Error;
using hx::conf::Store;
using hx::test::console;
using hx::test::fetch;
using hx::test::put;
using hx::test::Stores;
using std::nullopt;
using Opt = std::optional<std::string>;

// A copy takes the source's NUL along and adds one; a swap from a missing
// value is refused by the store, so that key keeps its own.
TEST_F(Stores, CopyAndSwapMoveRawValues)
{
	const std::string no_a = "_confSet: Item 'a' not inserted. \n", no_b = "_confSet: Item 'b' not inserted. \n";
	struct {
		bool swap;
		Opt a, b;
		int result;
		Opt a_after, b_after;
		std::string console;
	} cases[] = {{false, "old", "abc", 0, "abc\0\0"s, "abc\0"s, ""}, {false, "keep", nullopt, -1, "keep\0"s, nullopt, ""},
		     {true, "A", "BB", 0, "BB\0\0"s, "A\0\0"s, ""}, {true, nullopt, "bv", 0, "bv\0\0"s, "bv\0"s, no_b},
		     {true, "av", nullopt, 0, "av\0"s, "av\0\0"s, no_a}, {true, nullopt, nullopt, 0, nullopt, nullopt, no_a + no_b}};
	for (const auto &c : cases) {
		SCOPED_TRACE(testing::Message() << c.swap << " " << c.a.value_or("-") << " " << c.b.value_or("-"));
		unlink(sysconf.c_str());
		hx::test::console_reset();
		put(sysconf, "other", "o");
		for (auto [key, value] : {std::pair{"a", c.a}, std::pair{"b", c.b}})
			if (value)
				put(sysconf, key, *value);
		EXPECT_EQ(c.swap ? sysConfSwap("a", "b") : sysConfCopy("a", "b"), c.result);
		EXPECT_EQ(std::tuple(fetch(sysconf, "a"), fetch(sysconf, "b"), fetch(sysconf, "other"), console()),
			  std::tuple(c.a_after, c.b_after, Opt("o\0"s), c.console));
	}
}

// JSON text, its string form, and the form written into a generated file
// (no newline; with missing_empty a missing key is "").
TEST_F(Stores, StoredValuesParsedAsJsonAndText)
{
	const auto missing = tl::unexpected(Error::missing), bad = tl::unexpected(Error::bad_json);
	struct {
		std::optional<std::string_view> stored;
		tl::expected<std::string, Error> json, text;
		Opt file_text, file_text_or_empty;
	} cases[] = {{"{ \"a\": [ 1, 2 ] }\0"sv, "{ \"a\": [ 1, 2 ] }", "{ \"a\": [ 1, 2 ] }", "{ \"a\": [ 1, 2 ] }", "{ \"a\": [ 1, 2 ] }"},
		     {"\"HX-R1\"\0"sv, "\"HX-R1\"", "HX-R1", "HX-R1", "HX-R1"}, {"42"sv, "42", "42", "42", "42"},
		     {"\"a\\nb\"\0"sv, "\"a\\nb\"", "a\nb", nullopt, nullopt}, {"word\0"sv, bad, bad, nullopt, nullopt},
		     {"null\0"sv, bad, bad, nullopt, nullopt}, {"\0"sv, missing, missing, nullopt, ""}, {nullopt, missing, missing, nullopt, ""}};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.stored.value_or("(none)")));
		unlink(rtconf.c_str());
		if (c.stored)
			hx::test::put_raw(rtconf, "k\0"sv, *c.stored);
		auto json = hx::conf::json(Store::rtconf, "k");
		EXPECT_EQ(json.map([](const hx::json::Ptr &v) { return std::string(json_object_to_json_string(v.get())); }), c.json);
		EXPECT_EQ(hx::conf::text(Store::rtconf, "k"), c.text);
		EXPECT_EQ(hx::conf::file_text(Store::rtconf, "k"), c.file_text);
		EXPECT_EQ(hx::conf::file_text(Store::rtconf, "k", true), c.file_text_or_empty);
	}
}

}  // namespace
