// The disk inventory's arithmetic: the size text, the block-size-first division (the 512-byte block case no
// sandbox file system reports), the partition order; the size field holds nine characters.
#include <string>

#include "storage/storage.h"
#include "tests/unit/support.h"

namespace {

TEST(Storage, CapacityTextSizesAndOrder)
{
	for (auto [kib, text] : {std::pair<uint64_t, const char *>{1048576, "1.00G"}, {1048575, "1024.0M"}, {1023, "1023K"}, {0, "0K"},
				  {9999ULL << 30, "10238976."}})
		EXPECT_EQ(format_capacity(kib), text) << kib;
	const uint64_t sizes[][7] = {{512, 1000000, 400000, 300000, 0, 0, 0}, {4096, 256, 200, 150, 1024, 224, 600}};
	for (const auto &c : sizes) {
		partition_info part{};
		hx::storage::partition_sizes(&part, c[0], c[1], c[2], c[3]);
		EXPECT_EQ(std::make_tuple(part.capacity, part.used, part.avail), std::make_tuple(c[4], c[5], c[6])) << c[0];
	}
	disk_info disk{};
	for (auto [number, label] : {std::pair<uint32_t, const char *>{10, "a10"}, {2, "a2"}, {0, "x"}, {1, "a1"}, {0, "y"}}) {
		disk.partition[disk.partition_num].number = number;
		snprintf(disk.partition[disk.partition_num++].label, 64, "%s", label);
	}
	sort_sector_list(&disk);
	std::string order;
	for (uint32_t i = 0; i < disk.partition_num; i++)
		order += std::string(disk.partition[i].label) + " ";
	EXPECT_EQ(order, "x y a1 a2 a10 ");
}

}  // namespace
