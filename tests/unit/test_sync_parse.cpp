// What the sync subsystem works out by itself: card sizes, the blkid UUID, owner folders, backup log records
// and the log's 50-record ring, the path check.
#include <string>

#include "core/fmt.h"
#include "sync/sync.h"
#include "tests/unit/support.h"

namespace {

TEST(Sync, CardSizeUuidOwnerAndPath)
{
	for (auto [bytes, gb] : {std::pair<uint64_t, unsigned>{31914983424ULL, 32}, {40600000000ULL, 41}, {0, 0}, {190000000000ULL, 200}})
		EXPECT_EQ(cap_calc(bytes), gb) << bytes;
	EXPECT_EQ(hx::sync::uuid_from_blkid("/dev/sdb1: LABEL=\"SD\" UUID=\"1A2B-3C4D\" TYPE=\"vfat\"\n"), "1A2B-3C4D");
	EXPECT_EQ(hx::sync::uuid_from_blkid("UUID=\"" + std::string(100, '7') + "\""), std::string(63, '7'));
	EXPECT_EQ(hx::sync::uuid_from_blkid("/dev/sdb1: TYPE=\"vfat\"\n"), "0000-0000");
	for (auto [user, folder] : {std::pair<const char *, const char *>{"user0_name", "Default user"}, {"user3_name", "Owner3"}, {"user4_name", ""}})
		EXPECT_EQ(hx::sync::owner_folder(user), folder) << user;
	for (const char *safe : {"USB_A1/..photos/a..b/", "...", "'single' ;|&"})
		EXPECT_TRUE(hx::sync::path_safe(safe)) << safe;
	for (const char *unsafe : {"..", "USB_A1/../etc", "USB_A1/..", "a$b", "a`b", "a\"b", "a\\b"})
		EXPECT_FALSE(hx::sync::path_safe(unsafe)) << unsafe;
}

std::string shown(const backup_record &r)
{
	return hx::format("%ld %s %s [%s] %ld [%s] %ld [%s] %ld", r.id, backup_result_str[r.result], backup_type_str[r.type],
			  r.dest_dir.c_str(), r.file_count, r.oldest_file.c_str(), r.oldest_time, r.newest_file.c_str(), r.newest_time);
}

TEST(Sync, LogRecordsAndTheLast50)
{
	const std::pair<std::string, std::string> lines[] = {
		{";;log_id=7;;result=failed;;sync_type=auto;;dest_dir=USB_A1/Owner1;;file_count=12;;oldest_file=a.jpg"
		 ";;oldest_time=100;;newest_file=b c.jpg;;newest_time=200\n", "7 failed auto [USB_A1/Owner1] 12 [a.jpg] 100 [b c.jpg] 200"},
		{"junk;;log_id=4;;result=maybe;;sync_type= auto x;;file_count=x;;noequals;;=5\n", "4 success auto [] 0 [] 0 [] 0"},
		{";;dest_dir=" + std::string(300, 'v'), "0 success manual [" + std::string(255, 'v') + "] 0 [] 0 [] 0"}};
	for (const auto &[line, record] : lines) {
		backup_record r;
		initRecord(r);
		getRecordFromLine(r, line);
		EXPECT_EQ(shown(r), record) << line;
	}
	hx::test::TempDir dir;
	std::string text = "no record here\n";
	for (int i = 1; i <= 51; i++)
		text += hx::format("date;;log_id=%d;;dest_dir=d%d\n", i, i);
	backup_log_list list = getLogListFromFile(dir.write("sync.log", text).c_str());
	EXPECT_EQ(std::make_tuple(list.count, list.latest_id, list.records[1].id, list.records[49].id), std::make_tuple(50u, 51u, 2L, 50L));
	EXPECT_EQ(shown(list.records[0]), "51 success manual [d51] 0 [] 0 [] 0");
	EXPECT_EQ(getLogListFromFile(dir.file("none").c_str()).count, 0u);
}

}  // namespace
