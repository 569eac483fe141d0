/* Parts 7.1 and 7.2: the pure parts of the sync subsystem: nominal card
 * sizes, the blkid UUID, the owner folders, the backup-log line parser and
 * its 50-record ring, and the path check of sync tasks. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}

#include "sync/sync.h"
#include "tests/unit/testutil.h"

/* ---- cap_calc ---- */

static void
test_cap_31_9_gb_is_32(void **state)
{
	(void)state;
	assert_int_equal(cap_calc(31914983424ULL), 32);
}

static void
test_cap_7_5_gb_is_8(void **state)
{
	(void)state;
	assert_int_equal(cap_calc(7500000000ULL), 8);
}

static void
test_cap_40_gb_matches_nothing(void **state)
{
	(void)state;
	assert_int_equal(cap_calc(40000000000ULL), 40);
	/* rounded to nearest when no size matches */
	assert_int_equal(cap_calc(40600000000ULL), 41);
	assert_int_equal(cap_calc(0), 0);
}

static void
test_cap_sizes_in_table_order(void **state)
{
	(void)state;
	assert_int_equal(cap_calc(1000000000ULL), 1);
	assert_int_equal(cap_calc(2100000000ULL), 2);
	assert_int_equal(cap_calc(128000000000ULL), 128);
	assert_int_equal(cap_calc(190000000000ULL), 200);
}

/* ---- blkid ---- */

static void
test_uuid_followed_by_quote_and_blank(void **state)
{
	char uuid[64];

	(void)state;
	sd_uuid_from_blkid("/dev/sdb1: LABEL=\"SD\" UUID=\"1A2B-3C4D\" TYPE=\"vfat\"\n", uuid,
			   sizeof(uuid));
	assert_string_equal(uuid, "1A2B-3C4D");
}

static void
test_uuid_as_last_attribute(void **state)
{
	char uuid[64];

	(void)state;
	sd_uuid_from_blkid("/dev/sdb1: LABEL=\"SD\" UUID=\"1A2B-3C4D\"\n", uuid, sizeof(uuid));
	assert_string_equal(uuid, "1A2B-3C4D");
}

static void
test_no_uuid_gives_zeros(void **state)
{
	char uuid[64];

	(void)state;
	sd_uuid_from_blkid("/dev/sdb1: LABEL=\"SD\" TYPE=\"vfat\"\n", uuid, sizeof(uuid));
	assert_string_equal(uuid, "0000-0000");
	sd_uuid_from_blkid("", uuid, sizeof(uuid));
	assert_string_equal(uuid, "0000-0000");
}

static void
test_long_uuid_is_bounded(void **state)
{
	char line[256], uuid[64];

	(void)state;
	snprintf(line, sizeof(line), "UUID=\"%0100d\" TYPE=\"vfat\"", 0);
	sd_uuid_from_blkid(line, uuid, sizeof(uuid));
	assert_int_equal(strlen(uuid), 63);
}

/* ---- owners ---- */

static void
test_owner_folders(void **state)
{
	(void)state;
	assert_string_equal(sd_owner_folder("user0_name"), "Default user");
	assert_string_equal(sd_owner_folder("user1_name"), "Owner1");
	assert_string_equal(sd_owner_folder("user2_name"), "Owner2");
	assert_string_equal(sd_owner_folder("user3_name"), "Owner3");
	assert_string_equal(sd_owner_folder("user4_name"), "");
}

/* ---- log lines ---- */

static void
test_record_all_keys(void **state)
{
	struct backup_record r;

	(void)state;
	initRecord(&r);
	getRecordFromLine(&r, ";;log_id=7;;result=failed;;sync_type=auto;;dest_dir=USB_A1/Owner1"
			  ";;file_count=12;;oldest_file=a.jpg;;oldest_time=100;;newest_file=b c.jpg"
			  ";;newest_time=200\n");
	assert_int_equal(r.id, 7);
	assert_string_equal(backup_result_str[r.result], "failed");
	assert_string_equal(backup_type_str[r.type], "auto");
	assert_string_equal(r.dest_dir, "USB_A1/Owner1");
	assert_int_equal(r.file_count, 12);
	assert_string_equal(r.oldest_file, "a.jpg");
	assert_int_equal(r.oldest_time, 100);
	assert_string_equal(r.newest_file, "b c.jpg");
	assert_int_equal(r.newest_time, 200);
}

static void
test_record_defaults(void **state)
{
	struct backup_record r;

	(void)state;
	initRecord(&r);
	getRecordFromLine(&r, ";;log_id=3\n");
	assert_int_equal(r.id, 3);
	assert_string_equal(backup_result_str[r.result], "success");
	assert_string_equal(backup_type_str[r.type], "manual");
	assert_string_equal(r.dest_dir, "");
	assert_int_equal(r.file_count, 0);
}

static void
test_record_unknown_words_and_keys_are_ignored(void **state)
{
	struct backup_record r;

	(void)state;
	initRecord(&r);
	getRecordFromLine(&r, "junk;;log_id=4;;result=maybe;;sync_type=auto later;;colour=red"
			  ";;file_count=x;;noequals\n");
	assert_int_equal(r.id, 4);
	assert_int_equal(r.result, 0);
	assert_string_equal(backup_type_str[r.type], "auto");
	assert_int_equal(r.file_count, 0);
}

static void
test_record_at_most_ten_fields(void **state)
{
	struct backup_record r;

	(void)state;
	initRecord(&r);
	/* the eleventh field is not read */
	getRecordFromLine(&r, "a;;b;;c;;d;;e;;f;;g;;h;;i;;log_id=1;;file_count=9\n");
	assert_int_equal(r.id, 1);
	assert_int_equal(r.file_count, 0);
}

static void
test_record_long_values_are_bounded(void **state)
{
	struct backup_record r;
	char line[4096];

	(void)state;
	memset(line, 'x', sizeof(line));
	memcpy(line, ";;dest_dir=", 11);
	line[sizeof(line) - 1] = '\0';
	initRecord(&r);
	getRecordFromLine(&r, line);
	assert_int_equal(strlen(r.dest_dir), 255);
}

/* ---- the log file and its ring ---- */

static char *
write_log(int records, const char *extra)
{
	char *dir = tu_tempdir();
	char *path = tu_path(dir, "sync.log");
	FILE *fp = fopen(path, "w");
	int i;

	assert_non_null(fp);
	fputs(extra, fp);
	for (i = 1; i <= records; i++)
		fprintf(fp, "date;;log_id=%d;;dest_dir=d%d\n", i, i);
	fclose(fp);
	free(dir);
	return path;
}

static void
remove_log(char *path)
{
	char *dir = strdup(path);

	*strrchr(dir, '/') = '\0';
	tu_rmtree(dir);
	free(dir);
	free(path);
}

static void
test_log_51_records_ring(void **state)
{
	struct backup_log_list *list = (struct backup_log_list *)calloc(1, sizeof(*list));
	char *path = write_log(51, "no record here\n");

	(void)state;
	assert_int_equal(getLogListFromFile(list, path), 0);
	assert_int_equal(list->count, 50);
	assert_int_equal(list->latest_id, 51);
	assert_int_equal(list->records[0].id, 51);
	assert_string_equal(list->records[0].dest_dir, "d51");
	assert_int_equal(list->records[1].id, 2);
	assert_int_equal(list->records[49].id, 50);
	remove_log(path);
	free(list);
}

static void
test_log_50_records_no_wrap(void **state)
{
	struct backup_log_list *list = (struct backup_log_list *)calloc(1, sizeof(*list));
	char *path = write_log(50, "");

	(void)state;
	getLogListFromFile(list, path);
	assert_int_equal(list->count, 50);
	assert_int_equal(list->records[0].id, 1);
	remove_log(path);
	free(list);
}

static void
test_log_latest_id_is_largest(void **state)
{
	struct backup_log_list *list = (struct backup_log_list *)calloc(1, sizeof(*list));
	char *path = write_log(0, ";;log_id=9\n;;log_id=3\n");

	(void)state;
	getLogListFromFile(list, path);
	assert_int_equal(list->count, 2);
	assert_int_equal(list->latest_id, 9);
	remove_log(path);
	free(list);
}

static void
test_log_missing_file_is_empty(void **state)
{
	struct backup_log_list *list = (struct backup_log_list *)calloc(1, sizeof(*list));

	(void)state;
	assert_int_equal(getLogListFromFile(list, "/nonexistent/sync.log"), 0);
	assert_int_equal(list->count, 0);
	assert_int_equal(getLogListFromFile(list, NULL), -1);
	free(list);
}

static void
test_record_description(void **state)
{
	struct backup_record r;
	struct tu_capture cap;
	char *out;

	(void)state;
	initRecord(&r);
	getRecordFromLine(&r, ";;log_id=5;;dest_dir=d;;file_count=2;;oldest_file=o;;oldest_time=1"
			  ";;newest_file=n;;newest_time=9");
	tu_capture_begin(&cap, stdout);
	recordDescription("rec", &r);
	out = tu_capture_end(&cap);
	assert_string_equal(out, "\nrec -------------------\nrec id = 5\nrec result = success\n"
			    "rec type = manual\nrec desdir = d\nrec num = 2\nrec oldest_name = o\n"
			    "rec oldest_time = 1\nrec newest_name = n\nrec newest_time = 9\n"
			    "rec -------------------\n");
	free(out);
}

/* ---- items on null arguments ---- */

static void
test_items_on_null_arguments(void **state)
{
	struct tu_capture cap;
	char *out;

	(void)state;
	tu_capture_begin(&cap, stdout);
	assert_string_equal(_info_getSyncTaskList(NULL, NULL, NULL), "invalid arguments");
	assert_string_equal(_info_getSDCardStatus(NULL, NULL, NULL), "Invalid arguments.");
	assert_string_equal(_info_getSDCardBackupLogs(NULL, NULL, NULL), "Invalid arguments.");
	out = tu_capture_end(&cap);
	assert_string_equal(out, "Input parameters are NULL.\nInput parameters are NULL.\n"
			    "Input parameters are NULL.\n");
	free(out);
}

/* ---- sync paths (DESIGN.md 8) ---- */

static void
test_sync_paths(void **state)
{
	(void)state;
	assert_int_equal(sync_path_safe(NULL), 0);
	assert_int_equal(sync_path_safe("USB_A1/photos"), 0);
	assert_int_equal(sync_path_safe("USB_A1/..photos/a..b/"), 0);
	assert_int_equal(sync_path_safe("SD Card 32GB 1A2B-3C4D"), 0);
	assert_int_equal(sync_path_safe(".."), -1);
	assert_int_equal(sync_path_safe("USB_A1/../etc"), -1);
	assert_int_equal(sync_path_safe("USB_A1/.."), -1);
	assert_int_equal(sync_path_safe("a$b"), -1);
	assert_int_equal(sync_path_safe("a`b"), -1);
	assert_int_equal(sync_path_safe("a\"b"), -1);
	assert_int_equal(sync_path_safe("a\\b"), -1);
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test(test_cap_31_9_gb_is_32),
		cmocka_unit_test(test_cap_7_5_gb_is_8),
		cmocka_unit_test(test_cap_40_gb_matches_nothing),
		cmocka_unit_test(test_cap_sizes_in_table_order),
		cmocka_unit_test(test_uuid_followed_by_quote_and_blank),
		cmocka_unit_test(test_uuid_as_last_attribute),
		cmocka_unit_test(test_no_uuid_gives_zeros),
		cmocka_unit_test(test_long_uuid_is_bounded),
		cmocka_unit_test(test_owner_folders),
		cmocka_unit_test(test_record_all_keys),
		cmocka_unit_test(test_record_defaults),
		cmocka_unit_test(test_record_unknown_words_and_keys_are_ignored),
		cmocka_unit_test(test_record_at_most_ten_fields),
		cmocka_unit_test(test_record_long_values_are_bounded),
		cmocka_unit_test(test_log_51_records_ring),
		cmocka_unit_test(test_log_50_records_no_wrap),
		cmocka_unit_test(test_log_latest_id_is_largest),
		cmocka_unit_test(test_log_missing_file_is_empty),
		cmocka_unit_test(test_record_description),
		cmocka_unit_test(test_items_on_null_arguments),
		cmocka_unit_test(test_sync_paths),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
