/* conf/confjson.c: store values read back as JSON and written from text. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

extern "C" {
#include <cmocka.h>
}
#include <json-c/json.h>

#include "conf/confjson.h"
#include "tests/unit/console_capture.h"
#include "tests/unit/testutil.h"

static void
test_get_json_parses_the_stored_text(void **state)
{
	struct json_object *value;

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "{ \"a\": [ 1, 2 ] }");
	assert_int_equal(confGetJson(CONF_SYSCONF, "k", &value), 0);
	assert_string_equal(json_object_to_json_string(value), "{ \"a\": [ 1, 2 ] }");
	json_object_put(value);
}

static void
test_get_json_missing_and_bad(void **state)
{
	struct json_object *value = (struct json_object *)1;

	(void)state;
	assert_int_equal(confGetJson(CONF_RTCONF, "k", &value), CONF_MISSING);
	assert_null(value);
	tu_store_put(tu_stores.rtconf, "k", "word");
	assert_int_equal(confGetJson(CONF_RTCONF, "k", &value), CONF_BAD_JSON);
	assert_null(value);
	tu_store_put(tu_stores.rtconf, "k", "null");
	assert_int_equal(confGetJson(CONF_RTCONF, "k", &value), CONF_BAD_JSON);
	tu_store_put(tu_stores.rtconf, "k", "");
	assert_int_equal(confGetJson(CONF_RTCONF, "k", &value), CONF_MISSING);
}

static void
test_get_string_bounded(void **state)
{
	char buf[5];

	(void)state;
	tu_store_put(tu_stores.sysinfo, "m", "\"HX-R1-long\"");
	assert_int_equal(confGetString(CONF_SYSINFO, "m", buf, sizeof(buf)), 0);
	assert_string_equal(buf, "HX-R");
	tu_store_put(tu_stores.sysinfo, "n", "42");
	assert_int_equal(confGetString(CONF_SYSINFO, "n", buf, sizeof(buf)), 0);
	assert_string_equal(buf, "42");
	assert_int_equal(confGetString(CONF_SYSINFO, "x", buf, sizeof(buf)), CONF_MISSING);
}

static void
test_setf_stores_text_and_nul(void **state)
{
	(void)state;
	assert_int_equal(confSetf(CONF_RTCONF, "wl_radio", "\"%s\"", "on"), 0);
	assert_true(TU_RECORD_IS(tu_stores.rtconf, "wl_radio", "\"on\"\0"));
}

static void
test_setf_empty_text_is_an_empty_value(void **state)
{
	struct json_object *value;

	(void)state;
	assert_int_equal(confSetf(CONF_RTCONF, "wan_if", "%s", ""), 0);
	assert_true(TU_RECORD_IS(tu_stores.rtconf, "wan_if", "\0"));
	assert_int_equal(confGetJson(CONF_RTCONF, "wan_if", &value), CONF_MISSING);
	assert_string_equal(console_captured(), "");
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test_setup_teardown(test_get_json_parses_the_stored_text, tu_stores_setup, tu_stores_teardown),
		cmocka_unit_test_setup_teardown(test_get_json_missing_and_bad, tu_stores_setup, tu_stores_teardown),
		cmocka_unit_test_setup_teardown(test_get_string_bounded, tu_stores_setup, tu_stores_teardown),
		cmocka_unit_test_setup_teardown(test_setf_stores_text_and_nul, tu_stores_setup, tu_stores_teardown),
		cmocka_unit_test_setup_teardown(test_setf_empty_text_is_an_empty_value, tu_stores_setup, tu_stores_teardown),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
