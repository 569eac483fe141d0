// The store layer's copy and swap of raw records and its JSON readers, on
// temporary stores written and read with gdbm directly.
#include "conf/confdb.h"

#include "tests/unit/support.h"

namespace {

using namespace std::literals;
using hx::conf::Error;
using hx::conf::Store;
using hx::test::console;
using hx::test::fetch;
using hx::test::put;
using hx::test::put_raw;
using std::nullopt;
using Opt = std::optional<std::string>;
using hx::test::Stores;

struct CopyCase {
	bool swap;
	Opt a, b;		// before
	int result;
	Opt a_after, b_after;	// the records' bytes
	std::string console;
};

class CopySwap : public Stores, public ::testing::WithParamInterface<CopyCase> {};

// A copy takes the source's NUL along and adds one; a swap from a missing
// value is refused by the store, so that key keeps its own.
TEST_P(CopySwap, ValuesMove)
{
	const CopyCase &c = GetParam();
	put(sysconf, "other", "o");
	for (auto [key, value] : {std::pair{"a", c.a}, std::pair{"b", c.b}})
		if (value)
			put(sysconf, key, *value);
	EXPECT_EQ(c.swap ? sysConfSwap("a", "b") : sysConfCopy("a", "b"), c.result);
	EXPECT_EQ(fetch(sysconf, "a"), c.a_after);
	EXPECT_EQ(fetch(sysconf, "b"), c.b_after);
	EXPECT_EQ(fetch(sysconf, "other"), "o\0"s);
	EXPECT_EQ(console(), c.console);
}

const std::string no_a = "_confSet: Item 'a' not inserted. \n", no_b = "_confSet: Item 'b' not inserted. \n";

INSTANTIATE_TEST_SUITE_P(Persistent, CopySwap,
			 ::testing::Values(CopyCase{false, "old", "abc", 0, "abc\0\0"s, "abc\0"s, ""},
					   CopyCase{false, "keep", nullopt, -1, "keep\0"s, nullopt, ""},
					   CopyCase{true, "A", "BB", 0, "BB\0\0"s, "A\0\0"s, ""},
					   CopyCase{true, nullopt, "bval", 0, "bval\0\0"s, "bval\0"s, no_b},
					   CopyCase{true, "aval", nullopt, 0, "aval\0"s, "aval\0\0"s, no_a},
					   CopyCase{true, nullopt, nullopt, 0, nullopt, nullopt, no_a + no_b}));

struct JsonCase {
	std::optional<std::string_view> stored;	// the value's bytes; nullopt: no record
	tl::expected<std::string, Error> json, text;	// the JSON rendering, the string form
	Opt file_text, file_text_or_empty;
};

class StoredJson : public Stores, public ::testing::WithParamInterface<JsonCase> {};

TEST_P(StoredJson, ParsedAsJsonAndText)
{
	const JsonCase &c = GetParam();
	if (c.stored)
		put_raw(rtconf, "k\0"sv, *c.stored);
	auto json = hx::conf::json(Store::rtconf, "k");
	EXPECT_EQ(json.map([](const hx::json::Ptr &v) { return std::string(json_object_to_json_string(v.get())); }), c.json);
	EXPECT_EQ(hx::conf::text(Store::rtconf, "k"), c.text);
	EXPECT_EQ(hx::conf::file_text(Store::rtconf, "k"), c.file_text);
	EXPECT_EQ(hx::conf::file_text(Store::rtconf, "k", true), c.file_text_or_empty);
}

const auto missing = tl::unexpected(Error::missing);
const auto bad = tl::unexpected(Error::bad_json);

INSTANTIATE_TEST_SUITE_P(
	Values, StoredJson,
	::testing::Values(JsonCase{"{ \"a\": [ 1, 2 ] }\0"sv, "{ \"a\": [ 1, 2 ] }", "{ \"a\": [ 1, 2 ] }",
				   "{ \"a\": [ 1, 2 ] }", "{ \"a\": [ 1, 2 ] }"},
			  JsonCase{"\"HX-R1\"\0"sv, "\"HX-R1\"", "HX-R1", "HX-R1", "HX-R1"},
			  JsonCase{"42"sv, "42", "42", "42", "42"},
			  JsonCase{"\"a\\nb\"\0"sv, "\"a\\nb\"", "a\nb", nullopt, nullopt},
			  JsonCase{"word\0"sv, bad, bad, nullopt, nullopt}, JsonCase{"null\0"sv, bad, bad, nullopt, nullopt},
			  JsonCase{"\0"sv, missing, missing, nullopt, ""}, JsonCase{nullopt, missing, missing, nullopt, ""}));

TEST_F(Stores, SetfAndARefusedSet)
{
	EXPECT_EQ(hx::conf::setf(Store::sysconf, "k", "\"%s\"", "on"), 0);
	EXPECT_EQ(rtConfSet("k", "r"), 0);
	EXPECT_EQ(fetch(sysconf, "k"), "\"on\"\0"s);
	EXPECT_EQ(fetch(rtconf, "k"), "r\0"s);
	setenv("DB_FILE", dir.file("no_dir/sysconf.gdbm").c_str(), 1);
	EXPECT_EQ(sysConfSet("k", "v"), -1);
	EXPECT_EQ(console(), "");	// the store could not be opened: nothing to refuse
}

}  // namespace
