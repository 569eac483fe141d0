/* Unit tests of Part 2.2: handler registry and the two target tables.
 *
 * The two indexes are loaded once for the whole program (group setup);
 * the scenarios that load them a second time run in a forked child. */
#include <setjmp.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

extern "C" {
#include <cmocka.h>
}
#include <json-c/json.h>

#include "ipc/handlers.h"
#include "ipc/ipc.h"
#include "ipc/registry.h"
#include "tests/unit/console_capture.h"
#include "tests/unit/testutil.h"

/* The info-item table of Part 2.2, in the spec's order. */
static const char *const info_names[] = {
	"p_model", "p_description", "s_time", "s_sysinfo", "s_osinfo",
	"s_boardinfo", "s_rootfsver", "s_waninfo", "s_wan_dns", "s_wan_gw",
	"s_laninfo", "s_logs", "s_dhcpleases", "s_stalist", "s_aplist",
	"s_scanap", "s_scanapresult", "s_staconninfo", "s_routesactive", "s_upnplist",
	"wl_radio", "ws_state", "fwup_status", "diskstatus", "disk_list",
	"pmd_status", "fw_version", "sleep_timeout", "disk_probe", "s_synctasklist",
	"backup_stat", "owner_list", "sdcard_status", "sd_backup_logs", "s_wl_channel",
	"s_scantdlsdevice", "s_scantdlsdeviceresult", "s_tdlsstatus", "cutthrough_status",
	"bat_cap", "bat_charging",
};

/* The revalidate-target table of Part 2.2, in the spec's order. */
static const char *const revalidate_names[] = {
	"wan", "lan", "dhcp", "wl", "wl_radio",
	"wl_power_save_mode", "firewall", "upnp", "datetime", "staticroute",
	"httpd", "fw_upgrade", "uploadsysconf", "factorydefault", "reboot",
	"poweroff", "video", "video2", "webdav", "dlna",
	"ipsec", "fm", "usbcharger", "firmwareupgrade", "pmd",
	"sleep_timeout", "thumbnail", "samba", "createsynctask", "cancelsynctask",
	"disk_unlock", "safely_remove", "charger_test", "tdls", "cut_through",
	"wpa", "owner_chg", "sd_copy", "sync_signal", "sys_event",
	"ap_profiles",
};

#define N_NAMES(a) (sizeof(a) / sizeof((a)[0]))

static int
group_setup(void **state)
{
	(void)state;
	infos_init();
	revalidates_init();
	return 0;
}

/* Every name of the table is found, as a row of its own bearing that name. */
static void
expect_table(const char *const *names, size_t n,
	     ipc_handler_entry *(*find)(const char *))
{
	ipc_handler_entry *rows[IPC_TABLE_ROWS];
	size_t i, j;

	assert_int_equal(n, IPC_TABLE_ROWS);
	for (i = 0; i < n; i++) {
		rows[i] = find(names[i]);
		if (rows[i] == NULL)
			fail_msg("\"%s\" not found", names[i]);
		assert_string_equal(rows[i]->name, names[i]);
		assert_non_null(rows[i]->handler);
		for (j = 0; j < i; j++)
			assert_ptr_not_equal(rows[i], rows[j]);
	}
}

static void
test_table_rows_is_41(void **state)
{
	(void)state;
	assert_int_equal(IPC_TABLE_ROWS, 41);
	assert_int_equal(N_NAMES(info_names), 41);
	assert_int_equal(N_NAMES(revalidate_names), 41);
}

static void
test_all_41_info_items_found(void **state)
{
	(void)state;
	expect_table(info_names, N_NAMES(info_names), info_find);
}

static void
test_all_41_revalidate_targets_found(void **state)
{
	(void)state;
	expect_table(revalidate_names, N_NAMES(revalidate_names), revalidate_find);
}

static void
test_indexes_are_separate(void **state)
{
	(void)state;
	assert_null(info_find("wan"));
	assert_null(info_find("video"));
	assert_null(revalidate_find("p_model"));
	assert_null(revalidate_find("s_time"));
	/* Two names are in both tables, as two different rows. */
	assert_non_null(info_find("wl_radio"));
	assert_non_null(revalidate_find("wl_radio"));
	assert_ptr_not_equal(info_find("wl_radio"), revalidate_find("wl_radio"));
	assert_ptr_not_equal(info_find("sleep_timeout"), revalidate_find("sleep_timeout"));
}

/* Each name with the case of one letter changed is not found. */
static void
expect_case_variants_missing(const char *const *names, size_t n,
			     ipc_handler_entry *(*find)(const char *))
{
	char variant[64];
	size_t i, k;

	for (i = 0; i < n; i++) {
		for (k = 0; names[i][k] != '\0'; k++) {
			char c = names[i][k];

			if (c < 'a' || c > 'z')
				continue;
			snprintf(variant, sizeof(variant), "%s", names[i]);
			variant[k] = (char)(c - 'a' + 'A');
			if (find(variant) != NULL)
				fail_msg("\"%s\" found", variant);
		}
	}
}

static void
test_info_name_differing_in_case_not_found(void **state)
{
	(void)state;
	assert_null(info_find("P_MODEL"));
	assert_null(info_find("S_Time"));
	expect_case_variants_missing(info_names, N_NAMES(info_names), info_find);
}

static void
test_revalidate_name_differing_in_case_not_found(void **state)
{
	(void)state;
	assert_null(revalidate_find("WAN"));
	assert_null(revalidate_find("Video"));
	expect_case_variants_missing(revalidate_names, N_NAMES(revalidate_names),
				     revalidate_find);
}

static void
test_prefix_and_extension_not_found(void **state)
{
	(void)state;
	assert_null(info_find("s_tim"));
	assert_null(info_find("s_time "));
	assert_null(info_find(""));
	assert_null(revalidate_find("wa"));
	assert_null(revalidate_find("wan2"));
	assert_null(revalidate_find("video3"));
	assert_null(revalidate_find(""));
}

static void
test_null_name_not_found(void **state)
{
	(void)state;
	assert_null(info_find(NULL));
	assert_null(revalidate_find(NULL));
}

/* handler(value) with an empty reply object: result, reply afterwards and
 * standard output. */
static const char *
call_target(ipc_handler_func handler, struct json_object *value, char *out_text,
	    size_t out_size, char *reply_text, size_t reply_size)
{
	struct json_object *reply = json_object_new_object();
	struct tu_capture out;
	const char *result;
	char *printed;

	tu_capture_begin(&out, stdout);
	result = handler(value, reply, NULL);
	printed = tu_capture_end(&out);
	snprintf(out_text, out_size, "%s", printed);
	snprintf(reply_text, reply_size, "%s", json_object_to_json_string(reply));
	free(printed);
	json_object_put(reply);
	return result;
}

static void
expect_success_for_any_value(const char *name)
{
	struct json_object *values[3];
	char out[256], reply[256];
	ipc_handler_entry *row = revalidate_find(name);
	size_t i;

	assert_non_null(row);
	values[0] = NULL;
	values[1] = json_object_new_int(5);
	values[2] = json_tokener_parse("{\"action\":\"start\"}");
	for (i = 0; i < 3; i++) {
		assert_null(call_target(row->handler, values[i], out, sizeof(out), reply,
					sizeof(reply)));
		assert_string_equal(out, "");
		assert_string_equal(reply, "{ }");
	}
	json_object_put(values[1]);
	json_object_put(values[2]);
}

static void
test_video_succeeds_for_null_number_object(void **state)
{
	(void)state;
	expect_success_for_any_value("video");
}

static void
test_video2_succeeds_for_null_number_object(void **state)
{
	(void)state;
	expect_success_for_any_value("video2");
}

static void
test_ipsec_succeeds_for_null_number_object(void **state)
{
	(void)state;
	expect_success_for_any_value("ipsec");
}

static void
test_thumbnail_succeeds_for_null_number_object(void **state)
{
	(void)state;
	expect_success_for_any_value("thumbnail");
}

static void
test_four_accepting_targets_share_one_handler(void **state)
{
	(void)state;
	assert_true(revalidate_find("video")->handler == _revalidate_noop);
	assert_true(revalidate_find("video2")->handler == _revalidate_noop);
	assert_true(revalidate_find("ipsec")->handler == _revalidate_noop);
	assert_true(revalidate_find("thumbnail")->handler == _revalidate_noop);
}

static void
test_owner_chg_succeeds(void **state)
{
	(void)state;
	expect_success_for_any_value("owner_chg");
}

static void
test_accepting_targets_through_revalidate_request(void **state)
{
	static const char text[] =
		"{\"method\":\"revalidate\",\"arguments\":{\"video\":1,\"video2\":null,"
		"\"ipsec\":{},\"thumbnail\":\"x\",\"owner_chg\":{}},\"tag\":\"r\"}";
	struct tu_replies replies;

	(void)state;
	memset(&replies, 0, sizeof(replies));
	assert_int_equal(ipc_request_exec_json(text, -1, tu_reply_capture, &replies),
			 (ssize_t)strlen(text));
	assert_int_equal(replies.count, 1);
	assert_string_equal(replies.text[0],
			    "{ \"arguments\": { }, \"result\": \"success\", \"tag\": \"r\" }");
}

static void
test_s_rootfsver_and_fw_version_share_one_handler(void **state)
{
	(void)state;
	assert_true(info_find("s_rootfsver")->handler == info_find("fw_version")->handler);
}

/* ---- loading twice: the duplicate-name assertion ---- */

static void
child_infos_init_again(void *arg)
{
	(void)arg;
	infos_init();
}

static void
child_revalidates_init_again(void *arg)
{
	(void)arg;
	revalidates_init();
}

static void
expect_duplicate_abort(void (*fn)(void *), const char *module, const char *function)
{
	char *err, text[1024];
	int status = tu_run_child_stderr(fn, NULL, &err);

	snprintf(text, sizeof(text), "%s", err);
	free(err);
	assert_true(WIFSIGNALED(status));
	assert_int_equal(WTERMSIG(status), SIGABRT);
	if (strstr(text, "Assertion `((void *)0) == old' failed.\n") == NULL)
		fail_msg("assertion message: %s", text);
	if (function != NULL && !tu_assertion_is(text, module, function, "((void *)0) == old"))
		fail_msg("assertion message: %s", text);
}

static void
test_infos_init_duplicate_name_aborts(void **state)
{
	(void)state;
	expect_duplicate_abort(child_infos_init_again, NULL, NULL);
}

static void
test_revalidates_init_duplicate_name_aborts(void **state)
{
	(void)state;
	expect_duplicate_abort(child_revalidates_init_again, NULL, NULL);
}

/* The spec places the assertion in module "ipcimpl", function infos_init /
 * revalidates_init. */
static void
test_infos_init_assertion_in_ipcimpl_infos_init(void **state)
{
	(void)state;
	expect_duplicate_abort(child_infos_init_again, "ipcimpl", "infos_init");
}

static void
test_revalidates_init_assertion_in_ipcimpl_revalidates_init(void **state)
{
	(void)state;
	expect_duplicate_abort(child_revalidates_init_again, "ipcimpl", "revalidates_init");
}

#define T(fn) cmocka_unit_test_setup_teardown(fn, tu_stores_setup, tu_stores_teardown)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		T(test_table_rows_is_41),
		T(test_all_41_info_items_found),
		T(test_all_41_revalidate_targets_found),
		T(test_indexes_are_separate),
		T(test_info_name_differing_in_case_not_found),
		T(test_revalidate_name_differing_in_case_not_found),
		T(test_prefix_and_extension_not_found),
		T(test_null_name_not_found),
		T(test_video_succeeds_for_null_number_object),
		T(test_video2_succeeds_for_null_number_object),
		T(test_ipsec_succeeds_for_null_number_object),
		T(test_thumbnail_succeeds_for_null_number_object),
		T(test_four_accepting_targets_share_one_handler),
		T(test_owner_chg_succeeds),
		T(test_accepting_targets_through_revalidate_request),
		T(test_s_rootfsver_and_fw_version_share_one_handler),
		T(test_infos_init_duplicate_name_aborts),
		T(test_revalidates_init_duplicate_name_aborts),
		T(test_infos_init_assertion_in_ipcimpl_infos_init),
		T(test_revalidates_init_assertion_in_ipcimpl_revalidates_init),
	};

	return cmocka_run_group_tests(tests, group_setup, NULL);
}
