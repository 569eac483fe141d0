/* Unit tests of module "ipcimpl": Part 2.1 (request protocol and method
 * dispatch) and Part 2.3 (pref-get and pref-set).
 *
 * Every test points the three stores at files of its own temporary
 * directory.  Scenarios that need the key index (pref-set) or the handler
 * indexes (ipc_init) run in a forked child, because those indexes are
 * process-wide and built once. */
#include <errno.h>
#include <setjmp.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}
#include <json-c/json.h>

#include "conf/confdb.h"
#include "ipc/handlers.h"
#include "ipc/ipc.h"
#include "ipc/registry.h"
#include "tests/unit/console_capture.h"
#include "tests/unit/testutil.h"

/* ---- running one request ---- */

struct run {
	ssize_t ret;
	int error;		/* errno after the call */
	struct tu_replies replies;
	char *out;		/* standard output */
	char *err;		/* standard error */
};

/* ipc_request_exec_json(text, length) with both outputs captured; usable in
 * a forked child (no cmocka). */
static void
run_request(struct run *run, const char *text, ssize_t length)
{
	struct tu_capture out, err;

	memset(run, 0, sizeof(*run));
	tu_capture_begin(&out, stdout);
	tu_capture_begin(&err, stderr);
	errno = 0;
	run->ret = ipc_request_exec_json(text, length, tu_reply_capture, &run->replies);
	run->error = errno;
	run->err = tu_capture_end(&err);
	run->out = tu_capture_end(&out);
}

static void
run_free(struct run *run)
{
	free(run->out);
	free(run->err);
}

/* The request is answered with exactly one reply, reply, and prints out on
 * standard output and nothing on standard error. */
static void
expect_reply(const char *text, const char *reply, const char *out)
{
	struct run run;

	run_request(&run, text, (ssize_t)strlen(text));
	assert_int_equal(run.ret, (ssize_t)strlen(text));
	assert_int_equal(run.replies.count, 1);
	assert_string_equal(run.replies.text[0], reply);
	assert_string_equal(run.out, out);
	assert_string_equal(run.err, "");
	assert_string_equal(console_captured(), "");
	run_free(&run);
}

/* Same checks in a forked child. */
static void
child_expect_reply(const char *text, const char *reply, const char *out, const char *err)
{
	struct run run;

	run_request(&run, text, (ssize_t)strlen(text));
	TU_CHECK_INT(run.ret, (long)strlen(text));
	TU_CHECK_INT(run.replies.count, 1);
	TU_CHECK_STR(run.replies.text[0], reply);
	TU_CHECK_STR(run.out, out);
	TU_CHECK_STR(run.err, err);
	run_free(&run);
}

/* A direct handler call: result text (NULL for success), reply arguments
 * as rendered, standard output and standard error. */
struct call {
	const char *result;
	char reply[TU_REPLY_SIZE];
	char *out;
	char *err;
};

static void
call_handler(struct call *call, ipc_handler_func handler, const char *arguments_text,
	     int with_reply)
{
	struct json_object *arguments = NULL, *reply = NULL;
	struct tu_capture out, err;

	if (arguments_text != NULL) {
		arguments = json_tokener_parse(arguments_text);
		assert_non_null(arguments);
	}
	if (with_reply)
		reply = json_object_new_object();
	tu_capture_begin(&out, stdout);
	tu_capture_begin(&err, stderr);
	call->result = handler(arguments, reply, NULL);
	call->err = tu_capture_end(&err);
	call->out = tu_capture_end(&out);
	snprintf(call->reply, sizeof(call->reply), "%s",
		 reply != NULL ? json_object_to_json_string(reply) : "(none)");
	json_object_put(arguments);
	json_object_put(reply);
}

static void
call_free(struct call *call)
{
	free(call->out);
	free(call->err);
}

/* ================= Part 2.1: request protocol ================= */

static void
test_revalidate_empty_arguments_echoes_numeric_tag(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{},\"tag\":7}",
		     "{ \"arguments\": { }, \"result\": \"success\", \"tag\": 7 }", "");
}

static void
test_unknown_method_is_method_not_found_without_tag(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"bogus\",\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"method not found\" }", "");
}

static void
test_method_name_is_case_sensitive(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"Revalidate\",\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"method not found\" }", "");
}

static void
test_method_compared_by_its_string_value(void **state)
{
	(void)state;
	expect_reply("{\"method\":5,\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"method not found\" }", "");
}

static void
test_arguments_absent_is_invalid_arguments(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"pref-get\"}",
		     "{ \"arguments\": { }, \"result\": \"invalid arguments\" }",
		     "invalid arguments.\n");
}

static void
test_arguments_not_object_is_invalid_arguments(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"revalidate\",\"arguments\":[1]}",
		     "{ \"arguments\": { }, \"result\": \"invalid arguments\" }",
		     "invalid arguments.\n");
}

static void
test_method_absent_overrides_arguments_error(void **state)
{
	(void)state;
	expect_reply("{\"arguments\":5}",
		     "{ \"arguments\": { }, \"result\": \"no method name\" }",
		     "invalid arguments.\n");
}

static void
test_method_absent_is_no_method_name(void **state)
{
	(void)state;
	expect_reply("{\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"no method name\" }", "");
}

/* README: a "method" of null counts as absent (json-c's member lookup). */
static void
test_null_method_is_no_method_name(void **state)
{
	(void)state;
	expect_reply("{\"method\":null,\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"no method name\" }", "");
}

static void
test_unknown_method_overrides_arguments_error(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"bogus\"}",
		     "{ \"arguments\": { }, \"result\": \"method not found\" }",
		     "invalid arguments.\n");
}

static void
test_error_reply_echoes_tag(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"bogus\",\"arguments\":{},\"tag\":\"t1\"}",
		     "{ \"arguments\": { }, \"result\": \"method not found\", \"tag\": \"t1\" }",
		     "");
}

static void
test_string_tag_echoed_unchanged(void **state)
{
	(void)state;
	expect_reply("{\"tag\":\"abc def\",\"method\":\"revalidate\",\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"success\", \"tag\": \"abc def\" }", "");
}

static void
test_array_tag_echoed_unchanged(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{},\"tag\":[1,\"x\",{\"y\":null}]}",
		     "{ \"arguments\": { }, \"result\": \"success\", "
		     "\"tag\": [ 1, \"x\", { \"y\": null } ] }", "");
}

static void
test_null_tag_echoed(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"revalidate\",\"arguments\":{},\"tag\":null}",
		     "{ \"arguments\": { }, \"result\": \"success\", \"tag\": null }", "");
}

static void
test_other_request_members_ignored(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"revalidate\",\"extra\":[1],\"arguments\":{}}",
		     "{ \"arguments\": { }, \"result\": \"success\" }", "");
}

static void
expect_not_json(const char *text)
{
	struct run run;

	run_request(&run, text, -1);
	assert_int_equal(run.ret, -1);
	assert_int_equal(run.error, EINVAL);
	assert_int_equal(run.replies.count, 0);
	assert_string_equal(run.out, "");
	assert_string_equal(run.err, "");
	run_free(&run);
}

static void
test_text_not_json_is_einval_without_reply(void **state)
{
	(void)state;
	expect_not_json("hello");
}

static void
test_truncated_json_is_einval_without_reply(void **state)
{
	(void)state;
	expect_not_json("{\"method\":\"revalidate\",");
}

static void
test_empty_text_is_einval_without_reply(void **state)
{
	(void)state;
	expect_not_json("");
}

static void
expect_invalid_parameters(const char *text)
{
	struct run run;

	run_request(&run, text, (ssize_t)strlen(text));
	assert_int_equal(run.ret, (ssize_t)strlen(text));
	assert_int_equal(run.replies.count, 0);
	assert_string_equal(run.out, "request_exec: invalid parameters.\n");
	assert_string_equal(run.err, "");
	run_free(&run);
}

static void
test_null_literal_invalid_parameters_no_reply(void **state)
{
	(void)state;
	expect_invalid_parameters("null");
}

static void
test_json_array_invalid_parameters_no_reply(void **state)
{
	(void)state;
	expect_invalid_parameters("[{\"method\":\"revalidate\",\"arguments\":{}}]");
}

static void
test_json_string_invalid_parameters_no_reply(void **state)
{
	(void)state;
	expect_invalid_parameters("\"revalidate\"");
}

static void
test_negative_length_returns_strlen(void **state)
{
	static const char text[] = "{\"method\":\"revalidate\",\"arguments\":{}}";
	struct run run;

	(void)state;
	run_request(&run, text, -5);
	assert_int_equal(run.ret, (ssize_t)strlen(text));
	assert_int_equal(run.replies.count, 1);
	assert_string_equal(run.replies.text[0], "{ \"arguments\": { }, \"result\": \"success\" }");
	run_free(&run);
}

static void
test_given_length_returned_unchanged(void **state)
{
	static const char text[] = "{\"method\":\"revalidate\",\"arguments\":{}}";
	struct run run;

	(void)state;
	run_request(&run, text, (ssize_t)sizeof(text));	/* NUL counted */
	assert_int_equal(run.ret, (ssize_t)sizeof(text));
	assert_int_equal(run.replies.count, 1);
	run_free(&run);
}

static void
test_null_reply_func_sends_nothing(void **state)
{
	static const char text[] = "{\"method\":\"bogus\",\"arguments\":{}}";
	struct tu_capture out;
	ssize_t ret;
	char *printed;

	(void)state;
	tu_capture_begin(&out, stdout);
	ret = ipc_request_exec_json(text, -1, NULL, NULL);
	printed = tu_capture_end(&out);
	assert_int_equal(ret, (ssize_t)strlen(text));
	assert_string_equal(printed, "");
	free(printed);
}

/* ---- a method table of the test's own ---- */

static int handler_calls;
static char handler_arguments[TU_REPLY_SIZE];
static void *handler_deferred;
static ipc_deferred_reply *stashed;

static int
reset_handler(void **state)
{
	handler_calls = 0;
	handler_arguments[0] = '\0';
	handler_deferred = (void *)&handler_calls;
	stashed = NULL;
	return tu_stores_setup(state);
}

static void
note_call(struct json_object *arguments, void *deferred)
{
	handler_calls++;
	snprintf(handler_arguments, sizeof(handler_arguments), "%s",
		 json_object_to_json_string(arguments));
	handler_deferred = deferred;
}

static const char *
handler_fails(struct json_object *arguments, struct json_object *reply_arguments,
	      void *deferred)
{
	note_call(arguments, deferred);
	json_object_object_add(reply_arguments, "partial", json_object_new_int(1));
	return "boom";
}

static const char *
handler_succeeds(struct json_object *arguments, struct json_object *reply_arguments,
		 void *deferred)
{
	note_call(arguments, deferred);
	json_object_object_add(reply_arguments, "out", json_object_new_string("x"));
	return NULL;
}

/* Deferred: keeps the context; the test answers later. */
static const char *
handler_stashes(struct json_object *arguments, struct json_object *reply_arguments,
		void *deferred)
{
	note_call(arguments, deferred);
	stashed = static_cast<ipc_deferred_reply *>(deferred);
	assert_non_null(stashed);
	assert_ptr_equal(stashed->reply_arguments, reply_arguments);
	return "ignored";
}

/* Deferred: answers at once through the stored reply function. */
static const char *
handler_answers(struct json_object *arguments, struct json_object *reply_arguments,
		void *deferred)
{
	ipc_deferred_reply *ctx = static_cast<ipc_deferred_reply *>(deferred);

	note_call(arguments, deferred);
	json_object_object_add(reply_arguments, "done", json_object_new_boolean(1));
	json_object_object_add(ctx->reply, "result", json_object_new_string("success"));
	ctx->reply_func(ctx->reply, ctx->client);
	json_object_put(ctx->reply);
	free(ctx);
	return NULL;
}

static const struct ipc_method test_methods[] = {
	{ "fails", 1, handler_fails },
	{ "succeeds", 1, handler_succeeds },
	{ "stash", 0, handler_stashes },
	{ "answer", 0, handler_answers },
	{ "answer", 1, handler_fails },	/* never reached: the first row wins */
};

static void
exec_table(const char *text, struct tu_replies *replies, ipc_reply_func reply_func)
{
	struct json_object *request = json_tokener_parse(text);

	assert_non_null(request);
	memset(replies, 0, sizeof(*replies));
	ipc_request_exec_table(request, reply_func, replies, test_methods,
			       sizeof(test_methods) / sizeof(test_methods[0]));
	json_object_put(request);
}

static void
test_immediate_handler_gets_arguments_and_no_context(void **state)
{
	struct tu_replies replies;

	(void)state;
	exec_table("{\"method\":\"succeeds\",\"arguments\":{\"a\":[1]},\"tag\":3}", &replies,
		   tu_reply_capture);
	assert_int_equal(handler_calls, 1);
	assert_string_equal(handler_arguments, "{ \"a\": [ 1 ] }");
	assert_null(handler_deferred);
	assert_int_equal(replies.count, 1);
	assert_string_equal(replies.text[0],
			    "{ \"arguments\": { \"out\": \"x\" }, \"result\": \"success\", \"tag\": 3 }");
}

static void
test_handler_error_text_becomes_result_arguments_kept(void **state)
{
	struct tu_replies replies;

	(void)state;
	exec_table("{\"method\":\"fails\",\"arguments\":{}}", &replies, tu_reply_capture);
	assert_int_equal(handler_calls, 1);
	assert_int_equal(replies.count, 1);
	assert_string_equal(replies.text[0],
			    "{ \"arguments\": { \"partial\": 1 }, \"result\": \"boom\" }");
}

static void
test_deferred_context_holds_tag_first_then_arguments(void **state)
{
	struct tu_replies replies;

	(void)state;
	exec_table("{\"method\":\"stash\",\"arguments\":{\"k\":\"v\"},\"tag\":9}", &replies,
		   tu_reply_capture);
	assert_int_equal(handler_calls, 1);
	assert_string_equal(handler_arguments, "{ \"k\": \"v\" }");
	assert_non_null(stashed);
	assert_ptr_equal(handler_deferred, stashed);
	/* Nothing is sent for a deferred method, not even the handler's text. */
	assert_int_equal(replies.count, 0);
	assert_string_equal(json_object_to_json_string(stashed->reply),
			    "{ \"tag\": 9, \"arguments\": { } }");
	assert_ptr_equal(json_object_object_get(stashed->reply, "arguments"),
			 stashed->reply_arguments);
	assert_true(stashed->reply_func == tu_reply_capture);
	assert_ptr_equal(stashed->client, &replies);

	/* The handler owns the context and answers later, after the request
	 * is gone. */
	json_object_object_add(stashed->reply_arguments, "late", json_object_new_int(2));
	json_object_object_add(stashed->reply, "result", json_object_new_string("success"));
	stashed->reply_func(stashed->reply, stashed->client);
	json_object_put(stashed->reply);
	free(stashed);
	assert_int_equal(replies.count, 1);
	assert_string_equal(replies.text[0],
			    "{ \"tag\": 9, \"arguments\": { \"late\": 2 }, \"result\": \"success\" }");
}

static void
test_deferred_context_without_tag(void **state)
{
	struct tu_replies replies;

	(void)state;
	exec_table("{\"method\":\"stash\",\"arguments\":{}}", &replies, tu_reply_capture);
	assert_non_null(stashed);
	assert_string_equal(json_object_to_json_string(stashed->reply), "{ \"arguments\": { } }");
	json_object_put(stashed->reply);
	free(stashed);
	assert_int_equal(replies.count, 0);
}

static void
test_deferred_handler_sends_reply_itself(void **state)
{
	struct tu_replies replies;

	(void)state;
	exec_table("{\"method\":\"answer\",\"arguments\":{},\"tag\":[\"a\"]}", &replies,
		   tu_reply_capture);
	assert_int_equal(handler_calls, 1);
	assert_int_equal(replies.count, 1);
	assert_string_equal(replies.text[0],
			    "{ \"tag\": [ \"a\" ], \"arguments\": { \"done\": true }, "
			    "\"result\": \"success\" }");
}

static void
test_deferred_null_reply_func_stores_do_nothing_function(void **state)
{
	struct tu_replies replies;

	(void)state;
	exec_table("{\"method\":\"stash\",\"arguments\":{}}", &replies, NULL);
	assert_non_null(stashed);
	assert_non_null(stashed->reply_func);
	stashed->reply_func(stashed->reply, stashed->client);	/* does nothing */
	json_object_put(stashed->reply);
	free(stashed);
	assert_int_equal(replies.count, 0);
}

static void
test_deferred_method_shape_error_answered_at_once(void **state)
{
	struct tu_replies replies;
	struct tu_capture out;
	char *printed;

	(void)state;
	tu_capture_begin(&out, stdout);
	exec_table("{\"method\":\"stash\",\"arguments\":5,\"tag\":1}", &replies, tu_reply_capture);
	printed = tu_capture_end(&out);
	assert_int_equal(handler_calls, 0);
	assert_null(stashed);
	assert_int_equal(replies.count, 1);
	assert_string_equal(replies.text[0],
			    "{ \"arguments\": { }, \"result\": \"invalid arguments\", \"tag\": 1 }");
	assert_string_equal(printed, "invalid arguments.\n");
	free(printed);
}

/* ---- ipc_init (forked: it loads process-wide indexes) ---- */

static void
child_ipc_init_missing_store(void *arg)
{
	(void)arg;
	console_reset();
	TU_CHECK_INT(ipc_init(), -1);
	TU_CHECK_STR(console_captured(), "Open sysconf.gdbm file failed.\n");
	/* Both handler indexes are loaded before the key index fails. */
	TU_CHECK(info_find("p_model") != NULL);
	TU_CHECK(revalidate_find("ap_profiles") != NULL);
}

static void
test_ipc_init_fails_without_store(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_ipc_init_missing_store, NULL)));
}

static void
child_ipc_init_with_store(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "lan_ipaddr", "\"192.168.1.1\"");
	console_reset();
	TU_CHECK_INT(ipc_init(), 0);
	TU_CHECK_STR(console_captured(), "");
	TU_CHECK(info_find("bat_charging") != NULL);
	TU_CHECK(revalidate_find("wan") != NULL);
	TU_CHECK_INT(confVerify("lan_ipaddr"), 0);
}

static void
test_ipc_init_builds_all_indexes(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_ipc_init_with_store, NULL)));
}

/* ================= Part 2.3: pref-get ================= */

static void
test_pref_get_without_confs_and_infos(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{}}",
		     "{ \"arguments\": { \"confs\": { }, \"infos\": { } }, \"result\": \"success\" }",
		     "No confs field.\nNo info field.\n");
}

static void
test_pref_get_arguments_null(void **state)
{
	struct call call;

	(void)state;
	call_handler(&call, prefGet, NULL, 1);
	assert_string_equal(call.result, "invalid arguments");
	assert_string_equal(call.reply, "{ }");
	assert_string_equal(call.out, "Input parameters are NULL.\n");
	call_free(&call);
}

static void
test_pref_get_reply_arguments_null(void **state)
{
	struct call call;

	(void)state;
	call_handler(&call, prefGet, "{}", 0);
	assert_string_equal(call.result, "invalid arguments");
	assert_string_equal(call.out, "Input parameters are NULL.\n");
	call_free(&call);
}

static void
test_pref_get_arguments_not_object(void **state)
{
	struct call call;

	(void)state;
	call_handler(&call, prefGet, "[\"confs\"]", 1);
	assert_string_equal(call.result, "invalid arguments");
	assert_string_equal(call.reply, "{ }");
	assert_string_equal(call.out, "Unexpected json type.\n");
	call_free(&call);
}

static void
test_pref_get_confs_not_array_continues_with_infos(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "lan_ipaddr", "\"192.168.1.1\"");
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"confs\":\"lan_ipaddr\",\"infos\":[]}}",
		     "{ \"arguments\": { \"confs\": { }, \"infos\": { } }, \"result\": \"success\" }",
		     "confs invalid data.\n");
}

static void
test_pref_get_infos_not_array_is_success(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"infos\":\"s_time\"}}",
		     "{ \"arguments\": { \"confs\": { }, \"infos\": { } }, \"result\": \"success\" }",
		     "No confs field.\ninfos invalid data.\n");
}

static void
test_pref_get_found_name_present_missing_name_absent(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "lan_ipaddr", "\"192.168.1.1\"");
	tu_store_put(tu_stores.sysconf, "other", "1");
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"confs\":[\"lan_ipaddr\",\"no_such\"],"
		     "\"infos\":[]}}",
		     "{ \"arguments\": { \"confs\": { \"lan_ipaddr\": \"192.168.1.1\" }, "
		     "\"infos\": { } }, \"result\": \"success\" }", "");
}

static void
test_pref_get_values_keep_their_json_type(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "n", "5");
	tu_store_put(tu_stores.sysconf, "o", "{\"a\":[1,2]}");
	tu_store_put(tu_stores.sysconf, "b", "true");
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"confs\":[\"n\",\"o\",\"b\"],\"infos\":[]}}",
		     "{ \"arguments\": { \"confs\": { \"n\": 5, \"o\": { \"a\": [ 1, 2 ] }, "
		     "\"b\": true }, \"infos\": { } }, \"result\": \"success\" }", "");
}

static void
test_pref_get_non_json_value_left_out(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "wl_enable", "on");	/* a script's value, no quotes */
	tu_store_put(tu_stores.sysconf, "wl_ssid", "\"travel\"");
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"confs\":[\"wl_enable\",\"wl_ssid\"],"
		     "\"infos\":[]}}",
		     "{ \"arguments\": { \"confs\": { \"wl_ssid\": \"travel\" }, \"infos\": { } }, "
		     "\"result\": \"success\" }", "");
}

static void
test_pref_get_repeated_name_single_member(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "a", "\"x\"");
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"confs\":[\"a\",\"a\"],\"infos\":[]}}",
		     "{ \"arguments\": { \"confs\": { \"a\": \"x\" }, \"infos\": { } }, "
		     "\"result\": \"success\" }", "");
}

static void
test_pref_get_store_missing_database_open_failed(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"confs\":[\"a\"],\"infos\":[]}}",
		     "{ \"arguments\": { \"confs\": { } }, \"result\": \"Database open failed!\\n\" }",
		     "Database open failed!\n");
}

static void
test_pref_get_unknown_info_skipped(void **state)
{
	(void)state;
	expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"infos\":[\"no_such_item\"]}}",
		     "{ \"arguments\": { \"confs\": { }, \"infos\": { } }, \"result\": \"success\" }",
		     "No confs field.\n");
}

static void
child_pref_get_with_context(void *arg)
{
	struct json_object *arguments = json_object_new_object();
	struct json_object *reply = json_object_new_object();

	(void)arg;
	prefGet(arguments, reply, (void *)&handler_calls);
}

static void
test_pref_get_with_context_fails_assertion(void **state)
{
	char *err, text[1024];
	int status = tu_run_child_stderr(child_pref_get_with_context, NULL, &err);

	(void)state;
	snprintf(text, sizeof(text), "%s", err);
	free(err);
	assert_true(WIFSIGNALED(status));
	assert_int_equal(WTERMSIG(status), SIGABRT);
	if (!tu_assertion_is(text, NULL, "prefGet", "idle_data == ((void *)0)"))
		fail_msg("assertion message: %s", text);
}

/* The spec names the source module of this assertion: "ipcimpl". */
static void
test_pref_get_assertion_in_module_ipcimpl(void **state)
{
	char *err, text[1024];
	int status = tu_run_child_stderr(child_pref_get_with_context, NULL, &err);

	(void)state;
	snprintf(text, sizeof(text), "%s", err);
	free(err);
	assert_true(WIFSIGNALED(status));
	if (!tu_assertion_is(text, "ipcimpl", "prefGet", "idle_data == ((void *)0)"))
		fail_msg("assertion message: %s", text);
}

/* ================= Part 2.3: pref-set ================= */

static void
test_pref_set_arguments_null(void **state)
{
	struct call call;

	(void)state;
	call_handler(&call, prefSet, NULL, 1);
	assert_string_equal(call.result, "invalid arguments");
	assert_string_equal(call.out, "Input parameter is NULL.\n");
	assert_string_equal(call.err, "");
	call_free(&call);
}

static void
test_pref_set_arguments_not_object(void **state)
{
	struct call call;

	(void)state;
	call_handler(&call, prefSet, "5", 1);
	assert_string_equal(call.result, "invalid arguments");
	assert_string_equal(call.out, "Unexpected json type.\n");
	assert_string_equal(call.err, "");
	call_free(&call);
}

static void
test_pref_set_confs_missing_internal_error(void **state)
{
	struct run run;
	struct stat st;

	(void)state;
	run_request(&run, "{\"method\":\"pref-set\",\"arguments\":{}}", -1);
	assert_int_equal(run.replies.count, 1);
	assert_string_equal(run.replies.text[0],
			    "{ \"arguments\": { }, \"result\": \"internal error\" }");
	assert_string_equal(run.out, "");
	assert_string_equal(run.err, "[warn] prefSet: No confs field.\n\n");
	assert_int_equal(stat(tu_stores.sysconf, &st), -1);	/* store not touched */
	run_free(&run);
}

static void
test_pref_set_confs_not_object_internal_error(void **state)
{
	struct run run;
	struct stat st;

	(void)state;
	run_request(&run, "{\"method\":\"pref-set\",\"arguments\":{\"confs\":[\"a\",1]}}", -1);
	assert_int_equal(run.replies.count, 1);
	assert_string_equal(run.replies.text[0],
			    "{ \"arguments\": { }, \"result\": \"internal error\" }");
	assert_string_equal(run.out, "");
	assert_string_equal(run.err, "[warn] confs not required type data.\n\n");
	assert_int_equal(stat(tu_stores.sysconf, &st), -1);
	run_free(&run);
}

static void
test_pref_set_store_cannot_open_internal_error(void **state)
{
	char *missing = tu_path(tu_stores.dir, "no_dir/sysconf.gdbm");
	struct run run;

	(void)state;
	setenv("DB_FILE", missing, 1);
	run_request(&run, "{\"method\":\"pref-set\",\"arguments\":{\"confs\":{\"a\":1}}}", -1);
	assert_int_equal(run.replies.count, 1);
	assert_string_equal(run.replies.text[0],
			    "{ \"arguments\": { }, \"result\": \"internal error\" }");
	assert_string_equal(run.out, "");
	assert_string_equal(run.err, "[warn] Database open failed!\n\n");
	run_free(&run);
	free(missing);
}

static void
child_pref_set_on(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "wl_enable", "\"off\"");
	TU_CHECK_INT(confIndexInit(), 0);
	child_expect_reply("{\"method\":\"pref-set\",\"arguments\":{\"confs\":{\"wl_enable\":\"on\"}}}",
			   "{ \"arguments\": { }, \"result\": \"success\" }", "", "");
	TU_CHECK_RECORD(tu_stores.sysconf, "wl_enable", "\"on\"\0");
	child_expect_reply("{\"method\":\"pref-get\",\"arguments\":{\"confs\":[\"wl_enable\"],\"infos\":[]}}",
			   "{ \"arguments\": { \"confs\": { \"wl_enable\": \"on\" }, \"infos\": { } }, "
			   "\"result\": \"success\" }", "", "");
}

static void
test_pref_set_string_on_stored_with_quotes_and_read_back(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_pref_set_on, NULL)));
}

static void
child_pref_set_types(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "n", "1");
	tu_store_put(tu_stores.sysconf, "o", "{}");
	tu_store_put(tu_stores.sysconf, "b", "false");
	TU_CHECK_INT(confIndexInit(), 0);
	child_expect_reply("{\"method\":\"pref-set\",\"arguments\":{\"confs\":"
			   "{\"n\":42,\"o\":{\"k\":[1,\"v\"]},\"b\":true}}}",
			   "{ \"arguments\": { }, \"result\": \"success\" }", "", "");
	TU_CHECK_RECORD(tu_stores.sysconf, "n", "42\0");
	TU_CHECK_RECORD(tu_stores.sysconf, "o", "{ \"k\": [ 1, \"v\" ] }\0");
	TU_CHECK_RECORD(tu_stores.sysconf, "b", "true\0");
}

static void
test_pref_set_stores_json_text_of_each_type(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_pref_set_types, NULL)));
}

static void
child_pref_set_product_model(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "a", "1");
	tu_store_put(tu_stores.sysconf, "product_model", "\"HX100\"");
	tu_store_put(tu_stores.sysconf, "b", "2");
	TU_CHECK_INT(confIndexInit(), 0);
	child_expect_reply("{\"method\":\"pref-set\",\"arguments\":{\"confs\":"
			   "{\"a\":10,\"product_model\":\"X\",\"b\":20}}}",
			   "{ \"arguments\": { }, \"result\": \"internal error\" }", "",
			   "[warn] Set invalid sysconf key product_model.\n\n");
	TU_CHECK_RECORD(tu_stores.sysconf, "a", "10\0");
	TU_CHECK_RECORD(tu_stores.sysconf, "product_model", "\"HX100\"\0");
	TU_CHECK_RECORD(tu_stores.sysconf, "b", "2\0");
}

static void
test_pref_set_product_model_rejected_later_members_unchanged(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_pref_set_product_model, NULL)));
}

static void
child_pref_set_unknown_key(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "a", "1");
	tu_store_put(tu_stores.sysconf, "b", "2");
	TU_CHECK_INT(confIndexInit(), 0);
	child_expect_reply("{\"method\":\"pref-set\",\"arguments\":{\"confs\":"
			   "{\"a\":10,\"new_key\":1,\"b\":20}}}",
			   "{ \"arguments\": { }, \"result\": \"internal error\" }", "",
			   "[warn] Set invalid sysconf key new_key.\n\n");
	TU_CHECK_RECORD(tu_stores.sysconf, "a", "10\0");
	TU_CHECK_NO_RECORD(tu_stores.sysconf, "new_key");
	TU_CHECK_RECORD(tu_stores.sysconf, "b", "2\0");
}

static void
test_pref_set_unknown_key_rejected_later_members_unchanged(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_pref_set_unknown_key, NULL)));
}

static void
child_pref_set_key_added_after_start(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "a", "1");
	TU_CHECK_INT(confIndexInit(), 0);
	tu_store_put(tu_stores.sysconf, "late", "1");
	child_expect_reply("{\"method\":\"pref-set\",\"arguments\":{\"confs\":{\"late\":2}}}",
			   "{ \"arguments\": { }, \"result\": \"internal error\" }", "",
			   "[warn] Set invalid sysconf key late.\n\n");
	TU_CHECK_RECORD(tu_stores.sysconf, "late", "1\0");
}

static void
test_pref_set_key_added_after_start_rejected(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_pref_set_key_added_after_start, NULL)));
}

static void
child_pref_set_repeated_name(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "a", "1");
	TU_CHECK_INT(confIndexInit(), 0);
	child_expect_reply("{\"method\":\"pref-set\",\"arguments\":{\"confs\":{\"a\":2,\"a\":\"3\"}}}",
			   "{ \"arguments\": { }, \"result\": \"success\" }", "", "");
	TU_CHECK_RECORD(tu_stores.sysconf, "a", "\"3\"\0");
}

static void
test_pref_set_repeated_conf_name_last_value_stored(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_pref_set_repeated_name, NULL)));
}

static void
child_pref_set_with_context(void *arg)
{
	struct json_object *arguments = json_object_new_object();
	struct json_object *reply = json_object_new_object();

	(void)arg;
	prefSet(arguments, reply, (void *)&handler_calls);
}

static void
test_pref_set_with_context_fails_assertion(void **state)
{
	char *err, text[1024];
	int status = tu_run_child_stderr(child_pref_set_with_context, NULL, &err);

	(void)state;
	snprintf(text, sizeof(text), "%s", err);
	free(err);
	assert_true(WIFSIGNALED(status));
	assert_int_equal(WTERMSIG(status), SIGABRT);
	if (!tu_assertion_is(text, NULL, "prefSet", "idle_data == ((void *)0)"))
		fail_msg("assertion message: %s", text);
}

/* The spec names the source module of this assertion: "ipcimpl". */
static void
test_pref_set_assertion_in_module_ipcimpl(void **state)
{
	char *err, text[1024];
	int status = tu_run_child_stderr(child_pref_set_with_context, NULL, &err);

	(void)state;
	snprintf(text, sizeof(text), "%s", err);
	free(err);
	assert_true(WIFSIGNALED(status));
	if (!tu_assertion_is(text, "ipcimpl", "prefSet", "idle_data == ((void *)0)"))
		fail_msg("assertion message: %s", text);
}

#define T(fn) cmocka_unit_test_setup_teardown(fn, tu_stores_setup, tu_stores_teardown)
#define TH(fn) cmocka_unit_test_setup_teardown(fn, reset_handler, tu_stores_teardown)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		/* Part 2.1 */
		T(test_revalidate_empty_arguments_echoes_numeric_tag),
		T(test_unknown_method_is_method_not_found_without_tag),
		T(test_method_name_is_case_sensitive),
		T(test_method_compared_by_its_string_value),
		T(test_arguments_absent_is_invalid_arguments),
		T(test_arguments_not_object_is_invalid_arguments),
		T(test_method_absent_overrides_arguments_error),
		T(test_method_absent_is_no_method_name),
		T(test_null_method_is_no_method_name),
		T(test_unknown_method_overrides_arguments_error),
		T(test_error_reply_echoes_tag),
		T(test_string_tag_echoed_unchanged),
		T(test_array_tag_echoed_unchanged),
		T(test_null_tag_echoed),
		T(test_other_request_members_ignored),
		T(test_text_not_json_is_einval_without_reply),
		T(test_truncated_json_is_einval_without_reply),
		T(test_empty_text_is_einval_without_reply),
		T(test_null_literal_invalid_parameters_no_reply),
		T(test_json_array_invalid_parameters_no_reply),
		T(test_json_string_invalid_parameters_no_reply),
		T(test_negative_length_returns_strlen),
		T(test_given_length_returned_unchanged),
		T(test_null_reply_func_sends_nothing),
		TH(test_immediate_handler_gets_arguments_and_no_context),
		TH(test_handler_error_text_becomes_result_arguments_kept),
		TH(test_deferred_context_holds_tag_first_then_arguments),
		TH(test_deferred_context_without_tag),
		TH(test_deferred_handler_sends_reply_itself),
		TH(test_deferred_null_reply_func_stores_do_nothing_function),
		TH(test_deferred_method_shape_error_answered_at_once),
		T(test_ipc_init_fails_without_store),
		T(test_ipc_init_builds_all_indexes),
		/* Part 2.3: pref-get */
		T(test_pref_get_without_confs_and_infos),
		T(test_pref_get_arguments_null),
		T(test_pref_get_reply_arguments_null),
		T(test_pref_get_arguments_not_object),
		T(test_pref_get_confs_not_array_continues_with_infos),
		T(test_pref_get_infos_not_array_is_success),
		T(test_pref_get_found_name_present_missing_name_absent),
		T(test_pref_get_values_keep_their_json_type),
		T(test_pref_get_non_json_value_left_out),
		T(test_pref_get_repeated_name_single_member),
		T(test_pref_get_store_missing_database_open_failed),
		T(test_pref_get_unknown_info_skipped),
		T(test_pref_get_with_context_fails_assertion),
		T(test_pref_get_assertion_in_module_ipcimpl),
		/* Part 2.3: pref-set */
		T(test_pref_set_arguments_null),
		T(test_pref_set_arguments_not_object),
		T(test_pref_set_confs_missing_internal_error),
		T(test_pref_set_confs_not_object_internal_error),
		T(test_pref_set_store_cannot_open_internal_error),
		T(test_pref_set_string_on_stored_with_quotes_and_read_back),
		T(test_pref_set_stores_json_text_of_each_type),
		T(test_pref_set_product_model_rejected_later_members_unchanged),
		T(test_pref_set_unknown_key_rejected_later_members_unchanged),
		T(test_pref_set_key_added_after_start_rejected),
		T(test_pref_set_repeated_conf_name_last_value_stored),
		T(test_pref_set_with_context_fails_assertion),
		T(test_pref_set_assertion_in_module_ipcimpl),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
