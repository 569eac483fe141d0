/* wifi/country.c: the channel count by country of Part 5.3 on fixture
 * copies of the country table, with the messages it prints; and UapEscape. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" {
#include <cmocka.h>
}

#include "tests/unit/testutil.h"
#include "wifi/wifi.h"

/* The layout of Marvell's sample table: comments are tokens too. */
#define TABLE \
	"/* Domain and country mapping are in this section */\n" \
	"COUNTRY: DOMAIN_CODE_FCC1 US CA TW\n" \
	"COUNTRY: DOMAIN_CODE_ETSI DE FR GB\n" \
	"COUNTRY: DOMAIN_CODE_MKK JP\n" \
	"\n" \
	"/* Domain name followed by set of triplets separated by comma */\n" \
	"DOMAIN: DOMAIN_CODE_FCC1    1 11 30\n" \
	"DOMAIN: DOMAIN_CODE_ETSI    1 13 20\n" \
	"DOMAIN: DOMAIN_CODE_MKK     1 14 23\n" \
	"DOMAIN: DOMAIN_CODE_MKK2    1 14 23\n" \
	"DOMAIN: DOMAIN_CODE_END\n"

static char *fixture_dir;

static int
setup(void **state)
{
	(void)state;
	fixture_dir = tu_tempdir();
	return 0;
}

static int
teardown(void **state)
{
	(void)state;
	tu_rmtree(fixture_dir);
	free(fixture_dir);
	fixture_dir = NULL;
	return 0;
}

/* Runs the lookup of country on a table holding text (NULL: no file);
 * returns the count and compares what it printed with expected. */
static int
lookup(const char *text, const char *country, const char *expected)
{
	char *path = tu_path(fixture_dir, "80211d_domain.conf");
	struct tu_capture out;
	char *printed;
	FILE *fp;
	int count;

	if (text != NULL) {
		fp = fopen(path, "w");
		assert_non_null(fp);
		fputs(text, fp);
		assert_int_equal(fclose(fp), 0);
	}
	tu_capture_begin(&out, stdout);
	count = wl_countryChanCount(path, country);
	printed = tu_capture_end(&out);
	assert_string_equal(printed, expected);
	free(printed);
	remove(path);
	free(path);
	return count;
}

static void
test_match_us_gives_11(void **state)
{
	(void)state;
	assert_int_equal(lookup(TABLE, "US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 11 \n"), 11);
}

static void
test_match_de_gives_13_and_jp_14(void **state)
{
	(void)state;
	assert_int_equal(lookup(TABLE, "DE",
				"Match success for Country = DE in conf. \n"
				"no_of_chan = 13 \n"), 13);
	/* DOMAIN_CODE_MKK2 is not DOMAIN_CODE_MKK: the section ends before it. */
	assert_int_equal(lookup(TABLE, "JP",
				"Match success for Country = JP in conf. \n"
				"no_of_chan = 14 \n"), 14);
}

static void
test_no_match(void **state)
{
	(void)state;
	assert_int_equal(lookup(TABLE, "ZZ", "No match found for Country = ZZ in conf. \n"), 0);
	/* Case matters. */
	assert_int_equal(lookup(TABLE, "us", "No match found for Country = us in conf. \n"), 0);
}

static void
test_missing_file(void **state)
{
	(void)state;
	assert_int_equal(lookup(NULL, "US", "File: 80211d_domain.conf opening Error\n"), 0);
}

static void
test_fourth_field_is_an_error(void **state)
{
	(void)state;
	assert_int_equal(lookup("COUNTRY: D1 US\nDOMAIN: D1 1 11 30 7\n", "US",
				"Match success for Country = US in conf. \n"
				"ERR: Incorrect 80211d_domain.conf file\n"), 0);
}

static void
test_last_entry_wins(void **state)
{
	(void)state;
	/* Entries end at a comma, attached or alone; the last one's count. */
	assert_int_equal(lookup("COUNTRY: D1 US\n"
				"DOMAIN: D1 1 11 30, 36 4 17 , 149 5,23\n"
				"DOMAIN: D2 1 2 3\n", "US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 5 \n"), 5);
	/* Three entries of three fields each: no error across commas. */
	assert_int_equal(lookup("COUNTRY: D1 US DOMAIN: D1 1 11 30, 2 3 4, 5 12 6",
				"US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 12 \n"), 12);
}

static void
test_collection_ends_at_domain_or_eof(void **state)
{
	(void)state;
	/* "DOMAIN:" ends the section; the next domain's entry is not read. */
	assert_int_equal(lookup("COUNTRY: D1 US\nDOMAIN: D1 1 11 30\nDOMAIN: D2 1 2 30\n",
				"US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 11 \n"), 11);
	/* End of file without a newline ends it too. */
	assert_int_equal(lookup("COUNTRY: D1 US\nDOMAIN: D1 1 9", "US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 9 \n"), 9);
	/* The domain's section is never found: count 0. */
	assert_int_equal(lookup("COUNTRY: D9 US\nDOMAIN: D1 1 11 30\n", "US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 0 \n"), 0);
}

static void
test_domain_is_the_token_after_country_tag(void **state)
{
	(void)state;
	/* The token after "COUNTRY:" is itself compared with the code. */
	assert_int_equal(lookup("COUNTRY: XX US\nDOMAIN: XX 1 7 30\n", "XX",
				"Match success for Country = XX in conf. \n"
				"no_of_chan = 7 \n"), 7);
	/* The domain must directly follow "DOMAIN:". */
	assert_int_equal(lookup("COUNTRY: D1 US\nDOMAIN: D0 D1 1 11 30\n", "US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 0 \n"), 0);
}

static void
test_long_tokens_are_split_at_63(void **state)
{
	char text[256];

	(void)state;
	/* 63 "A"s then "US": the 65-character word is read as two tokens. */
	snprintf(text, sizeof(text), "COUNTRY: D1 %.63sUS\nDOMAIN: D1 1 11 30\n",
		 "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
	assert_int_equal(lookup(text, "US",
				"Match success for Country = US in conf. \n"
				"no_of_chan = 11 \n"), 11);
}

static void
test_uap_escape(void **state)
{
	(void)state;
	assert_string_equal(UapEscape("a,b=c"), "a\\,b\\=c");
	assert_string_equal(UapEscape(""), "");
	assert_string_equal(UapEscape(",,=="), "\\,\\,\\=\\=");
	assert_string_equal(UapEscape("plain text"), "plain text");
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test_setup_teardown(test_match_us_gives_11, setup, teardown),
		cmocka_unit_test_setup_teardown(test_match_de_gives_13_and_jp_14, setup, teardown),
		cmocka_unit_test_setup_teardown(test_no_match, setup, teardown),
		cmocka_unit_test_setup_teardown(test_missing_file, setup, teardown),
		cmocka_unit_test_setup_teardown(test_fourth_field_is_an_error, setup, teardown),
		cmocka_unit_test_setup_teardown(test_last_entry_wins, setup, teardown),
		cmocka_unit_test_setup_teardown(test_collection_ends_at_domain_or_eof, setup, teardown),
		cmocka_unit_test_setup_teardown(test_domain_is_the_token_after_country_tag, setup, teardown),
		cmocka_unit_test_setup_teardown(test_long_tokens_are_split_at_63, setup, teardown),
		cmocka_unit_test(test_uap_escape),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
