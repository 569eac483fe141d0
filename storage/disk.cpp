/* Part 6.1: disk inventory: the whole-disk scan, the partitions mounted
 * under the share root, and the items "diskstatus", "disk_list" and
 * "disk_probe". */
#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <event.h>
#include <json-c/json.h>

#include "core/util.h"
#include "diskunlock.h"
#include "ipc/info_parse.h"
#include "storage/storage.h"

#define INVALID "Invalid arguments."
#define VOL_ID "/lib/udev/vol_id"

const char *const disk_lock_state_names[4] = {
	"Error", "Unlocked", "Locked", "Unlocks Exceeded",
};

const char *
disk_lock_state_name(int lock_state)
{
	return lock_state < -1 || lock_state > 2 ? NULL : disk_lock_state_names[lock_state + 1];
}

static const char *
share_root(void)
{
	const char *root = getenv("MOUNT_TOP");

	return root != NULL ? root : "/tmp/media/share";
}

void
format_capacity(uint64_t kib, char out_text[STORAGE_CAPACITY_TEXT])
{
	double g = kib / 1024.0 / 1024.0;
	double m = kib / 1024.0;

	if (g >= 1.0)
		gwutil_snprintf(out_text, STORAGE_CAPACITY_TEXT, "%0.2fG", g);
	else if (m >= 1.0)
		gwutil_snprintf(out_text, STORAGE_CAPACITY_TEXT, "%0.1fM", m);
	else
		gwutil_snprintf(out_text, STORAGE_CAPACITY_TEXT, "%uK", (unsigned)(kib & 0xFFFFFFFFu));
}

/* Reads f to end of file in chunks of at most chunk bytes (chunk < size);
 * buf holds the last chunk without one trailing newline. */
static void
read_last_chunk(FILE *f, char *buf, size_t size, size_t chunk)
{
	char tmp[64];
	size_t n, len;

	buf[0] = '\0';
	if (chunk >= size || chunk >= sizeof(tmp))
		return;
	while ((n = fread(tmp, 1, chunk, f)) > 0) {
		memcpy(buf, tmp, n);
		buf[n] = '\0';
	}
	len = strlen(buf);
	if (len > 0 && buf[len - 1] == '\n')
		buf[len - 1] = '\0';
}

int
get_fstype(const char *device_node, char out_type[16])
{
	char command[64], answer[17];
	FILE *pipe;
	int n;

	if (access(VOL_ID, F_OK) != 0) {
		puts("vol_id not exist");
		return -1;
	}
	n = snprintf(command, sizeof(command), VOL_ID " -t %s", device_node);
	if (n < 0 || (size_t)n >= sizeof(command) ||
	    strpbrk(device_node, " \t\n;&|`$<>()\\\"'*?[]#~{}!^") != NULL)
		return -1;
	pipe = popen(command, "r");
	if (pipe == NULL) {
		puts("popen vol_id error");
		return -1;
	}
	read_last_chunk(pipe, answer, sizeof(answer), 16);
	if (strlen(answer) >= 11) {
		pclose(pipe);
		return -1;
	}
	strlcpy(out_type, strcmp(answer, "vfat") == 0 ? "fat" : answer, 16);
	pclose(pipe);
	return 0;
}

int
get_media_type(const char *disk_name, uint32_t *out_media_type)
{
	char path[64], target[256];
	ssize_t n;

	gwutil_snprintf(path, sizeof(path), "/sys/block/%s", disk_name);
	n = readlink(path, target, sizeof(target) - 1);
	if (n < 0) {
		puts("readlink for media_type error");
		return -1;
	}
	target[n] = '\0';
	*out_media_type = strstr(target, "usb1/1-1/1-1.4") != NULL ? 1 : 0;
	return 0;
}

/* Calls found(name, index, context) for each whole disk of
 * /proc/partitions (at most 8); -1 when the file cannot be opened or
 * found fails (found's own message printed). */
static int
scan_disks(int (*found)(const char *name, uint32_t index, void *context), void *context,
	   uint32_t *count)
{
	char line[128], name[128];
	FILE *f = fopen("/proc/partitions", "r");
	int major, minor;
	unsigned long long blocks;

	if (f == NULL) {
		puts("open /proc/partitions failed");
		return -1;
	}
	while (fgets(line, sizeof(line), f) != NULL) {
		if (strchr(line, '8') == NULL ||
		    sscanf(line, "%d %d %llu %127s", &major, &minor, &blocks, name) != 4 ||
		    major != 8 || name[strlen(name) - 1] < 'a' || name[strlen(name) - 1] > 'z')
			continue;
		if (++*count > STORAGE_MAX_DISKS) {
			*count = STORAGE_MAX_DISKS;
			break;
		}
		if (found(name, *count - 1, context) != 0) {
			fclose(f);
			return -1;
		}
	}
	fclose(f);
	return 0;
}

static int
probe_found(const char *name, uint32_t index, void *context)
{
	disk_probe_list *list = static_cast<disk_probe_list *>(context);

	strlcpy(list->disk[index].name, name, sizeof(list->disk[index].name));
	return 0;
}

int
getDiskProbe(disk_probe_list *list)
{
	uint32_t i;

	if (list == NULL) {
		puts("parameter of getDiskProbe invalid");
		return -1;
	}
	if (scan_disks(probe_found, list, &list->disk_num) != 0)
		return -1;
	for (i = 0; i < list->disk_num; i++)
		list->disk[i].lock_state = disk_probe(list->disk[i].name);
	return 0;
}

void
partition_sizes(partition_info *part, uint64_t bsize, uint64_t blocks, uint64_t bfree,
		uint64_t bavail)
{
	uint64_t k = bsize / 1024;

	part->capacity = k * blocks;
	part->used = k * (blocks - bfree);
	part->avail = k * bavail;
}

/* Steps 5 to 7 of getDiskInfo for one mount entry. */
static void
fill_partition(partition_info *part, const struct mntent *entry, const struct statfs *fs)
{
	size_t root_len = strlen(share_root());

	partition_sizes(part, (uint64_t)fs->f_bsize, fs->f_blocks, fs->f_bfree, fs->f_bavail);
	if (get_fstype(entry->mnt_fsname, part->type) != 0)
		strlcpy(part->type, "Unknown", sizeof(part->type));
	if (strlen(entry->mnt_dir) > root_len)
		strlcpy(part->label, entry->mnt_dir + root_len + 1, sizeof(part->label));
}

static uint32_t
partition_number(const char *device_node)
{
	char digits[16];

	if (sscanf(device_node, "/dev/%*[a-z]%15[0-9]", digits) != 1)
		return 0;
	return (uint32_t)strtoul(digits, NULL, 10);
}

/* Step 8: the whole-disk size; -1 when the size file cannot be opened. */
static int
read_disk_total(const char *disk_name, uint64_t *total)
{
	char path[64], text[17];
	unsigned long long sectors = 0;
	FILE *f;

	if (strncmp(disk_name, "sd", 2) != 0)
		return 0;
	gwutil_snprintf(path, sizeof(path), "/sys/block/%s/size", disk_name);
	f = fopen(path, "r");
	if (f == NULL) {
		puts("fopen failed");
		return -1;
	}
	read_last_chunk(f, text, sizeof(text), 16);
	fclose(f);
	if (sscanf(text, "%llu", &sectors) == 1)
		*total = sectors / 2;
	return 0;
}

/* Adds the partition of a mount entry; 1 when the table is full. */
static int
add_partition(disk_info *record, const struct mntent *entry, int numbered)
{
	struct statfs fs;
	partition_info *part;

	if (statfs(entry->mnt_dir, &fs) != 0)
		return 0;
	if (++record->partition_num > STORAGE_MAX_PARTITIONS) {
		record->partition_num = STORAGE_MAX_PARTITIONS;
		return 1;
	}
	part = &record->partition[record->partition_num - 1];
	if (numbered)
		part->number = partition_number(entry->mnt_fsname);
	fill_partition(part, entry, &fs);
	return 0;
}

static int
close_mtab(FILE *mtab)
{
	if (endmntent(mtab) != 1) {
		puts("close /etc/mtab failed");
		return -1;
	}
	return 0;
}

int
getDiskInfo(disk_info *record, const char *disk_name)
{
	struct mntent *entry;
	char disk[16];
	FILE *mtab;

	if (record == NULL || disk_name == NULL) {
		puts("parameter of getDiskInfo invalid");
		return -1;
	}
	strlcpy(record->name, disk_name, sizeof(record->name));
	mtab = setmntent("/etc/mtab", "r");
	if (mtab == NULL) {
		puts("open /etc/mtab failed");
		return -1;
	}
	while ((entry = getmntent(mtab)) != NULL) {
		if (strstr(entry->mnt_dir, share_root()) == NULL ||
		    sscanf(entry->mnt_fsname, "/dev/%15[^0-9]", disk) != 1 ||
		    strcmp(disk, disk_name) != 0)
			continue;
		if (add_partition(record, entry, 1) != 0)
			break;
	}
	if (read_disk_total(disk_name, &record->total) != 0) {
		endmntent(mtab);
		return -1;
	}
	get_media_type(disk_name, &record->media_type);
	return close_mtab(mtab);
}

int
getSnDiskInfo(disk_info *record)
{
	struct mntent *entry;
	char disk[16] = "";
	int first = 1;
	FILE *mtab;

	if (record == NULL) {
		puts("parameter of getSnDiskInfo invalid");
		return -1;
	}
	mtab = setmntent("/etc/mtab", "r");
	if (mtab == NULL) {
		puts("open /etc/mtab failed");
		return -1;
	}
	while ((entry = getmntent(mtab)) != NULL) {
		if (strstr(entry->mnt_dir, share_root()) == NULL ||
		    strcmp(entry->mnt_type, "ramfs") == 0)
			continue;
		if (first && sscanf(entry->mnt_fsname, "/dev/%15[^0-9]", disk) != 1)
			disk[0] = '\0';
		first = 0;
		if (add_partition(record, entry, 0) != 0)
			break;
	}
	if (read_disk_total(disk, &record->total) != 0) {
		endmntent(mtab);
		return -1;
	}
	return close_mtab(mtab);
}

int
sector_compare(const void *a, const void *b)
{
	const partition_info *pa = static_cast<const partition_info *>(a), *pb = static_cast<const partition_info *>(b);

	return (pa->number > pb->number) - (pa->number < pb->number);
}

void
sort_sector_list(disk_info *record)
{
	qsort(record->partition, record->partition_num, sizeof(record->partition[0]),
	      sector_compare);
}

/* Step 1 of getDiskList: one sysfs text of the disk's device. */
static int
read_device_text(const char *disk, const char *file, char value[49])
{
	char path[96];
	FILE *f;

	gwutil_snprintf(path, sizeof(path), "/sys/block/%s/device/%s", disk, file);
	f = fopen(path, "r");
	if (f == NULL) {
		printf("open %s file failed\n", file);
		return -1;
	}
	read_last_chunk(f, value, 49, 48);
	fclose(f);
	return 0;
}

static int
list_found(const char *name, uint32_t index, void *context)
{
	disk_info *record = &((disk_list *)context)->disk[index];
	char vendor[49], model[49];

	if (read_device_text(name, "vendor", vendor) != 0 ||
	    read_device_text(name, "model", model) != 0)
		return -1;
	gwutil_snprintf(record->vendor, sizeof(record->vendor), "%s %s", vendor, model);
	getDiskInfo(record, name);
	sort_sector_list(record);
	return 0;
}

int
getDiskList(disk_list *list)
{
	if (list == NULL) {
		puts("parameter of getDiskInfo invalid");
		return -1;
	}
	return scan_disks(list_found, list, &list->disk_num);
}

static struct json_object *
new_object(void)
{
	struct json_object *object = json_object_new_object();

	if (object == NULL)
		puts("json_object_new_object failed.");
	return object;
}

static struct json_object *
new_array(void)
{
	struct json_object *array = json_object_new_array();

	if (array == NULL)
		puts("json_object_new_array failed.");
	return array;
}

static void
set_capacity(struct json_object *object, const char *key, uint64_t kib)
{
	char text[STORAGE_CAPACITY_TEXT];

	format_capacity(kib, text);
	info_set_string(object, key, text);
}

static void
set_number(struct json_object *object, const char *key, int number)
{
	char text[16];

	gwutil_snprintf(text, sizeof(text), "%d", number);
	info_set_string(object, key, text);
}

static void
set_partition_names(struct json_object *object, const partition_info *part)
{
	info_set_string(object, "label", part->label);
	info_set_string(object, "type", part->type);
}

/* One object per partition; "diskstatus" lists the capacities before the
 * label and type, "disk_list" after them. */
static const char *
add_partitions(struct json_object *array, const disk_info *di, int names_first)
{
	uint32_t i;

	for (i = 0; i < di->partition_num; i++) {
		const partition_info *part = &di->partition[i];
		struct json_object *object = new_object();

		if (object == NULL)
			return "ERROR";
		json_object_array_add(array, object);
		if (names_first)
			set_partition_names(object, part);
		set_capacity(object, "capacity", part->capacity);
		set_capacity(object, "used", part->used);
		set_capacity(object, "avai", part->avail);
		if (!names_first)
			set_partition_names(object, part);
	}
	return NULL;
}

const char *
_info_getSnDiskInfo(struct json_object *name, struct json_object *infos, void *deferred)
{
	struct json_object *object, *array;
	disk_info di;

	(void)deferred;
	if (info_args_missing(name, infos))
		return INVALID;
	memset(&di, 0, sizeof(di));
	if (getSnDiskInfo(&di) != 0) {
		info_add_string(infos, name, "");
		return NULL;
	}
	printf("di.sector_num = %d\n", (int)di.partition_num);
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	set_capacity(object, "total_capacity", di.total);
	set_number(object, "partition_num", (int)di.partition_num);
	array = new_array();
	if (array == NULL)
		return "ERROR";
	json_object_object_add(object, "partition_detail", array);
	return add_partitions(array, &di, 0);
}

static const char *
add_disk(struct json_object *array, const disk_info *disk)
{
	struct json_object *object = new_object(), *partitions;

	if (object == NULL)
		return "ERROR";
	json_object_array_add(array, object);
	info_set_string(object, "disk_name", disk->name);
	info_set_string(object, "disk_vendor", disk->vendor);
	set_number(object, "media_type", (int)disk->media_type);
	set_capacity(object, "total_capacity", disk->total);
	partitions = new_array();
	if (partitions == NULL)
		return "ERROR";
	json_object_object_add(object, "partition_detail", partitions);
	return add_partitions(partitions, disk, 1);
}

const char *
_info_getDiskList(struct json_object *name, struct json_object *infos, void *deferred)
{
	struct json_object *object, *array;
	const char *error = NULL;
	disk_list list;
	uint32_t i;

	(void)deferred;
	if (info_args_missing(name, infos))
		return INVALID;
	memset(&list, 0, sizeof(list));
	if (getDiskList(&list) != 0) {
		info_add_string(infos, name, "");
		return NULL;
	}
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	set_number(object, "disk_num", (int)list.disk_num);
	array = new_array();
	if (array == NULL)
		return "ERROR";
	json_object_object_add(object, "disk_detail", array);
	for (i = 0; i < list.disk_num && error == NULL; i++)
		error = add_disk(array, &list.disk[i]);
	return error;
}

static const char *
add_lock_info(struct json_object *array, const disk_probe_list *list)
{
	uint32_t i;

	for (i = 0; i < list->disk_num; i++) {
		struct json_object *object = new_object();
		const char *state = disk_lock_state_name(list->disk[i].lock_state);

		if (object == NULL)
			return "ERROR";
		json_object_array_add(array, object);
		info_set_string(object, "disk_name", list->disk[i].name);
		info_set_string(object, "lock_state", state != NULL ? state : "");
	}
	return NULL;
}

static void
set_count(struct json_object *object, uint32_t count)
{
	struct evbuffer *buf = evbuffer_new();

	if (buf == NULL || evbuffer_add_printf(buf, "%d", (int)count) < 0) {
		set_number(object, "disk_num", (int)count);
	} else {
		evbuffer_add(buf, "", 1);
		info_set_string(object, "disk_num", (const char *)EVBUFFER_DATA(buf));
	}
	if (buf != NULL)
		evbuffer_free(buf);
}

const char *
_info_getDiskProbe(struct json_object *name, struct json_object *infos, void *deferred)
{
	struct json_object *object, *array;
	disk_probe_list list;

	(void)deferred;
	if (info_args_missing(name, infos))
		return INVALID;
	memset(&list, 0, sizeof(list));
	if (getDiskProbe(&list) != 0) {
		info_add_string(infos, name, "");
		return NULL;
	}
	object = info_add_object(infos, name);
	if (object == NULL)
		return "ERROR";
	set_count(object, list.disk_num);
	array = new_array();
	if (array == NULL)
		return "ERROR";
	json_object_object_add(object, "lock_info", array);
	return add_lock_info(array, &list);
}
