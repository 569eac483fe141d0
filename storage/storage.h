// Disks: the inventory of whole disks and mounted partitions, the status
// items built from it, and the unlock and safe-removal targets.
#ifndef HX_STORAGE_STORAGE_H
#define HX_STORAGE_STORAGE_H

#include <stdint.h>

#include <string>

struct json_object;

constexpr uint32_t STORAGE_MAX_DISKS = 8;
constexpr uint32_t STORAGE_MAX_PARTITIONS = 16;

// The records have a fixed size, are zero-filled by the caller and filled
// in place by the gathering functions.
struct partition_info {
	uint32_t number;	// the device node's digits (sda1: 1), 0 without; the sort key
	uint64_t capacity;	// KiB
	uint64_t used;
	uint64_t avail;
	char label[64];		// the mount directory below the share root
	char type[16];		// from vol_id, or "Unknown"
};

struct disk_info {
	char name[16];
	char vendor[60];	// vendor and model
	uint32_t media_type;	// 1 on the fixed USB port
	uint64_t total;		// KiB
	uint32_t partition_num;
	partition_info partition[STORAGE_MAX_PARTITIONS];
};

struct disk_list {
	uint32_t disk_num;
	disk_info disk[STORAGE_MAX_DISKS];
};

struct disk_probe_list {
	uint32_t disk_num;
	struct {
		int32_t lock_state;	// disk_probe's answer
		char name[16];
	} disk[STORAGE_MAX_DISKS];
};

// "Error", "Unlocked", "Locked", "Unlocks Exceeded" for -1..2, else NULL.
const char *disk_lock_state_name(int lock_state);

// The gathering functions: 0, or -1 on failure.
int get_fstype(const char *device_node, char out_type[16]);
int get_media_type(const char *disk_name, uint32_t *out_media_type);
int getDiskProbe(disk_probe_list *list);
int getSnDiskInfo(disk_info *record);
int getDiskInfo(disk_info *record, const char *disk_name);
int getDiskList(disk_list *list);
bool sector_compare(const partition_info &a, const partition_info &b);
void sort_sector_list(disk_info *record);
// A size in KiB as the display shows it: "1.00G", "1024.0M", "1023K".
std::string format_capacity(uint64_t kib);

const char *_info_getSnDiskInfo(json_object *name, json_object *infos, void *deferred);
const char *_info_getDiskList(json_object *name, json_object *infos, void *deferred);
const char *_info_getDiskProbe(json_object *name, json_object *infos, void *deferred);

const char *_revalidate_diskUnlock(json_object *args, json_object *response, void *deferred);
const char *_revalidate_safelyRemove(json_object *args, json_object *response, void *deferred);

namespace hx::storage {

// A partition's sizes from its file system's block counts.  The block size
// is divided by 1024 first: blocks under 1 KiB give 0.
void partition_sizes(partition_info *part, uint64_t bsize, uint64_t blocks, uint64_t bfree,
		     uint64_t bavail);

}  // namespace hx::storage

#endif
