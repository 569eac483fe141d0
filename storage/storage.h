/* Parts 6.1 and 6.2: disk inventory, disk unlock and safe removal. */
#ifndef HX_STORAGE_STORAGE_H
#define HX_STORAGE_STORAGE_H

#include <stdint.h>

struct json_object;

#define STORAGE_MAX_DISKS 8
#define STORAGE_MAX_PARTITIONS 16
#define STORAGE_CAPACITY_TEXT 10

typedef struct {
	uint32_t number;
	uint64_t capacity;
	uint64_t used;
	uint64_t avail;
	char label[64];
	char type[16];
} partition_info;

typedef struct {
	char name[16];
	char vendor[60];
	uint32_t media_type;
	uint64_t total;
	uint32_t partition_num;
	partition_info partition[STORAGE_MAX_PARTITIONS];
} disk_info;

typedef struct {
	uint32_t disk_num;
	disk_info disk[STORAGE_MAX_DISKS];
} disk_list;

typedef struct {
	int32_t lock_state;
	char name[16];
} disk_probe_entry;

typedef struct {
	uint32_t disk_num;
	disk_probe_entry disk[STORAGE_MAX_DISKS];
} disk_probe_list;

/* Lock-state names indexed by lock_state + 1 (-1..2). */
extern const char *const disk_lock_state_names[4];
/* The name of a lock state, or NULL outside -1..2. */
const char *disk_lock_state_name(int lock_state);

/* Gathering functions: 0 on success, -1 on failure; records zero-filled
 * by the caller. */
int get_fstype(const char *device_node, char out_type[16]);
int get_media_type(const char *disk_name, uint32_t *out_media_type);
int getDiskProbe(disk_probe_list *list);
int getSnDiskInfo(disk_info *record);
int getDiskInfo(disk_info *record, const char *disk_name);
int getDiskList(disk_list *list);
int sector_compare(const void *a, const void *b);
void sort_sector_list(disk_info *record);
/* getDiskInfo step 5: block size divided by 1024 first (truncated). */
void partition_sizes(partition_info *part, uint64_t bsize, uint64_t blocks,
		     uint64_t bfree, uint64_t bavail);
void format_capacity(uint64_t kib, char out_text[STORAGE_CAPACITY_TEXT]);

/* Status items (Part 6.1). */
const char *_info_getSnDiskInfo(struct json_object *name, struct json_object *infos,
				void *deferred);
const char *_info_getDiskList(struct json_object *name, struct json_object *infos,
			      void *deferred);
const char *_info_getDiskProbe(struct json_object *name, struct json_object *infos,
			       void *deferred);

/* Targets (Part 6.2). */
const char *_revalidate_diskUnlock(struct json_object *args, struct json_object *response,
				   void *deferred);
const char *_revalidate_safelyRemove(struct json_object *args, struct json_object *response,
				     void *deferred);

#endif
