// What the sync subsystem works out by itself: nominal card sizes, the
// blkid UUID, owner folders, the backup-log parser and its 50-record ring,
// the path check of sync tasks and the refusals before a task starts.
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "core/fmt.h"
#include "sync/sync.h"
#include "tests/unit/support.h"

namespace {

using hx::test::stdout_of;

struct Capacity {
	uint64_t bytes;
	unsigned int gb;
};

class CardSize : public ::testing::TestWithParam<Capacity> {};

TEST_P(CardSize, IsTheNominalSizeWithinTenPercentElseRounded)
{
	EXPECT_EQ(cap_calc(GetParam().bytes), GetParam().gb);
}

INSTANTIATE_TEST_SUITE_P(Sizes, CardSize,
			 ::testing::Values(Capacity{31914983424ULL, 32}, Capacity{7500000000ULL, 8},
					   Capacity{40000000000ULL, 40}, Capacity{40600000000ULL, 41},
					   Capacity{0, 0}, Capacity{1000000000ULL, 1},
					   Capacity{2100000000ULL, 2}, Capacity{128000000000ULL, 128},
					   Capacity{190000000000ULL, 200}));

TEST(Blkid, Uuid)
{
	EXPECT_EQ(hx::sync::uuid_from_blkid("/dev/sdb1: LABEL=\"SD\" UUID=\"1A2B-3C4D\" TYPE=\"vfat\"\n"),
		  "1A2B-3C4D");
	EXPECT_EQ(hx::sync::uuid_from_blkid("/dev/sdb1: UUID=\"1A2B-3C4D\"\n"), "1A2B-3C4D");
	EXPECT_EQ(hx::sync::uuid_from_blkid("/dev/sdb1: UUID=\"1A2B-3C4D\n"), "1A2B-3C4D");
	EXPECT_EQ(hx::sync::uuid_from_blkid("/dev/sdb1: TYPE=\"vfat\"\n"), "0000-0000");
	EXPECT_EQ(hx::sync::uuid_from_blkid(""), "0000-0000");
	std::string long_uuid = "UUID=\"" + std::string(100, '7') + "\" TYPE=\"vfat\"";
	EXPECT_EQ(hx::sync::uuid_from_blkid(long_uuid), std::string(63, '7'));
}

TEST(Owner, Folders)
{
	EXPECT_EQ(hx::sync::owner_folder("user0_name"), "Default user");
	EXPECT_EQ(hx::sync::owner_folder("user1_name"), "Owner1");
	EXPECT_EQ(hx::sync::owner_folder("user2_name"), "Owner2");
	EXPECT_EQ(hx::sync::owner_folder("user3_name"), "Owner3");
	EXPECT_EQ(hx::sync::owner_folder("user4_name"), "");
	EXPECT_EQ(hx::sync::owner_folder("user1_name "), "");
}

std::string shown(const backup_record &r)
{
	return hx::format("%ld %s %s [%s] %ld [%s] %ld [%s] %ld", r.id, backup_result_str[r.result],
			  backup_type_str[r.type], r.dest_dir.c_str(), r.file_count, r.oldest_file.c_str(),
			  r.oldest_time, r.newest_file.c_str(), r.newest_time);
}

struct Line {
	std::string text;
	std::string record;	// shown()
};

class LogLine : public ::testing::TestWithParam<Line> {};

TEST_P(LogLine, GivesRecord)
{
	backup_record r;
	initRecord(r);
	getRecordFromLine(r, GetParam().text);
	EXPECT_EQ(shown(r), GetParam().record);
}

const std::string key127(127, 'k'), key128(128, 'k'), long_value(300, 'v');

INSTANTIATE_TEST_SUITE_P(
	Fields, LogLine,
	::testing::Values(
		Line{";;log_id=7;;result=failed;;sync_type=auto;;dest_dir=USB_A1/Owner1;;file_count=12"
		     ";;oldest_file=a.jpg;;oldest_time=100;;newest_file=b c.jpg;;newest_time=200\n",
		     "7 failed auto [USB_A1/Owner1] 12 [a.jpg] 100 [b c.jpg] 200"},
		// a missing result or type reads success and manual
		Line{";;log_id=3\n", "3 success manual [] 0 [] 0 [] 0"},
		// unknown words keep the field, the first word counts, numbers
		// that do not convert keep theirs, unknown keys are ignored
		Line{"junk;;log_id=4;;result=maybe;;sync_type= auto later;;colour=red;;file_count=x"
		     ";;noequals;;=5\n",
		     "4 success auto [] 0 [] 0 [] 0"},
		// the eleventh field is not read
		Line{"a;;b;;c;;d;;e;;f;;g;;h;;i;;log_id=1;;file_count=9\n", "1 success manual [] 0 [] 0 [] 0"},
		Line{";;dest_dir=" + long_value, "0 success manual [" + std::string(255, 'v') + "] 0 [] 0 [] 0"},
		Line{";;dest_dir=;;oldest_file=\n;;log_id=99999999999999999999999",
		     hx::format("%ld success manual [] 0 [] 0 [] 0", LONG_MAX)},
		Line{";;log_id=2;;" + key127 + "=x;;" + key128 + "=x", "2 success manual [] 0 [] 0 [] 0"},
		// a field is cut at 2047 characters before it is parsed
		Line{";;dest_dir=" + std::string(2100, 'd') + ";;log_id=6",
		     "6 success manual [" + std::string(255, 'd') + "] 0 [] 0 [] 0"}));

TEST(LogRecord, Description)
{
	backup_record r;
	getRecordFromLine(r, ";;log_id=5;;dest_dir=d;;file_count=2;;oldest_file=o;;oldest_time=1"
			     ";;newest_file=n;;newest_time=9");
	EXPECT_EQ(stdout_of([&] { recordDescription("rec", r); }),
		  "\nrec -------------------\nrec id = 5\nrec result = success\nrec type = manual\n"
		  "rec desdir = d\nrec num = 2\nrec oldest_name = o\nrec oldest_time = 1\n"
		  "rec newest_name = n\nrec newest_time = 9\nrec -------------------\n");
}

std::string numbered_log(int first, int last)
{
	std::string text = "no record here\n";
	for (int i = first; i <= last; i++)
		text += hx::format("date;;log_id=%d;;dest_dir=d%d\n", i, i);
	return text;
}

TEST(LogFile, RingKeepsTheLast50)
{
	hx::test::TempDir dir;
	backup_log_list list = getLogListFromFile(dir.write("sync.log", numbered_log(1, 51)).c_str());
	EXPECT_EQ(list.count, 50u);
	EXPECT_EQ(list.latest_id, 51u);
	EXPECT_EQ(shown(list.records[0]), "51 success manual [d51] 0 [] 0 [] 0");
	EXPECT_EQ(list.records[1].id, 2);
	EXPECT_EQ(list.records[49].id, 50);

	list = getLogListFromFile(dir.write("sync.log", numbered_log(1, 50)).c_str());
	EXPECT_EQ(list.count, 50u);
	EXPECT_EQ(list.records[0].id, 1);
}

TEST(LogFile, LatestIsTheLargestIdLongLinesAndMissingFile)
{
	hx::test::TempDir dir;
	// a line over 2047 characters is read in pieces, each judged alone
	std::string text = ";;log_id=9\n;;log_id=3\n" + std::string(2047, 'x') + ";;log_id=4\n";
	backup_log_list list = getLogListFromFile(dir.write("sync.log", text).c_str());
	EXPECT_EQ(list.count, 3u);
	EXPECT_EQ(list.latest_id, 9u);
	EXPECT_EQ(list.records[2].id, 4);
	EXPECT_EQ(getLogListFromFile(dir.file("none").c_str()).count, 0u);
}

TEST(Items, NullArguments)
{
	std::string out = stdout_of([] {
		EXPECT_STREQ(_info_getSyncTaskList(nullptr, nullptr, nullptr), "invalid arguments");
		EXPECT_STREQ(_info_getSDCardStatus(nullptr, nullptr, nullptr), "Invalid arguments.");
		EXPECT_STREQ(_info_getSDCardBackupLogs(nullptr, nullptr, nullptr), "Invalid arguments.");
	});
	EXPECT_EQ(out, "Input parameters are NULL.\nInput parameters are NULL.\nInput parameters are NULL.\n");
}

TEST(SyncPath, StaysInTheShareAndOutOfTheShell)
{
	for (const char *safe : {"USB_A1/photos", "USB_A1/..photos/a..b/", "SD Card 32GB 1A2B-3C4D", "...",
				 "a/./b", "", "'single' ;|&"})
		EXPECT_TRUE(hx::sync::path_safe(safe)) << safe;
	EXPECT_TRUE(hx::sync::path_safe(nullptr));
	for (const char *unsafe : {"..", "../x", "USB_A1/../etc", "USB_A1/..", "a//../b", "a$b", "a`b",
				   "a\"b", "a\\b"})
		EXPECT_FALSE(hx::sync::path_safe(unsafe)) << unsafe;
}

// Tasks that are refused before a worker starts: the share is a temporary
// directory, and the task's place stays free (-1, never "busy").
class Refused : public ::testing::Test {
protected:
	void SetUp() override
	{
		setenv("MOUNT_TOP", dir.path().c_str(), 1);
		dir.write("file", "x");
	}
	void TearDown() override
	{
		unsetenv("MOUNT_TOP");
		rmdir(dir.file("made").c_str());
	}
	std::string run(const char *src, const char *dst)
	{
		return stdout_of([&] { EXPECT_EQ(sync_task_new(0, src, dst), -1); });
	}
	hx::test::TempDir dir;
};

TEST_F(Refused, BadPathsAndChecks)
{
	EXPECT_EQ(run("file", nullptr).substr(0, 37), "hxsrvd: Sync DEBUG: sync_task_new (li");
	EXPECT_EQ(run("../file", "made"), "");
	EXPECT_EQ(run("file", "a$b"), "");
	std::string out = run("none", "made");
	EXPECT_NE(out.find(") new task src:" + dir.file("none") + ", dst:" + dir.file("made") + "\n"),
		  std::string::npos);
	EXPECT_NE(out.find(") Check source path(" + dir.file("none") + ") failed\n"), std::string::npos);
	struct stat st;
	EXPECT_EQ(stat(dir.file("made").c_str(), &st), 0);	// made before the source was checked
	out = run("made", "file");
	EXPECT_NE(out.find(") Check destination path(" + dir.file("file") + ") failed\n"),
		  std::string::npos);
	EXPECT_EQ(g_synctask.status.load(), hx::sync::Status::none);
}

}  // namespace
