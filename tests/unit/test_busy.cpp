/* Unit tests of Part 2.4: revalidate dispatch and the system-busy guard.
 *
 * The run-time store is a temporary file (RT_DB_FILE) written with gdbm
 * directly; the revalidate-target index is loaded once for the program.
 * Most targets are not built yet and answer "internal error" (README);
 * "video", "video2", "ipsec", "thumbnail" and "owner_chg" succeed; "dhcp"
 * (Part 4.1) refuses a value that is not an object. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {
#include <cmocka.h>
}
#include <json-c/json.h>

#include "ipc/handlers.h"
#include "ipc/ipc.h"
#include "ipc/registry.h"
#include "tests/unit/console_capture.h"
#include "tests/unit/testutil.h"

static int
group_setup(void **state)
{
	(void)state;
	revalidates_init();
	return 0;
}

static void
set_fwup_status(const char *text)
{
	tu_store_put(tu_stores.rtconf, "fwup_status", text);
}

/* ---- is_system_busy ---- */

static void
test_busy_store_missing_is_not_busy(void **state)
{
	(void)state;
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_fwup_status_absent_is_not_busy(void **state)
{
	(void)state;
	tu_store_put(tu_stores.rtconf, "wan_if", "\"eth0\"");
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_upgrade_ongoing_is_busy(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"ongoing\"}");
	assert_int_equal(is_system_busy(), 1);
}

static void
test_busy_upgrade_idle_is_not_busy(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"idle\"}");
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_stage_number_is_not_busy(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": 5}");
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_stage_compared_case_sensitively(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"Ongoing\"}");
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_status_not_an_object_is_not_busy(void **state)
{
	(void)state;
	set_fwup_status("\"ongoing\"");
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_status_without_stage_is_not_busy(void **state)
{
	(void)state;
	set_fwup_status("{\"progress\": 50}");
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_status_not_json_is_minus_one(void **state)
{
	(void)state;
	set_fwup_status("ongoing");
	assert_int_equal(is_system_busy(), -1);
}

static void
test_busy_empty_status_is_not_busy(void **state)
{
	(void)state;
	set_fwup_status("");	/* empty value reads as missing */
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_reads_runtime_store_only(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "fwup_status", "{\"upgrade_stage\": \"ongoing\"}");
	assert_int_equal(is_system_busy(), 0);
}

static void
test_busy_follows_rt_db_file_on_every_call(void **state)
{
	char *other = tu_path(tu_stores.dir, "other.gdbm");

	(void)state;
	tu_store_put(other, "fwup_status", "{\"upgrade_stage\": \"ongoing\"}");
	assert_int_equal(is_system_busy(), 0);
	setenv("RT_DB_FILE", other, 1);
	assert_int_equal(is_system_busy(), 1);
	setenv("RT_DB_FILE", tu_stores.rtconf, 1);
	assert_int_equal(is_system_busy(), 0);
	free(other);
}

/* ---- revalidate through requests ---- */

/* The request gets exactly one reply, reply, and prints expected_out on
 * standard output and nothing else. */
static void
expect_reply_out(const char *text, const char *reply, const char *expected_out)
{
	struct tu_replies replies;
	struct tu_capture out, err;
	char *printed, *warned;
	ssize_t ret;

	memset(&replies, 0, sizeof(replies));
	tu_capture_begin(&out, stdout);
	tu_capture_begin(&err, stderr);
	ret = ipc_request_exec_json(text, -1, tu_reply_capture, &replies);
	warned = tu_capture_end(&err);
	printed = tu_capture_end(&out);
	assert_int_equal(ret, (ssize_t)strlen(text));
	assert_int_equal(replies.count, 1);
	assert_string_equal(replies.text[0], reply);
	assert_string_equal(printed, expected_out);
	assert_string_equal(warned, "");
	assert_string_equal(console_captured(), "");
	free(printed);
	free(warned);
}

static void
expect_reply(const char *text, const char *reply)
{
	expect_reply_out(text, reply, "");
}

static void
test_revalidate_unknown_target_is_success(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"bogus\":1}}",
		     "{ \"arguments\": { }, \"result\": \"success\" }");
}

static void
test_revalidate_busy_reboot_is_system_busy(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"ongoing\"}");
	/* Called, the reboot row would fork a child that runs "kill 1" on the
	 * host: only the sandbox's tests may call it (test_p9_2_sysaction.py). */
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"reboot\":{}},\"tag\":4}",
		     "{ \"arguments\": { }, \"result\": \"system busy\", \"tag\": 4 }");
}

static void
test_revalidate_idle_status_calls_target(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"idle\"}");
	/* A target without side effects whose answer shows it was called. */
	expect_reply_out("{\"method\":\"revalidate\",\"arguments\":{\"fw_upgrade\":null}}",
			 "{ \"arguments\": { }, \"result\": \"invalid arguments\" }",
			 "Input parameter is NULL.\n");
}

static void
test_revalidate_status_absent_targets_run(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"video\":1,\"thumbnail\":{}}}",
		     "{ \"arguments\": { }, \"result\": \"success\" }");
}

static void
test_revalidate_unparsable_status_refuses_every_known_target(void **state)
{
	(void)state;
	set_fwup_status("not json");
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"video\":1}}",
		     "{ \"arguments\": { }, \"result\": \"system busy\" }");
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"owner_chg\":{}}}",
		     "{ \"arguments\": { }, \"result\": \"system busy\" }");
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"wan\":{}}}",
		     "{ \"arguments\": { }, \"result\": \"system busy\" }");
}

static void
test_revalidate_busy_only_unknown_targets_is_success(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"ongoing\"}");
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"bogus\":1,\"Reboot\":{}}}",
		     "{ \"arguments\": { }, \"result\": \"success\" }");
}

static void
test_revalidate_busy_empty_arguments_is_success(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"ongoing\"}");
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"success\" }");
}

static void
test_revalidate_busy_known_target_after_unknown(void **state)
{
	(void)state;
	set_fwup_status("{\"upgrade_stage\": \"ongoing\"}");
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{\"bogus\":1,\"video\":1}}",
		     "{ \"arguments\": { }, \"result\": \"system busy\" }");
}

static void
test_revalidate_stops_at_first_error(void **state)
{
	(void)state;
	/* "upnp" would print "action:start" */
	expect_reply_out("{\"method\":\"revalidate\",\"arguments\":{\"dhcp\":5,"
			 "\"upnp\":{\"action\":\"start\"}}}",
			 "{ \"arguments\": { }, \"result\": \"invalid arguments\" }",
			 "Unexpected json type.\n");
}

static void
test_revalidate_error_not_cleared_by_later_success(void **state)
{
	(void)state;
	expect_reply_out("{\"method\":\"revalidate\",\"arguments\":{\"dhcp\":5,\"video\":1}}",
			 "{ \"arguments\": { }, \"result\": \"invalid arguments\" }",
			 "Unexpected json type.\n");
}

static void
test_revalidate_success_then_error(void **state)
{
	(void)state;
	expect_reply_out("{\"method\":\"revalidate\",\"arguments\":{\"bogus\":1,\"video\":1,\"samba\":5}}",
			 "{ \"arguments\": { }, \"result\": \"invalid arguments\" }",
			 "Unexpected json type.\n");
}

/* ---- revalidate called directly ---- */

static const char *
call_revalidate(const char *arguments_text, int with_reply, char **printed)
{
	struct json_object *arguments = NULL, *reply = NULL;
	struct tu_capture out;
	const char *result;

	if (arguments_text != NULL)
		arguments = json_tokener_parse(arguments_text);
	if (with_reply)
		reply = json_object_new_object();
	tu_capture_begin(&out, stdout);
	result = revalidate(arguments, reply, NULL);
	*printed = tu_capture_end(&out);
	json_object_put(arguments);
	json_object_put(reply);
	return result;
}

static void
test_revalidate_arguments_not_object(void **state)
{
	char *printed;

	(void)state;
	assert_string_equal(call_revalidate("[{\"video\":1}]", 1, &printed), "invalid arguments");
	assert_string_equal(printed, "Arguments are not required type data.\n");
	free(printed);
}

static void
test_revalidate_arguments_number(void **state)
{
	char *printed;

	(void)state;
	assert_string_equal(call_revalidate("5", 1, &printed), "invalid arguments");
	assert_string_equal(printed, "Arguments are not required type data.\n");
	free(printed);
}

static void
test_revalidate_arguments_null(void **state)
{
	char *printed;

	(void)state;
	assert_string_equal(call_revalidate(NULL, 1, &printed), "invalid arguments");
	assert_string_equal(printed, "Input parameters are NULL.\n");
	free(printed);
}

static void
test_revalidate_reply_arguments_null(void **state)
{
	char *printed;

	(void)state;
	assert_string_equal(call_revalidate("{}", 0, &printed), "invalid arguments");
	assert_string_equal(printed, "Input parameters are NULL.\n");
	free(printed);
}

static void
test_revalidate_direct_success_is_null(void **state)
{
	char *printed;

	(void)state;
	assert_null(call_revalidate("{\"video\":1,\"bogus\":2}", 1, &printed));
	assert_string_equal(printed, "");
	free(printed);
}

#define T(fn) cmocka_unit_test_setup_teardown(fn, tu_stores_setup, tu_stores_teardown)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		T(test_busy_store_missing_is_not_busy),
		T(test_busy_fwup_status_absent_is_not_busy),
		T(test_busy_upgrade_ongoing_is_busy),
		T(test_busy_upgrade_idle_is_not_busy),
		T(test_busy_stage_number_is_not_busy),
		T(test_busy_stage_compared_case_sensitively),
		T(test_busy_status_not_an_object_is_not_busy),
		T(test_busy_status_without_stage_is_not_busy),
		T(test_busy_status_not_json_is_minus_one),
		T(test_busy_empty_status_is_not_busy),
		T(test_busy_reads_runtime_store_only),
		T(test_busy_follows_rt_db_file_on_every_call),
		T(test_revalidate_unknown_target_is_success),
		T(test_revalidate_busy_reboot_is_system_busy),
		T(test_revalidate_idle_status_calls_target),
		T(test_revalidate_status_absent_targets_run),
		T(test_revalidate_unparsable_status_refuses_every_known_target),
		T(test_revalidate_busy_only_unknown_targets_is_success),
		T(test_revalidate_busy_empty_arguments_is_success),
		T(test_revalidate_busy_known_target_after_unknown),
		T(test_revalidate_stops_at_first_error),
		T(test_revalidate_error_not_cleared_by_later_success),
		T(test_revalidate_success_then_error),
		T(test_revalidate_arguments_not_object),
		T(test_revalidate_arguments_number),
		T(test_revalidate_arguments_null),
		T(test_revalidate_reply_arguments_null),
		T(test_revalidate_direct_success_is_null),
	};

	return cmocka_run_group_tests(tests, group_setup, NULL);
}
