// The SD-card copy: the whole card is copied, as a sync task, into a folder
// named after the active owner and the card on the first USB disk; and the
// card's state and the backup log that the copy script keeps.
#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <span>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "storage/storage.h"
#include "sync/sync.h"

namespace {

namespace conf = hx::conf;
using conf::Store;
using hx::sync::Error;
using hx::sync::error_text;

constexpr const char *sd_card = "SD Card";
// The card's mount point: a fixed path, whatever the share root is.
constexpr const char *sd_mount_dir = "/tmp/media/share/sdcard";
constexpr size_t folder_max = 63;	// the card's folder name
constexpr size_t first_dir_max = 1023;	// first_mnt_dir is read into 1024 bytes
constexpr size_t fields_max = 10;
constexpr size_t field_max = 2047;
constexpr size_t key_max = 127;
constexpr size_t value_max = 255;
constexpr std::string_view blanks = " \t\n\v\f\r";

// The string form of key's value; nullopt once the reason is printed:
// missing for a key that cannot be read, "token parse error for KEY" for
// one that does not parse.
std::optional<std::string> conf_text(Store store, const char *key, const char *missing)
{
	tl::expected<std::string, conf::Error> text = conf::text(store, key);
	if (text)
		return std::move(*text);
	if (text.error() == conf::Error::missing)
		puts(missing);
	else
		printf("token parse error for %s\n", key);
	return std::nullopt;
}

std::optional<std::string> first_mnt_dir()
{
	std::optional<std::string> dir =
		conf_text(Store::rtconf, "first_mnt_dir", "rtConfGet error for first_mnt_dir");
	if (dir && dir->size() > first_dir_max)
		dir->resize(first_dir_max);
	return dir;
}

const disk_info *find_card(const disk_list &list)
{
	auto disks = std::span(list.disk).first(std::min<size_t>(list.disk_num, STORAGE_MAX_DISKS));
	auto card = std::find_if(disks.begin(), disks.end(),
				 [](const disk_info &disk) { return disk.media_type == 1; });
	return card != disks.end() ? &*card : nullptr;
}

// The UUID of the card's first partition from blkid.
std::optional<std::string> card_uuid(const char *disk)
{
	hx::PipePtr blkid = hx::open_pipe(hx::format("blkid /dev/%s1", disk).c_str(), "r");
	if (!blkid) {
		puts("popen blkid error");
		return std::nullopt;
	}
	std::array<char, 256> line{};
	if (fgets(line.data(), static_cast<int>(line.size()), blkid.get()) == nullptr)
		line[0] = '\0';
	return hx::sync::uuid_from_blkid(line.data());
}

// The copy's destination relative to the share root: the first disk's
// folder, the owner's, "Backup" and the card's.
std::optional<std::string> sd_destination()
{
	std::optional<std::string> first = first_mnt_dir();
	if (!first)
		return std::nullopt;
	std::string_view root = hx::sync::share_root();
	size_t at = first->find(root);
	if (at == std::string::npos) {
		puts("MOUNT_DIR error");
		return std::nullopt;
	}
	at = std::min(at + root.size() + 1, first->size());
	std::optional<std::string> user =
		conf_text(Store::sysconf, "active_user", "sysConfGet error for active_user name");
	if (!user)
		return std::nullopt;
	std::string dst = first->substr(at) + "/" + std::string(hx::sync::owner_folder(*user)) +
			  "/Backup/" + _get_sd_folder_name();
	if (dst.size() >= 1024)
		return std::nullopt;
	return dst;
}

// Whether /etc/mtab has the card mounted; nullopt when it cannot be read.
std::optional<bool> card_mounted()
{
	hx::Owned<FILE, endmntent> mtab(setmntent("/etc/mtab", "r"));
	if (!mtab) {
		printf("umount failed: open %s failed\n", "/etc/mtab");
		return std::nullopt;
	}
	while (const mntent *entry = getmntent(mtab.get())) {
		if (strstr(entry->mnt_dir, sd_mount_dir) != nullptr &&
		    strstr(entry->mnt_fsname, "/dev/sd") != nullptr)
			return true;
	}
	return false;
}

// A number field: strtol in place of "%ld", so text out of range is
// clamped; text that does not convert keeps the field.
void parse_long(const std::string &text, long &field)
{
	char *end;
	long value = strtol(text.c_str(), &end, 10);
	if (end != text.c_str())
		field = value;
}

// The index of the value's first word in words, else keep.
int parse_word(std::string_view value, const std::array<const char *, 2> &words, int keep)
{
	size_t start = value.find_first_not_of(blanks);
	if (start == std::string_view::npos)
		return keep;
	value.remove_prefix(start);
	value = value.substr(0, value.find_first_of(blanks));
	auto word = std::find(words.begin(), words.end(), value);
	return word != words.end() ? static_cast<int>(word - words.begin()) : keep;
}

using Setter = void (*)(backup_record &, const std::string &);

struct Field {
	std::string_view key;
	Setter set;
};

constexpr Field fields[] = {
	{"log_id", [](backup_record &r, const std::string &v) { parse_long(v, r.id); }},
	{"result", [](backup_record &r, const std::string &v) {
		 r.result = parse_word(v, backup_result_str, r.result);
	 }},
	{"sync_type", [](backup_record &r, const std::string &v) {
		 r.type = parse_word(v, backup_type_str, r.type);
	 }},
	{"dest_dir", [](backup_record &r, const std::string &v) { r.dest_dir = v; }},
	{"file_count", [](backup_record &r, const std::string &v) { parse_long(v, r.file_count); }},
	{"oldest_file", [](backup_record &r, const std::string &v) { r.oldest_file = v; }},
	{"oldest_time", [](backup_record &r, const std::string &v) { parse_long(v, r.oldest_time); }},
	{"newest_file", [](backup_record &r, const std::string &v) { r.newest_file = v; }},
	{"newest_time", [](backup_record &r, const std::string &v) { parse_long(v, r.newest_time); }},
};

// One "key=value" field: a key of 1 to 127 characters, a value of 1 to 255
// up to the end of the line.  Anything else, and unknown keys, are ignored.
void record_field(backup_record &record, std::string_view field)
{
	size_t eq = field.find('=');
	if (eq == 0 || eq == std::string_view::npos || eq > key_max)
		return;
	std::string_view value = field.substr(eq + 1);
	value = value.substr(0, std::min(value.find('\n'), value_max));
	auto known = std::find_if(std::begin(fields), std::end(fields),
				  [&](const Field &f) { return f.key == field.substr(0, eq); });
	if (!value.empty() && known != std::end(fields))
		known->set(record, std::string(value));
}

hx::json::Ptr made(json_object *value, const char *kind)
{
	if (value == nullptr)
		printf("json_object_new_%s failed.\n", kind);
	return hx::json::Ptr(value);
}

void add_long(json_object *object, const char *key, long value)
{
	hx::json::add_string(object, key, hx::format("%ld", value));
}

hx::json::Ptr record_object(const backup_record &record)
{
	hx::json::Ptr object = made(json_object_new_object(), "object");
	if (!object)
		return object;
	json_object *o = object.get();
	add_long(o, "id", record.id);
	hx::json::add_string(o, "result", backup_result_str[record.result]);
	hx::json::add_string(o, "type", backup_type_str[record.type]);
	hx::json::add_string(o, "des", record.dest_dir);
	add_long(o, "file_count", record.file_count);
	hx::json::add_string(o, "oldest_file", record.oldest_file);
	add_long(o, "oldest_time", record.oldest_time);
	hx::json::add_string(o, "newest_file", record.newest_file);
	add_long(o, "newest_time", record.newest_time);
	return object;
}

}  // namespace

unsigned int cap_calc(uint64_t bytes)
{
	static constexpr unsigned int sizes[] = {1, 2, 4, 8, 16, 32, 48, 64, 128, 200};
	float g = static_cast<float>(static_cast<double>(bytes) / 1000 / 1000 / 1000);
	for (unsigned int size : sizes) {
		if (static_cast<float>(size) * 0.9f <= g && static_cast<float>(size) * 1.1f >= g)
			return size;
	}
	return static_cast<unsigned int>(g + 0.5f);
}

namespace hx::sync {

std::string uuid_from_blkid(std::string_view line)
{
	constexpr std::string_view tag = "UUID=\"";
	size_t at = line.find(tag);
	if (at == std::string_view::npos)
		return "0000-0000";
	std::string_view uuid = line.substr(at + tag.size());
	size_t end = uuid.find("\" ");
	if (end == std::string_view::npos)
		end = uuid.find_first_of("\"\n");
	return std::string(uuid.substr(0, std::min(end, folder_max)));
}

std::string_view owner_folder(std::string_view active_user)
{
	static constexpr std::pair<std::string_view, std::string_view> owners[] = {
		{"user0_name", "Default user"}, {"user1_name", "Owner1"},
		{"user2_name", "Owner2"}, {"user3_name", "Owner3"},
	};
	for (const auto &[key, folder] : owners) {
		if (key == active_user)
			return folder;
	}
	return "";
}

}  // namespace hx::sync

std::string _get_sd_folder_name()
{
	auto list = std::make_unique<disk_list>();
	if (getDiskList(list.get()) != 0) {
		puts("get disk list failed.");
		return sd_card;
	}
	const disk_info *card = find_card(*list);
	if (card == nullptr) {
		puts("\nget disk list successfully, buy can't find sdcard");
		return sd_card;
	}
	printf("\nget sdcard, name = %s\n", card->name);
	std::optional<std::string> uuid = card_uuid(card->name);
	if (!uuid)
		return sd_card;
	int size = static_cast<int>(cap_calc(card->total * 1024));
	std::string name = hx::format("%s %dGB %s", sd_card, size, uuid->c_str());
	name.resize(std::min(name.size(), folder_max));
	printf("sd name = %s\n", name.c_str());
	return name;
}

const char *_revalidate_sdCopy(json_object *value, json_object *, void *)
{
	if (value == nullptr) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	json_object *member = nullptr;
	if (!json_object_object_get_ex(value, "action", &member))
		return "invalid arguments";
	if (!hx::json::is(member, json_type_string))
		return "internal error";
	std::string_view action = hx::json::text(member);
	std::optional<std::string> state =
		conf_text(Store::rtconf, "sd_state", "rtConfGet error for sd_state");
	if (!state)
		return error_text(Error::internal);
	if (*state == "off") {
		puts("no sdcard found");
		return error_text(Error::no_sdcard);
	}
	if (action == "cancel") {
		sync_task_delete();
		return nullptr;
	}
	if (hx::sync::battery_low())
		return error_text(Error::low_battery);
	std::optional<std::string> dst = sd_destination();
	if (!dst)
		return error_text(Error::internal);
	if (action != "start")
		return nullptr;
	do_system("/etc/demo/minidlna_stop.sh");
	return hx::sync::task_result(start_sync(dst->c_str()));
}

const char *_info_getSDCardStatus(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return "Invalid arguments.";
	std::optional<std::string> state = conf::get(Store::rtconf, "sd_state");
	bool in = false;
	if (!state || *state == "\"on\"") {
		std::optional<bool> mounted = card_mounted();
		if (!mounted)
			return "ERROR";
		in = *mounted;
	}
	hx::json::add_string(infos, hx::json::text(name), in ? "in" : "out");
	return nullptr;
}

void initRecord(backup_record &record)
{
	record = backup_record{};
}

void getRecordFromLine(backup_record &record, std::string_view line)
{
	for (size_t n = 0; n < fields_max; n++) {
		size_t sep = line.find(";;");
		record_field(record, line.substr(0, std::min(sep, field_max)));
		if (sep == std::string_view::npos)
			return;
		line.remove_prefix(sep + 2);
	}
}

backup_log_list getLogListFromFile(const char *path)
{
	backup_log_list list;
	hx::FilePtr log = hx::open_file(path, "r");
	if (!log)
		return list;
	std::array<char, field_max + 1> line;
	size_t slot = 0;
	bool wrapped = false;
	while (fgets(line.data(), static_cast<int>(line.size()), log.get()) != nullptr) {
		if (strstr(line.data(), ";;log_id") == nullptr)
			continue;
		backup_record &record = list.records[slot];
		initRecord(record);
		getRecordFromLine(record, line.data());
		list.latest_id = std::max(list.latest_id, static_cast<uint32_t>(record.id));
		if (++slot == backup_log_max) {
			slot = 0;
			wrapped = true;
		}
	}
	list.count = static_cast<uint32_t>(wrapped ? backup_log_max : slot);
	return list;
}

void recordDescription(const char *text, const backup_record &record)
{
	printf("\n%s -------------------\n", text);
	printf("%s id = %ld\n", text, record.id);
	printf("%s result = %s\n", text, backup_result_str[record.result]);
	printf("%s type = %s\n", text, backup_type_str[record.type]);
	printf("%s desdir = %s\n", text, record.dest_dir.c_str());
	printf("%s num = %ld\n", text, record.file_count);
	printf("%s oldest_name = %s\n", text, record.oldest_file.c_str());
	printf("%s oldest_time = %ld\n", text, record.oldest_time);
	printf("%s newest_name = %s\n", text, record.newest_file.c_str());
	printf("%s newest_time = %ld\n", text, record.newest_time);
	printf("%s -------------------\n", text);
}

const char *_info_getSDCardBackupLogs(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return "Invalid arguments.";
	std::optional<std::string> first = first_mnt_dir();
	if (!first)
		return "ERROR";
	backup_log_list list = getLogListFromFile((*first + "/.log/sync.log").c_str());
	hx::json::Ptr value = made(json_object_new_object(), "object");
	hx::json::Ptr array = value ? made(json_object_new_array(), "array") : nullptr;
	if (!array)
		return "ERROR";
	add_long(value.get(), "log_num", static_cast<long>(list.count));
	add_long(value.get(), "log_id_latest", static_cast<int32_t>(list.latest_id));
	for (const backup_record &record : std::span(list.records).first(list.count)) {
		hx::json::Ptr object = record_object(record);
		if (!object)
			return "ERROR";
		json_object_array_add(array.get(), object.release());
	}
	hx::json::add(value.get(), "log_list", std::move(array));
	hx::json::add(infos, hx::json::text(name), std::move(value));
	return nullptr;
}
