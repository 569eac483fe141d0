// The three stores and the key index of the persistent one, on temporary
// files written and read with gdbm directly.
#include "conf/confdb.h"

#include <sys/stat.h>
#include <unistd.h>

#include "core/fmt.h"
#include "tests/unit/support.h"

namespace {

using namespace std::literals;
using hx::conf::Error;
using hx::conf::Store;
using hx::test::console;
using hx::test::fetch;
using hx::test::put;
using hx::test::put_raw;

using Stores = hx::test::Stores;

bool exists(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0;
}

struct GetCase {
	std::string_view key, value;	// stored as they are
	std::optional<std::string> got;	// sysConfGet("k")
};

class Get : public Stores, public ::testing::WithParamInterface<GetCase> {};

TEST_P(Get, ReadsTheValueTextWithinItsSize)
{
	put_raw(sysconf, GetParam().key, GetParam().value);
	EXPECT_EQ(sysConfGet("k"), GetParam().got);
	EXPECT_EQ(console(), "");
}

INSTANTIATE_TEST_SUITE_P(Records, Get,
			 ::testing::Values(GetCase{"k\0"sv, "abc\0"sv, "abc"}, GetCase{"k\0"sv, "\0"sv, std::nullopt},
					   GetCase{"k"sv, "v\0"sv, std::nullopt}, GetCase{"k\0"sv, "abc"sv, "abc"},
					   GetCase{"k\0"sv, "ab\0cd\0"sv, "ab"}, GetCase{"other\0"sv, "v\0"sv, std::nullopt},
					   GetCase{"k2\0"sv, "v\0"sv, std::nullopt}));

TEST_F(Stores, EachStoreItsOwnFile)
{
	EXPECT_EQ(sysConfGet("k"), std::nullopt);
	EXPECT_EQ(rtConfGet("k"), std::nullopt);
	EXPECT_EQ(sysInfoGet("k"), std::nullopt);
	EXPECT_FALSE(exists(sysconf) || exists(rtconf) || exists(sysinfo));
	put(sysconf, "k", "sys");
	put(rtconf, "k", "rt");
	put(sysinfo, "k", "info");
	EXPECT_EQ(sysConfGet("k"), "sys");
	EXPECT_EQ(rtConfGet("k"), "rt");
	EXPECT_EQ(sysInfoGet("k"), "info");
	EXPECT_EQ(rtConfSet("wl_radio", "\"on\""), 0);
	EXPECT_EQ(fetch(rtconf, "wl_radio"), "\"on\"\0"s);
	EXPECT_EQ(fetch(sysconf, "wl_radio"), std::nullopt);
}

TEST_F(Stores, SetStoresTextAndOneNul)
{
	put(sysconf, "other", "o");
	for (auto [text, stored] : {std::pair{"abc"sv, "abc\0"sv}, std::pair{""sv, "\0"sv}, std::pair{"ab\0"sv, "ab\0\0"sv}}) {
		EXPECT_EQ(sysConfSet("k", text), 0);
		EXPECT_EQ(fetch(sysconf, "k"), stored);
	}
	EXPECT_EQ(hx::conf::setf(Store::sysconf, "k", "\"%s\"", "on"), 0);
	EXPECT_EQ(fetch(sysconf, "k"), "\"on\"\0"s);
	EXPECT_EQ(fetch(sysconf, "other"), "o\0"s);
	EXPECT_EQ(console(), "");
}

TEST_F(Stores, RefusedSetKeepsTheOldValue)
{
	put(sysconf, "k", "old");
	EXPECT_EQ(hx::conf::set_bytes(Store::sysconf, "k", nullptr), -1);
	EXPECT_EQ(console(), "_confSet: Item 'k' not inserted. \n");
	EXPECT_EQ(fetch(sysconf, "k"), "old\0"s);
	setenv("DB_FILE", dir.file("no_dir/sysconf.gdbm").c_str(), 1);
	EXPECT_EQ(sysConfSet("k", "v"), -1);
	EXPECT_EQ(console(), "_confSet: Item 'k' not inserted. \n");	// nothing more
}

TEST_F(Stores, SetCreatesTheStoreWithMode0664)
{
	mode_t old = umask(0);
	EXPECT_EQ(sysConfSet("k", "v"), 0);
	umask(old);
	struct stat st = {};
	stat(sysconf.c_str(), &st);
	EXPECT_EQ(st.st_mode & 07777, 0664u);
}

TEST_F(Stores, EnvironmentReadOnEveryCall)
{
	std::string other = dir.file("other.gdbm");
	put(sysconf, "k", "first");
	put(other, "k", "second");
	setenv("DB_FILE", other.c_str(), 1);
	EXPECT_EQ(sysConfGet("k"), "second");
	setenv("DB_FILE", sysconf.c_str(), 1);
	EXPECT_EQ(sysConfGet("k"), "first");
	setenv("RT_DB_FILE", "", 1);
	EXPECT_STREQ(hx::conf::path(Store::rtconf), "");
	unsetenv("INFO_DB_FILE");
	EXPECT_STREQ(hx::conf::path(Store::sysinfo), "/mnt/rwdata/sysinfo.gdbm");
}

struct CopyCase {
	bool swap;
	std::optional<std::string> a, b;	// before
	int result;
	std::optional<std::string> a_after, b_after;	// the records' bytes
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
	EXPECT_EQ(console(), c.console);
}

const std::string no_a = "_confSet: Item 'a' not inserted. \n", no_b = "_confSet: Item 'b' not inserted. \n";
const std::nullopt_t none = std::nullopt;

INSTANTIATE_TEST_SUITE_P(
	Persistent, CopySwap,
	::testing::Values(CopyCase{false, "old", "abc", 0, "abc\0\0"s, "abc\0"s, ""},
			  CopyCase{false, "keep", none, -1, "keep\0"s, none, ""},
			  CopyCase{true, "A", "BB", 0, "BB\0\0"s, "A\0\0"s, ""},
			  CopyCase{true, none, "bval", 0, "bval\0\0"s, "bval\0"s, no_b},
			  CopyCase{true, "aval", none, 0, "aval\0"s, "aval\0\0"s, no_a},
			  CopyCase{true, none, none, 0, none, none, no_a + no_b}));

// The index is built once per process: in a child of its own.  Its limit
// of 127 keys and its life across store changes are pinned by the daemon's
// own tests.
TEST_F(Stores, IndexMatchesWholeKeysAndRefusesReadOnlyOnes)
{
	put_raw(sysconf, "nonul", "1\0"sv);
	for (const char *key : {"withnul", "product_model", "product_description", "lan_ipaddr"})
		put(sysconf, key, "1");
	auto build = [] {
		int built = confIndexInit();
		std::string seen = hx::format("%d [%s]", built, console().c_str());
		for (const char *key : {"nonul", "withnul", "nonu", "product_model", "product_description", "lan_ipaddr",
					"LAN_IPADDR", "lan_ipaddr2", ""})
			seen += hx::format(" %d", confVerify(key));
		fputs(seen.c_str(), stderr);
		exit(0);
	};
	EXPECT_EXIT(build(), ::testing::ExitedWithCode(0), "^0 \\[\\] -1 0 -1 -1 -1 0 -1 -1 -1$");
	unlink(sysconf.c_str());
	EXPECT_EXIT(build(), ::testing::ExitedWithCode(0), "^-1 \\[Open sysconf.gdbm file failed.\n\\] -1 -1 -1 -1 -1 -1 -1 -1 -1$");
}

struct JsonCase {
	std::optional<std::string_view> stored;	// the value's bytes; nullopt: no record
	tl::expected<std::string, Error> json, text;	// the JSON rendering, the string form
	std::optional<std::string> file_text, file_text_or_empty;
};

class StoredJson : public Stores, public ::testing::WithParamInterface<JsonCase> {};

TEST_P(StoredJson, ParsedAsJsonAndText)
{
	const JsonCase &c = GetParam();
	if (c.stored)
		put_raw(rtconf, "k\0"sv, *c.stored);
	auto json = hx::conf::json(Store::rtconf, "k");
	auto rendered = json.map([](const hx::json::Ptr &v) { return std::string(json_object_to_json_string(v.get())); });
	EXPECT_EQ(rendered, c.json);
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
			  JsonCase{"42\0"sv, "42", "42", "42", "42"},
			  JsonCase{"\"a\\nb\"\0"sv, "\"a\\nb\"", "a\nb", std::nullopt, std::nullopt},
			  JsonCase{"word\0"sv, bad, bad, std::nullopt, std::nullopt},
			  JsonCase{"null\0"sv, bad, bad, std::nullopt, std::nullopt},
			  JsonCase{"\0"sv, missing, missing, std::nullopt, ""},
			  JsonCase{std::nullopt, missing, missing, std::nullopt, ""}));

}  // namespace
