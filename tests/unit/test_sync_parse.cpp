// What the sync subsystem works out by itself: card sizes, the blkid UUID, owner folders, the backup log
// and its 50-record ring, the path check and the refusals before a task starts.
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "core/fmt.h"
#include "sync/sync.h"
#include "tests/unit/support.h"

namespace {

using hx::test::stdout_of;

TEST(Sync, CardSizeUuidAndOwner)
{
	const std::pair<uint64_t, unsigned> sizes[] = {{31914983424ULL, 32}, {7500000000ULL, 8}, {40000000000ULL, 40},
		{40600000000ULL, 41}, {0, 0}, {1000000000ULL, 1}, {2100000000ULL, 2}, {128000000000ULL, 128}, {190000000000ULL, 200}};
	for (auto [bytes, gb] : sizes)
		EXPECT_EQ(cap_calc(bytes), gb) << bytes;
	const std::pair<std::string, std::string> uuids[] = {{"/dev/sdb1: LABEL=\"SD\" UUID=\"1A2B-3C4D\" TYPE=\"vfat\"\n", "1A2B-3C4D"},
		{"/dev/sdb1: UUID=\"1A2B-3C4D\n", "1A2B-3C4D"}, {"/dev/sdb1: TYPE=\"vfat\"\n", "0000-0000"}, {"", "0000-0000"},
		{"UUID=\"" + std::string(100, '7') + "\" TYPE=\"vfat\"", std::string(63, '7')}};
	for (const auto &[line, uuid] : uuids)
		EXPECT_EQ(hx::sync::uuid_from_blkid(line), uuid) << line;
	const std::pair<const char *, const char *> owners[] = {{"user0_name", "Default user"}, {"user1_name", "Owner1"},
		{"user2_name", "Owner2"}, {"user3_name", "Owner3"}, {"user4_name", ""}, {"user1_name ", ""}};
	for (auto [user, folder] : owners)
		EXPECT_EQ(hx::sync::owner_folder(user), folder) << user;
}

std::string shown(const backup_record &r)
{
	return hx::format("%ld %s %s [%s] %ld [%s] %ld [%s] %ld", r.id, backup_result_str[r.result], backup_type_str[r.type],
			  r.dest_dir.c_str(), r.file_count, r.oldest_file.c_str(), r.oldest_time, r.newest_file.c_str(), r.newest_time);
}

TEST(Sync, LogLines)
{
	const std::string none = " success manual [] 0 [] 0 [] 0";
	const std::pair<std::string, std::string> lines[] = {
		{";;log_id=7;;result=failed;;sync_type=auto;;dest_dir=USB_A1/Owner1;;file_count=12;;oldest_file=a.jpg"
		 ";;oldest_time=100;;newest_file=b c.jpg;;newest_time=200\n", "7 failed auto [USB_A1/Owner1] 12 [a.jpg] 100 [b c.jpg] 200"},
		{";;log_id=3\n", "3" + none},  // unknown words keep the field, numbers that do not convert keep theirs
		{"junk;;log_id=4;;result=maybe;;sync_type= auto later;;colour=red;;file_count=x;;noequals;;=5\n", "4 success auto [] 0 [] 0 [] 0"},
		{"a;;b;;c;;d;;e;;f;;g;;h;;i;;log_id=1;;file_count=9\n", "1" + none},  // the eleventh field is not read
		{";;dest_dir=" + std::string(300, 'v'), "0 success manual [" + std::string(255, 'v') + "] 0 [] 0 [] 0"},
		{";;dest_dir=;;oldest_file=\n;;log_id=99999999999999999999999", hx::format("%ld", LONG_MAX) + none},
		{";;log_id=2;;" + std::string(127, 'k') + "=x;;" + std::string(128, 'k') + "=x", "2" + none},
		{";;dest_dir=" + std::string(2100, 'd') + ";;log_id=6", "6 success manual [" + std::string(255, 'd') + "] 0 [] 0 [] 0"}};
	for (const auto &[line, record] : lines) {
		backup_record r;
		initRecord(r);
		getRecordFromLine(r, line);
		EXPECT_EQ(shown(r), record) << line;
	}
	backup_record r;
	getRecordFromLine(r, ";;log_id=5;;dest_dir=d;;file_count=2;;oldest_file=o;;oldest_time=1;;newest_file=n;;newest_time=9");
	EXPECT_EQ(stdout_of([&] { recordDescription("rec", r); }),
		  "\nrec -------------------\nrec id = 5\nrec result = success\nrec type = manual\nrec desdir = d\nrec num = 2\n"
		  "rec oldest_name = o\nrec oldest_time = 1\nrec newest_name = n\nrec newest_time = 9\nrec -------------------\n");
}

TEST(Sync, LogFileKeepsTheLast50)
{
	hx::test::TempDir dir;
	std::string text = "no record here\n";
	for (int i = 1; i <= 51; i++)
		text += hx::format("date;;log_id=%d;;dest_dir=d%d\n", i, i);
	backup_log_list list = getLogListFromFile(dir.write("sync.log", text).c_str());
	EXPECT_EQ(std::make_tuple(list.count, list.latest_id, list.records[1].id, list.records[49].id), std::make_tuple(50u, 51u, 2L, 50L));
	EXPECT_EQ(shown(list.records[0]), "51 success manual [d51] 0 [] 0 [] 0");
	list = getLogListFromFile(dir.write("sync.log", text.substr(0, text.rfind("date"))).c_str());
	EXPECT_EQ(std::make_tuple(list.count, list.records[0].id), std::make_tuple(50u, 1L));
	// a line over 2047 characters is read in pieces, each judged alone
	list = getLogListFromFile(dir.write("sync.log", ";;log_id=9\n;;log_id=3\n" + std::string(2047, 'x') + ";;log_id=4\n").c_str());
	EXPECT_EQ(std::make_tuple(list.count, list.latest_id, list.records[2].id), std::make_tuple(3u, 9u, 4L));
	EXPECT_EQ(getLogListFromFile(dir.file("none").c_str()).count, 0u);
}

TEST(Sync, NullArgumentsAndPaths)
{
	EXPECT_EQ(stdout_of([] {
		EXPECT_STREQ(_info_getSyncTaskList(nullptr, nullptr, nullptr), "invalid arguments");
		EXPECT_STREQ(_info_getSDCardStatus(nullptr, nullptr, nullptr), "Invalid arguments.");
		EXPECT_STREQ(_info_getSDCardBackupLogs(nullptr, nullptr, nullptr), "Invalid arguments.");
	}), "Input parameters are NULL.\nInput parameters are NULL.\nInput parameters are NULL.\n");
	for (const char *safe : {"USB_A1/..photos/a..b/", "SD Card 32GB 1A2B-3C4D", "...", "a/./b", "", "'single' ;|&"})
		EXPECT_TRUE(hx::sync::path_safe(safe)) << safe;
	EXPECT_TRUE(hx::sync::path_safe(nullptr));
	for (const char *unsafe : {"..", "../x", "USB_A1/../etc", "USB_A1/..", "a//../b", "a$b", "a`b", "a\"b", "a\\b"})
		EXPECT_FALSE(hx::sync::path_safe(unsafe)) << unsafe;
}

// Refused before a worker starts, the share being a temporary directory: the task's place stays free.
TEST(Sync, RefusedTasks)
{
	hx::test::TempDir dir;
	setenv("MOUNT_TOP", dir.path().c_str(), 1);
	dir.write("file", "x");
	auto run = [](const char *src, const char *dst) { return stdout_of([&] { EXPECT_EQ(sync_task_new(0, src, dst), -1); }); };
	EXPECT_EQ(run("file", nullptr).substr(0, 37), "hxsrvd: Sync DEBUG: sync_task_new (li");
	EXPECT_EQ(run("../file", "made") + run("file", "a$b"), "");
	EXPECT_NE(run("none", "made").find(") Check source path(" + dir.file("none") + ") failed\n"), std::string::npos);
	struct stat st;
	EXPECT_EQ(stat(dir.file("made").c_str(), &st), 0);  // made before the source was checked
	EXPECT_NE(run("made", "file").find(") Check destination path(" + dir.file("file") + ") failed\n"), std::string::npos);
	EXPECT_EQ(g_synctask.status.load(), hx::sync::Status::none);
	unsetenv("MOUNT_TOP");
	rmdir(dir.file("made").c_str());
}

}  // namespace
