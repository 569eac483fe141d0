// The disk inventory's pure parts: the size text, the partition sort, the
// block-size-first arithmetic (the 512-byte block case no sandbox file
// system reports), the lock-state names and the share root.
#include <stdlib.h>

#include <string>

#include "storage/storage.h"
#include "tests/unit/support.h"

namespace {

struct CapacityCase {
	uint64_t kib;
	const char *text;
};

class Capacity : public ::testing::TestWithParam<CapacityCase> {};

TEST_P(Capacity, Text)
{
	EXPECT_EQ(format_capacity(GetParam().kib), GetParam().text);
}

// The field holds nine characters: a larger size is cut.
INSTANTIATE_TEST_SUITE_P(Sizes, Capacity,
			 ::testing::Values(CapacityCase{1048576, "1.00G"}, CapacityCase{1048575, "1024.0M"},
					   CapacityCase{1023, "1023K"}, CapacityCase{0, "0K"},
					   CapacityCase{1024, "1.0M"}, CapacityCase{1536, "1.5M"},
					   CapacityCase{15ULL << 30, "15360.00G"},
					   CapacityCase{9999ULL << 30, "10238976."}));

TEST(Partitions, SortedByNumberNoDigitsFirstEqualKeepTheirOrder)
{
	disk_info disk{};
	const std::pair<uint32_t, const char *> parts[] = {
		{10, "a10"}, {2, "a2"}, {0, "x"}, {1, "a1"}, {0, "y"}, {UINT32_MAX, "max"}};
	for (const auto &[number, label] : parts) {
		disk.partition[disk.partition_num].number = number;
		snprintf(disk.partition[disk.partition_num++].label, 64, "%s", label);
	}
	sort_sector_list(&disk);
	std::string order;
	for (uint32_t i = 0; i < disk.partition_num; i++)
		order += std::string(disk.partition[i].label) + " ";
	EXPECT_EQ(order, "x y a1 a2 a10 max ");
	EXPECT_EQ(disk.partition[6].number, 0u);
}

TEST(Partitions, SizesDivideTheBlockSizeFirst)
{
	struct {
		uint64_t bsize, blocks, bfree, bavail, capacity, used, avail;
	} const cases[] = {
		{512, 1000000, 400000, 300000, 0, 0, 0},
		{4096, 256, 200, 150, 1024, 224, 600},
		{1536, 10, 4, 3, 10, 6, 3},
	};
	for (const auto &c : cases) {
		partition_info part{};
		hx::storage::partition_sizes(&part, c.bsize, c.blocks, c.bfree, c.bavail);
		EXPECT_EQ(part.capacity, c.capacity) << c.bsize;
		EXPECT_EQ(part.used, c.used) << c.bsize;
		EXPECT_EQ(part.avail, c.avail) << c.bsize;
	}
}

TEST(LockState, Names)
{
	EXPECT_STREQ(disk_lock_state_name(-1), "Error");
	EXPECT_STREQ(disk_lock_state_name(0), "Unlocked");
	EXPECT_STREQ(disk_lock_state_name(1), "Locked");
	EXPECT_STREQ(disk_lock_state_name(2), "Unlocks Exceeded");
	EXPECT_EQ(disk_lock_state_name(-2), nullptr);
	EXPECT_EQ(disk_lock_state_name(3), nullptr);
}

TEST(Gathering, NullRecordsFail)
{
	std::string out = hx::test::stdout_of([] {
		EXPECT_EQ(getDiskProbe(nullptr), -1);
		EXPECT_EQ(getSnDiskInfo(nullptr), -1);
		EXPECT_EQ(getDiskList(nullptr), -1);
		EXPECT_EQ(getDiskInfo(nullptr, "sda"), -1);
	});
	EXPECT_EQ(out, "parameter of getDiskProbe invalid\nparameter of getSnDiskInfo invalid\n"
		       "parameter of getDiskInfo invalid\nparameter of getDiskInfo invalid\n");
}

// The share root is MOUNT_TOP, looked up on every use (the host's own
// mount table: /proc is mounted everywhere these tests run).
TEST(Gathering, ShareRootFromTheEnvironment)
{
	disk_info disk{};
	setenv("MOUNT_TOP", "/hx-no-such-share-root", 1);
	EXPECT_EQ(getSnDiskInfo(&disk), 0);
	EXPECT_EQ(disk.partition_num, 0u);
	setenv("MOUNT_TOP", "/proc", 1);
	EXPECT_EQ(getSnDiskInfo(&disk), 0);
	EXPECT_GE(disk.partition_num, 1u);
	unsetenv("MOUNT_TOP");
}

}  // namespace
