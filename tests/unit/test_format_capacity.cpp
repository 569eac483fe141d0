/* storage/disk.c: the size text, the partition sort and the block-size-first
 * arithmetic (the 512-byte block case no sandbox file system reports). */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

extern "C" {
#include <cmocka.h>
}

#include "storage/storage.h"

static void
check_capacity(uint64_t kib, const char *text)
{
	char out[STORAGE_CAPACITY_TEXT];

	memset(out, 'x', sizeof(out));
	format_capacity(kib, out);
	assert_string_equal(out, text);
}

static void
test_format_capacity(void **state)
{
	(void)state;
	check_capacity(1048576, "1.00G");
	check_capacity(1048575, "1024.0M");
	check_capacity(1023, "1023K");
	check_capacity(0, "0K");
	check_capacity(1024, "1.0M");
	check_capacity(1536, "1.5M");
	check_capacity(15ULL * 1024 * 1024 * 1024, "15360.00G");
	check_capacity(9999ULL * 1024 * 1024 * 1024, "10238976.");
}

static void
test_sort_numeric_and_no_digits_first(void **state)
{
	static const uint32_t numbers[] = { 10, 2, 0, 1, 3 };
	static const uint32_t sorted[] = { 0, 1, 2, 3, 10 };
	disk_info disk;
	uint32_t i;

	(void)state;
	memset(&disk, 0, sizeof(disk));
	for (i = 0; i < 5; i++)
		disk.partition[i].number = numbers[i];
	disk.partition_num = 5;
	sort_sector_list(&disk);
	for (i = 0; i < 5; i++)
		assert_int_equal(disk.partition[i].number, sorted[i]);
	assert_int_equal(disk.partition[5].number, 0);
}

static void
test_sort_extreme_numbers(void **state)
{
	partition_info a = {}, b = {};
	b.number = UINT32_MAX;

	(void)state;
	assert_true(sector_compare(&a, &b) < 0);
	assert_true(sector_compare(&b, &a) > 0);
	assert_int_equal(sector_compare(&a, &a), 0);
}

static void
test_sizes_divide_block_size_first(void **state)
{
	partition_info part;

	(void)state;
	memset(&part, 0, sizeof(part));
	partition_sizes(&part, 512, 1000000, 400000, 300000);
	assert_int_equal(part.capacity, 0);
	assert_int_equal(part.used, 0);
	assert_int_equal(part.avail, 0);
	partition_sizes(&part, 4096, 256, 200, 150);
	assert_int_equal(part.capacity, 1024);
	assert_int_equal(part.used, 224);
	assert_int_equal(part.avail, 600);
	partition_sizes(&part, 1536, 10, 4, 3);
	assert_int_equal(part.capacity, 10);
	assert_int_equal(part.used, 6);
	assert_int_equal(part.avail, 3);
}

static void
test_lock_state_names(void **state)
{
	(void)state;
	assert_string_equal(disk_lock_state_name(-1), "Error");
	assert_string_equal(disk_lock_state_name(0), "Unlocked");
	assert_string_equal(disk_lock_state_name(1), "Locked");
	assert_string_equal(disk_lock_state_name(2), "Unlocks Exceeded");
	assert_null(disk_lock_state_name(-2));
	assert_null(disk_lock_state_name(3));
}

static void
test_null_records_fail(void **state)
{
	(void)state;
	assert_int_equal(getDiskProbe(NULL), -1);
	assert_int_equal(getSnDiskInfo(NULL), -1);
	assert_int_equal(getDiskList(NULL), -1);
	assert_int_equal(getDiskInfo(NULL, "sda"), -1);
}

/* The share root is MOUNT_TOP, looked up on every use (the host's own
 * mount table: /proc is mounted everywhere these tests run). */
static void
test_share_root_from_environment(void **state)
{
	disk_info di;

	(void)state;
	memset(&di, 0, sizeof(di));
	setenv("MOUNT_TOP", "/hx-no-such-share-root", 1);
	assert_int_equal(getSnDiskInfo(&di), 0);
	assert_int_equal(di.partition_num, 0);
	setenv("MOUNT_TOP", "/proc", 1);
	assert_int_equal(getSnDiskInfo(&di), 0);
	assert_true(di.partition_num >= 1);
	unsetenv("MOUNT_TOP");
}

int
main(void)
{
	const struct CMUnitTest tests[] = {
		cmocka_unit_test(test_format_capacity),
		cmocka_unit_test(test_sort_numeric_and_no_digits_first),
		cmocka_unit_test(test_sort_extreme_numbers),
		cmocka_unit_test(test_sizes_divide_block_size_first),
		cmocka_unit_test(test_lock_state_names),
		cmocka_unit_test(test_null_records_fail),
		cmocka_unit_test(test_share_root_from_environment),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
