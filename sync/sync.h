/* Parts 7.1 (sync tasks) and 7.2 (SD-card copy and backup log). */
#ifndef HX_SYNC_SYNC_H
#define HX_SYNC_SYNC_H

#include <stdint.h>

#include <atomic>

struct evbuffer;
struct json_object;

/* Part 7.1: the one task record. */
struct sync_task {
	int32_t id;
	struct evbuffer *src;
	struct evbuffer *dst;
	std::atomic<int32_t> status;	/* written by the request thread and the worker */
	int32_t reserved;
};

enum sync_status {
	SYNC_NONE = 0, SYNC_CREATED = 1, SYNC_RUNNING = 2,
	SYNC_DONE = 3, SYNC_DONE_1 = 4, SYNC_CANCELLED = 5,
};

/* Indexes into sync_error_string. */
enum sync_error {
	SYNC_ERR_INTERNAL, SYNC_ERR_BUSY, SYNC_ERR_LOW_BATTERY, SYNC_ERR_NO_SDCARD,
};
extern const char *const sync_error_string[4];

extern struct sync_task g_synctask;

/* 0 started, -1 bad path or no destination, -2 another task runs. */
int sync_task_new(int type, const char *src, const char *dst);
/* sync_task_new(1, NULL, dst) */
int start_sync(const char *dst);
/* Cancel; always 0. */
int sync_task_delete(void);
int sync_task_get_id(void);
int sync_task_get_status(void);
/* sync_progress as an integer, 0 when missing or unreadable. */
int sync_task_get_progress(void);
void sync_task_init(struct sync_task *task);
void sync_task_reset(struct sync_task *task);

/* Battery percentage, -1 when the gauge cannot be opened. */
int get_battery_cap(void);
/* Charging text into buf (at most 15 characters); 0, or -1 when unreadable. */
int get_battery_status(char *buf, int size);
/* 1 when the battery guard refuses a task (capacity <= 1, not "Charging"). */
int sync_battery_low(void);
/* 0 when path (relative to the share root) may be used in a sync task: no
 * ".." component and none of the characters $ ` " \ (DESIGN.md 8). */
int sync_path_safe(const char *path);

/* Part 7.2 */
#define BACKUP_LOG_MAX 50

struct backup_record {
	long id;
	int result;		/* index into backup_result_str */
	int type;		/* index into backup_type_str */
	char dest_dir[256];
	long file_count;
	char oldest_file[256];
	long oldest_time;
	char newest_file[256];
	long newest_time;
};

struct backup_log_list {
	uint32_t count;
	uint32_t latest_id;
	struct backup_record records[BACKUP_LOG_MAX];
};

extern const char *const backup_result_str[2];
extern const char *const backup_type_str[2];

/* Nominal card size in GB. */
unsigned int cap_calc(uint64_t bytes);
/* The card's folder name into buf ("SD Card ..." or "SD Card"). */
void _get_sd_folder_name(char *buf, int size);
/* The UUID of one blkid output line into uuid ("0000-0000" when none). */
void sd_uuid_from_blkid(const char *line, char *uuid, int size);
/* Reads path into list (zero-filled by the caller); a missing file gives
 * an empty list.  0, or -1 when path is NULL. */
int getLogListFromFile(struct backup_log_list *list, const char *path);
void getRecordFromLine(struct backup_record *record, const char *line);
void initRecord(struct backup_record *record);
void recordDescription(const char *text, const struct backup_record *record);
/* The owner folder name for an active_user value ("" when unknown). */
const char *sd_owner_folder(const char *active_user);

/* Handlers (Part 2.2 rows) */
const char *_revalidate_createSyncTask(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_cancelSyncTask(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_syncSignal(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_revalidate_sdCopy(struct json_object *value, struct json_object *reply_arguments, void *deferred);
const char *_info_getSyncTaskList(struct json_object *name, struct json_object *infos, void *context);
const char *_info_getSDCardStatus(struct json_object *name, struct json_object *infos, void *context);
const char *_info_getSDCardBackupLogs(struct json_object *name, struct json_object *infos, void *context);

#endif
