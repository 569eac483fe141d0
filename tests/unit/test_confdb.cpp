// The store layer's copy and swap of raw records.
#include "conf/confdb.h"

#include <unistd.h>

#include "tests/unit/support.h"

namespace {

using namespace std::literals;
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

}  // namespace
