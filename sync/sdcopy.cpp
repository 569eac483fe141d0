/* Part 7.2: SD-card copy and backup log. */
#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <event.h>
#include <json-c/json.h>

#include "conf/confdb.h"
#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "storage/storage.h"
#include "sync/sync.h"

#define SD_CARD        "SD Card"
#define SD_MOUNT_DIR   "/tmp/media/share/sdcard"
#define LOG_FIELDS_MAX 10
#define LOG_FIELD_SIZE 2048
#define LOG_LINE_SIZE  2048

const char *const backup_result_str[2] = { "success", "failed" };
const char *const backup_type_str[2] = { "auto", "manual" };

static const char *
share_root(void)
{
	const char *top = getenv("MOUNT_TOP");

	return top != NULL ? top : "/tmp/media/share";
}

unsigned int
cap_calc(uint64_t bytes)
{
	static const unsigned int sizes[] = { 1, 2, 4, 8, 16, 32, 48, 64, 128, 200 };
	float g = (float)((double)bytes / 1000 / 1000 / 1000);
	size_t i;

	for (i = 0; i < sizeof(sizes) / sizeof(sizes[0]); i++) {
		if ((float)sizes[i] * 0.9f <= g && (float)sizes[i] * 1.1f >= g)
			return sizes[i];
	}
	return (unsigned int)(g + 0.5f);
}

void
sd_uuid_from_blkid(const char *line, char *uuid, int size)
{
	const char *start = strstr(line, "UUID=\"");
	size_t len;

	if (start == NULL) {
		strlcpy(uuid, "0000-0000", size);
		return;
	}
	start += strlen("UUID=\"");
	len = strstr(start, "\" ") != NULL ? (size_t)(strstr(start, "\" ") - start)
					   : strcspn(start, "\"\n");
	if (len >= (size_t)size)
		len = size - 1;
	memcpy(uuid, start, len);
	uuid[len] = '\0';
}

/* The first disk with media type 1, or NULL. */
static const disk_info *
sd_find_card(const disk_list *list)
{
	uint32_t i;

	for (i = 0; i < list->disk_num && i < STORAGE_MAX_DISKS; i++) {
		if (list->disk[i].media_type == 1)
			return &list->disk[i];
	}
	return NULL;
}

/* The UUID of the card's first partition from blkid; -1 when popen fails. */
static int
sd_card_uuid(const char *disk_name, char *uuid, int size)
{
	char cmd[64], line[256] = "";
	FILE *fp;

	gwutil_snprintf(cmd, sizeof(cmd), "blkid /dev/%s1", disk_name);
	fp = popen(cmd, "r");
	if (fp == NULL) {
		puts("popen blkid error");
		return -1;
	}
	if (fgets(line, sizeof(line), fp) == NULL)
		line[0] = '\0';
	pclose(fp);
	sd_uuid_from_blkid(line, uuid, size);
	return 0;
}

void
_get_sd_folder_name(char *buf, int size)
{
	static disk_list list;	/* event-loop thread only; too large for a small stack */
	const disk_info *card;
	char cap[16], uuid[64];

	strlcpy(buf, SD_CARD, size);
	memset(&list, 0, sizeof(list));
	if (getDiskList(&list) != 0) {
		puts("get disk list failed.");
		return;
	}
	card = sd_find_card(&list);
	if (card == NULL) {
		puts("\nget disk list successfully, buy can't find sdcard");
		return;
	}
	printf("\nget sdcard, name = %s\n", card->name);
	gwutil_snprintf(cap, sizeof(cap), "%dGB", (int)cap_calc(card->total * 1024));
	if (sd_card_uuid(card->name, uuid, sizeof(uuid)) != 0)
		return;
	gwutil_snprintf(buf, size, "%s %s %s", SD_CARD, cap, uuid);
	printf("sd name = %s\n", buf);
}

const char *
sd_owner_folder(const char *active_user)
{
	static const char *const owners[][2] = {
		{ "user0_name", "Default user" }, { "user1_name", "Owner1" },
		{ "user2_name", "Owner2" }, { "user3_name", "Owner3" },
	};
	size_t i;

	for (i = 0; i < sizeof(owners) / sizeof(owners[0]); i++) {
		if (strcmp(active_user, owners[i][0]) == 0)
			return owners[i][1];
	}
	return "";
}

/* A store value's string form; prints the spec's message and returns -1
 * when it is missing or does not parse. */
static int
sd_conf_text(enum conf_store store, const char *key, const char *missing, char *buf, size_t size)
{
	char bad[64];
	int rc = confGetString(store, key, buf, size);

	if (rc == CONF_MISSING)
		puts(missing);
	if (rc == CONF_BAD_JSON) {
		gwutil_snprintf(bad, sizeof(bad), "token parse error for %s", key);
		puts(bad);
	}
	return rc == 0 ? 0 : -1;
}

/* sd_copy step 2: 0 card on, 1 "off", -1 unreadable. */
static int
sd_state_check(void)
{
	char state[16];

	if (sd_conf_text(CONF_RTCONF, "sd_state", "rtConfGet error for sd_state",
			 state, sizeof(state)) != 0)
		return -1;
	if (strcmp(state, "off") == 0) {
		puts("no sdcard found");
		return 1;
	}
	return 0;
}

/* sd_copy steps 5 and 6: the destination relative to the share root. */
static int
sd_destination(char *dst, size_t size)
{
	char first[1024], user[64], card[64];
	const char *root = share_root(), *rel;
	int len;

	if (sd_conf_text(CONF_RTCONF, "first_mnt_dir", "rtConfGet error for first_mnt_dir",
			 first, sizeof(first)) != 0)
		return -1;
	rel = strstr(first, root);
	if (rel == NULL) {
		puts("MOUNT_DIR error");
		return -1;
	}
	rel += strlen(root);
	rel += *rel != '\0';
	if (sd_conf_text(CONF_SYSCONF, "active_user", "sysConfGet error for active_user name",
			 user, sizeof(user)) != 0)
		return -1;
	_get_sd_folder_name(card, sizeof(card));
	len = snprintf(dst, size, "%s/%s/Backup/%s", rel, sd_owner_folder(user), card);
	return len < 0 || (size_t)len >= size ? -1 : 0;
}

const char *
_revalidate_sdCopy(struct json_object *value, struct json_object *reply_arguments, void *deferred)
{
	struct json_object *action;
	const char *act;
	char dst[1024];
	int state;

	(void)reply_arguments;
	(void)deferred;
	if (value == NULL) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	if (!json_object_object_get_ex(value, "action", &action))
		return "invalid arguments";
	if (!json_object_is_type(action, json_type_string))
		return "internal error";
	act = json_object_get_string(action);
	state = sd_state_check();
	if (state != 0)
		return sync_error_string[state < 0 ? SYNC_ERR_INTERNAL : SYNC_ERR_NO_SDCARD];
	if (strcmp(act, "cancel") == 0) {
		sync_task_delete();
		return NULL;
	}
	if (sync_battery_low())
		return sync_error_string[SYNC_ERR_LOW_BATTERY];
	if (sd_destination(dst, sizeof(dst)) != 0)
		return sync_error_string[SYNC_ERR_INTERNAL];
	if (strcmp(act, "start") != 0)
		return NULL;
	do_system("/etc/demo/minidlna_stop.sh");
	switch (start_sync(dst)) {
	case -1:
		return sync_error_string[SYNC_ERR_INTERNAL];
	case -2:
		return sync_error_string[SYNC_ERR_BUSY];
	default:
		return NULL;
	}
}

/* 1 when /etc/mtab has the card mounted, 0 when not, -1 when unreadable. */
static int
sd_card_mounted(void)
{
	struct mntent *entry;
	FILE *mtab = setmntent("/etc/mtab", "r");
	int found = 0;

	if (mtab == NULL) {
		printf("umount failed: open %s failed\n", "/etc/mtab");
		return -1;
	}
	while (!found && (entry = getmntent(mtab)) != NULL)
		found = strstr(entry->mnt_dir, SD_MOUNT_DIR) != NULL &&
			strstr(entry->mnt_fsname, "/dev/sd") != NULL;
	endmntent(mtab);
	return found;
}

const char *
_info_getSDCardStatus(struct json_object *name, struct json_object *infos, void *context)
{
	struct evbuffer *buf;
	int scan, mounted = 0;

	(void)context;
	if (info_args_missing(name, infos))
		return "Invalid arguments.";
	buf = evbuffer_new();
	if (buf == NULL)
		return "ERROR";
	scan = rtConfGet("sd_state", buf) != 0 ||
	       strcmp((const char *)evbuffer_pullup(buf, -1), "\"on\"") == 0;
	evbuffer_free(buf);
	if (scan && (mounted = sd_card_mounted()) < 0)
		return "ERROR";
	info_add_string(infos, name, mounted ? "in" : "out");
	return NULL;
}

void
initRecord(struct backup_record *record)
{
	memset(record, 0, sizeof(*record));
	record->result = 0;
	record->type = 1;
}

/* strtol in place of "%ld": out-of-range text is clamped, not undefined. */
static void
parse_long(const char *text, long *out)
{
	char *end;
	long v = strtol(text, &end, 10);

	if (end != text)
		*out = v;
}

/* The index of value's first word in table, or keep. */
static int
parse_word(const char *value, const char *const table[2], int keep)
{
	char word[256];
	int i;

	if (sscanf(value, "%255s", word) != 1)
		return keep;
	for (i = 0; i < 2; i++) {
		if (strcmp(word, table[i]) == 0)
			return i;
	}
	return keep;
}

static void
record_field(struct backup_record *record, const char *field)
{
	char key[128], value[256];

	if (sscanf(field, "%127[^=]=%255[^\n]", key, value) != 2)
		return;
	if (strcmp(key, "log_id") == 0)
		parse_long(value, &record->id);
	else if (strcmp(key, "result") == 0)
		record->result = parse_word(value, backup_result_str, record->result);
	else if (strcmp(key, "sync_type") == 0)
		record->type = parse_word(value, backup_type_str, record->type);
	else if (strcmp(key, "dest_dir") == 0)
		strlcpy(record->dest_dir, value, sizeof(record->dest_dir));
	else if (strcmp(key, "file_count") == 0)
		parse_long(value, &record->file_count);
	else if (strcmp(key, "oldest_file") == 0)
		strlcpy(record->oldest_file, value, sizeof(record->oldest_file));
	else if (strcmp(key, "oldest_time") == 0)
		parse_long(value, &record->oldest_time);
	else if (strcmp(key, "newest_file") == 0)
		strlcpy(record->newest_file, value, sizeof(record->newest_file));
	else if (strcmp(key, "newest_time") == 0)
		parse_long(value, &record->newest_time);
}

void
getRecordFromLine(struct backup_record *record, const char *line)
{
	char field[LOG_FIELD_SIZE];
	const char *p = line, *sep;
	size_t len;
	int n;

	for (n = 0; n < LOG_FIELDS_MAX && p != NULL; n++) {
		sep = strstr(p, ";;");
		len = sep != NULL ? (size_t)(sep - p) : strlen(p);
		if (len >= sizeof(field))
			len = sizeof(field) - 1;
		memcpy(field, p, len);
		field[len] = '\0';
		record_field(record, field);
		p = sep != NULL ? sep + 2 : NULL;
	}
}

int
getLogListFromFile(struct backup_log_list *list, const char *path)
{
	char line[LOG_LINE_SIZE];
	struct backup_record *record;
	uint32_t slot = 0, wrapped = 0;
	FILE *fp;

	if (list == NULL || path == NULL)
		return -1;
	fp = fopen(path, "r");
	if (fp == NULL)
		return 0;
	while (fgets(line, sizeof(line), fp) != NULL) {
		if (strstr(line, ";;log_id") == NULL)
			continue;
		record = &list->records[slot];
		initRecord(record);
		getRecordFromLine(record, line);
		if ((uint32_t)record->id > list->latest_id)
			list->latest_id = (uint32_t)record->id;
		if (++slot == BACKUP_LOG_MAX) {
			slot = 0;
			wrapped = 1;
		}
	}
	fclose(fp);
	list->count = wrapped ? BACKUP_LOG_MAX : slot;
	return 0;
}

void
recordDescription(const char *text, const struct backup_record *record)
{
	printf("\n%s -------------------\n", text);
	printf("%s id = %ld\n", text, record->id);
	printf("%s result = %s\n", text, backup_result_str[record->result]);
	printf("%s type = %s\n", text, backup_type_str[record->type]);
	printf("%s desdir = %s\n", text, record->dest_dir);
	printf("%s num = %ld\n", text, record->file_count);
	printf("%s oldest_name = %s\n", text, record->oldest_file);
	printf("%s oldest_time = %ld\n", text, record->oldest_time);
	printf("%s newest_name = %s\n", text, record->newest_file);
	printf("%s newest_time = %ld\n", text, record->newest_time);
	printf("%s -------------------\n", text);
}

static void
set_long(struct json_object *object, const char *key, long value)
{
	char text[24];

	gwutil_snprintf(text, sizeof(text), "%ld", value);
	info_set_string(object, key, text);
}

static struct json_object *
record_object(const struct backup_record *record)
{
	struct json_object *object = json_object_new_object();

	if (object == NULL) {
		puts("json_object_new_object failed.");
		return NULL;
	}
	set_long(object, "id", record->id);
	info_set_string(object, "result", backup_result_str[record->result]);
	info_set_string(object, "type", backup_type_str[record->type]);
	info_set_string(object, "des", record->dest_dir);
	set_long(object, "file_count", record->file_count);
	info_set_string(object, "oldest_file", record->oldest_file);
	set_long(object, "oldest_time", record->oldest_time);
	info_set_string(object, "newest_file", record->newest_file);
	set_long(object, "newest_time", record->newest_time);
	return object;
}

static const char *
log_list_add(struct json_object *infos, struct json_object *name,
	     const struct backup_log_list *list)
{
	struct json_object *value, *array, *record;
	uint32_t i;

	value = info_add_object(infos, name);
	if (value == NULL)
		return "ERROR";
	set_long(value, "log_num", (long)list->count);
	set_long(value, "log_id_latest", (long)(int32_t)list->latest_id);
	array = json_object_new_array();
	if (array == NULL) {
		puts("json_object_new_array failed.");
		return "ERROR";
	}
	json_object_object_add(value, "log_list", array);
	for (i = 0; i < list->count; i++) {
		record = record_object(&list->records[i]);
		if (record == NULL)
			return "ERROR";
		json_object_array_add(array, record);
	}
	return NULL;
}

const char *
_info_getSDCardBackupLogs(struct json_object *name, struct json_object *infos, void *context)
{
	struct backup_log_list *list;
	char first[1024], path[1100];
	const char *error;

	(void)context;
	if (info_args_missing(name, infos))
		return "Invalid arguments.";
	if (sd_conf_text(CONF_RTCONF, "first_mnt_dir", "rtConfGet error for first_mnt_dir",
			 first, sizeof(first)) != 0)
		return "ERROR";
	gwutil_snprintf(path, sizeof(path), "%s/.log/sync.log", first);
	list = (struct backup_log_list *)calloc(1, sizeof(*list));
	if (list == NULL)
		return "ERROR";
	getLogListFromFile(list, path);
	error = log_list_add(infos, name, list);
	free(list);
	return error;
}
