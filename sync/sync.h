// Sync tasks (one copy task at a time on a worker thread, run by the
// platform's copy script) and the SD-card copy with its backup log.
#ifndef HX_SYNC_SYNC_H
#define HX_SYNC_SYNC_H

#include <stdint.h>

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <string_view>

struct json_object;

namespace hx::sync {

enum class Status : int32_t { none, created, running, done, done_failed, cancelled };
enum class Error { internal, busy, low_battery, no_sdcard };

}  // namespace hx::sync

// The one task record.
struct sync_task {
	int32_t id = -1;
	std::string src;
	std::string dst;
	std::atomic<hx::sync::Status> status{hx::sync::Status::none};	// request thread and worker
	int32_t reserved = 0;
};
extern sync_task g_synctask;

// Indexed by hx::sync::Error.
inline constexpr std::array<const char *, 4> sync_error_string = {
	"sync_internal_error", "sync_task_busy", "sync_low_battery_power", "sync_no_sdcard_found",
};

// 0 started, -1 bad path or no destination, -2 another task runs.  src may
// be null (the whole share).
int sync_task_new(int type, const char *src, const char *dst);
int start_sync(const char *dst);
// Cancel; always 0.
int sync_task_delete();
int sync_task_get_id();
int sync_task_get_status();
// sync_progress as an integer, 0 when missing or unreadable.
int sync_task_get_progress();
void sync_task_init(sync_task &task);
void sync_task_reset(sync_task &task);

// Battery percentage, -1 when the gauge cannot be opened.
int get_battery_cap();
// The charging text (at most 15 characters), nullopt when unreadable.
std::optional<std::string> get_battery_status();

namespace hx::sync {

const char *error_text(Error error);
// The answer to sync_task_new's result: NULL when the task started.
const char *task_result(int result);
// The guard of every new task: capacity 1 or less and not "Charging".
bool battery_low();
// MOUNT_TOP, else "/tmp/media/share": sync paths are relative to it.
const char *share_root();
// A relative sync path that stays in the share and that the shell takes
// literally inside double quotes: no ".." component, none of $ ` " \.
// A null path (the whole share) is safe.
bool path_safe(const char *path);
// The member key of object as a C string when it is a JSON string (the
// text up to a NUL it may hold), else NULL.
const char *member_text(json_object *object, const char *key);

}  // namespace hx::sync

// The backup log the copy script keeps on the first disk.
struct backup_record {
	long id = 0;
	int result = 0;		// index into backup_result_str
	int type = 1;		// index into backup_type_str
	std::string dest_dir;
	long file_count = 0;
	std::string oldest_file;
	long oldest_time = 0;
	std::string newest_file;
	long newest_time = 0;
};

inline constexpr size_t backup_log_max = 50;

struct backup_log_list {
	uint32_t count = 0;
	uint32_t latest_id = 0;
	std::array<backup_record, backup_log_max> records;	// a ring, in slot order
};

inline constexpr std::array<const char *, 2> backup_result_str = {"success", "failed"};
inline constexpr std::array<const char *, 2> backup_type_str = {"auto", "manual"};

// Nominal card size in GB.
unsigned int cap_calc(uint64_t bytes);
// "SD Card <size>GB <uuid>", or "SD Card" when the card or its size is unknown.
std::string _get_sd_folder_name();
// The records of the log at path; a missing file gives an empty list.
backup_log_list getLogListFromFile(const char *path);
void getRecordFromLine(backup_record &record, std::string_view line);
void initRecord(backup_record &record);
void recordDescription(const char *text, const backup_record &record);

namespace hx::sync {

// The UUID of one blkid output line (at most 63 characters), "0000-0000"
// when it has none.
std::string uuid_from_blkid(std::string_view line);
// The folder of the owner named by an active_user value ("" when unknown).
std::string_view owner_folder(std::string_view active_user);

}  // namespace hx::sync

// Handlers
const char *_revalidate_createSyncTask(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_cancelSyncTask(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_syncSignal(json_object *value, json_object *reply_arguments, void *deferred);
const char *_revalidate_sdCopy(json_object *value, json_object *reply_arguments, void *deferred);
const char *_info_getSyncTaskList(json_object *name, json_object *infos, void *context);
const char *_info_getSDCardStatus(json_object *name, json_object *infos, void *context);
const char *_info_getSDCardBackupLogs(json_object *name, json_object *infos, void *context);

#endif
