// The disk inventory's arithmetic: the size text, the block-size-first division (the 512-byte block case no
// sandbox file system reports), the partition order, the null records, the share root.
#include <stdlib.h>

#include <string>

#include "storage/storage.h"
#include "tests/unit/support.h"

namespace {

TEST(Storage, CapacityTextAndSizes)
{
	// the field holds nine characters: a larger size is cut
	const std::pair<uint64_t, const char *> texts[] = {{1048576, "1.00G"}, {1048575, "1024.0M"}, {1023, "1023K"}, {0, "0K"},
		{1024, "1.0M"}, {1536, "1.5M"}, {15ULL << 30, "15360.00G"}, {9999ULL << 30, "10238976."}};
	for (auto [kib, text] : texts)
		EXPECT_EQ(format_capacity(kib), text) << kib;
	const uint64_t sizes[][7] = {{512, 1000000, 400000, 300000, 0, 0, 0}, {4096, 256, 200, 150, 1024, 224, 600}, {1536, 10, 4, 3, 10, 6, 3}};
	for (const auto &c : sizes) {
		partition_info part{};
		hx::storage::partition_sizes(&part, c[0], c[1], c[2], c[3]);
		EXPECT_EQ(std::make_tuple(part.capacity, part.used, part.avail), std::make_tuple(c[4], c[5], c[6])) << c[0];
	}
}

TEST(Storage, PartitionsSortedByNumberEqualKeepTheirOrder)
{
	disk_info disk{};
	for (auto [number, label] : {std::pair<uint32_t, const char *>{10, "a10"}, {2, "a2"}, {0, "x"}, {1, "a1"}, {0, "y"}, {UINT32_MAX, "max"}}) {
		disk.partition[disk.partition_num].number = number;
		snprintf(disk.partition[disk.partition_num++].label, 64, "%s", label);
	}
	sort_sector_list(&disk);
	std::string order;
	for (uint32_t i = 0; i < disk.partition_num; i++)
		order += std::string(disk.partition[i].label) + " ";
	EXPECT_EQ(order, "x y a1 a2 a10 max ");
}

TEST(Storage, NullRecordsAndShareRoot)
{
	EXPECT_EQ(hx::test::stdout_of([] {
		EXPECT_EQ(getDiskProbe(nullptr) + getSnDiskInfo(nullptr) + getDiskList(nullptr) + getDiskInfo(nullptr, "sda"), -4);
	}), "parameter of getDiskProbe invalid\nparameter of getSnDiskInfo invalid\nparameter of getDiskInfo invalid\n"
	    "parameter of getDiskInfo invalid\n");
	disk_info disk{};  // the share root is MOUNT_TOP, looked up on every use
	setenv("MOUNT_TOP", "/hx-no-such-share-root", 1);
	EXPECT_EQ(std::make_pair(getSnDiskInfo(&disk), disk.partition_num), std::make_pair(0, 0u));
	setenv("MOUNT_TOP", "/proc", 1);
	EXPECT_EQ(getSnDiskInfo(&disk), 0);
	EXPECT_GE(disk.partition_num, 1u);
	unsetenv("MOUNT_TOP");
}

}  // namespace
