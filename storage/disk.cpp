// The disk inventory: whole disks from /proc/partitions, their partitions
// mounted under the share root from the mount table, sizes from statfs and
// sysfs, file-system types from vol_id, lock states from the disk-unlock
// library.  Computed afresh on every request.
#include "storage/storage.h"

#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "core/fmt.h"
#include "core/owned.h"
#include "core/util.h"
#include "diskunlock.h"

namespace hx::storage {

namespace {

const char *share_root()
{
	const char *root = getenv("MOUNT_TOP");
	return root != nullptr ? root : "/tmp/media/share";
}

// The last chunk of at most size bytes read to end of file, without one
// trailing newline: how the sysfs texts are read.
std::string last_chunk(FILE *file, size_t size)
{
	char block[48];
	std::string last;
	for (size_t n; (n = fread(block, 1, std::min(size, sizeof(block)), file)) > 0;)
		last.assign(block, strnlen(block, n));
	if (!last.empty() && last.back() == '\n')
		last.pop_back();
	return last;
}

// vol_id's last line, read with a 16-byte buffer; nullopt when that line
// needs more than one read, which makes it longer than any type.
std::optional<std::string> last_line(FILE *pipe)
{
	char piece[16];
	std::optional<std::string> last = "";
	bool line_start = true;
	while (fgets(piece, sizeof(piece), pipe) != nullptr) {
		std::string_view text(piece);
		bool whole = text.ends_with('\n');
		if (whole)
			text.remove_suffix(1);
		if (line_start)
			last = std::string(text);
		else
			last.reset();
		line_start = whole;
	}
	return last;
}

// Calls found(name, index) for each whole disk (major 8, a name ending in
// a letter) of /proc/partitions, at most 8: a ninth ends the scan.  -1
// when the file cannot be opened or found fails.
template <typename F>
int scan_disks(uint32_t &count, F found)
{
	FilePtr file = open_file("/proc/partitions", "r");
	if (!file) {
		puts("open /proc/partitions failed");
		return -1;
	}
	char line[128], name[128];
	int major, minor;
	unsigned long long blocks;
	while (fgets(line, sizeof(line), file.get()) != nullptr) {
		if (strchr(line, '8') == nullptr ||
		    sscanf(line, "%d %d %llu %127s", &major, &minor, &blocks, name) != 4 || major != 8 ||
		    name[strlen(name) - 1] < 'a' || name[strlen(name) - 1] > 'z')
			continue;
		if (count == STORAGE_MAX_DISKS)
			break;
		if (found(name, count++) != 0)
			return -1;
	}
	return 0;
}

// The disk of a device node: sda of /dev/sda1.
std::optional<std::string> node_disk(const char *node)
{
	char disk[16];
	if (sscanf(node, "/dev/%15[^0-9]", disk) != 1)
		return std::nullopt;
	return disk;
}

uint32_t partition_number(const char *node)
{
	char digits[16];
	if (sscanf(node, "/dev/%*[a-z]%15[0-9]", digits) != 1)
		return 0;
	return static_cast<uint32_t>(strtoul(digits, nullptr, 10));
}

// Adds the partition of a mount entry; false when the table is full.
bool add_partition(disk_info *record, const mntent &entry, bool numbered)
{
	struct statfs fs;
	if (statfs(entry.mnt_dir, &fs) != 0)
		return true;
	if (record->partition_num == STORAGE_MAX_PARTITIONS)
		return false;
	partition_info &part = record->partition[record->partition_num++];
	if (numbered)
		part.number = partition_number(entry.mnt_fsname);
	partition_sizes(&part, static_cast<uint64_t>(fs.f_bsize), fs.f_blocks, fs.f_bfree, fs.f_bavail);
	if (get_fstype(entry.mnt_fsname, part.type) != 0)
		strlcpy(part.type, "Unknown", sizeof(part.type));
	size_t root = strlen(share_root());
	if (strlen(entry.mnt_dir) > root)
		strlcpy(part.label, entry.mnt_dir + root + 1, sizeof(part.label));
	return true;
}

// The mount entries under the share root that keep accepts become
// partitions; finish runs while the table is still open.
template <typename Keep, typename Finish>
int walk_mounts(disk_info *record, bool numbered, Keep keep, Finish finish)
{
	Owned<FILE, endmntent> mtab(setmntent("/etc/mtab", "r"));
	if (!mtab) {
		puts("open /etc/mtab failed");
		return -1;
	}
	while (mntent *entry = getmntent(mtab.get()))
		if (strstr(entry->mnt_dir, share_root()) != nullptr && keep(*entry) &&
		    !add_partition(record, *entry, numbered))
			break;
	if (finish() != 0)
		return -1;
	if (endmntent(mtab.release()) != 1) {
		puts("close /etc/mtab failed");
		return -1;
	}
	return 0;
}

// The size of an "sd" disk: its sysfs count of 512-byte sectors, halved.
int read_disk_total(const std::string &disk, uint64_t *total)
{
	if (!disk.starts_with("sd"))
		return 0;
	FilePtr file = open_file(format("/sys/block/%s/size", disk.c_str()).c_str(), "r");
	if (!file) {
		puts("fopen failed");
		return -1;
	}
	unsigned long long sectors;
	if (sscanf(last_chunk(file.get(), 16).c_str(), "%llu", &sectors) == 1)
		*total = sectors / 2;
	return 0;
}

std::optional<std::string> device_text(const char *disk, const char *name)
{
	FilePtr file = open_file(format("/sys/block/%s/device/%s", disk, name).c_str(), "r");
	if (!file) {
		printf("open %s file failed\n", name);
		return std::nullopt;
	}
	return last_chunk(file.get(), 48);
}

}  // namespace

void partition_sizes(partition_info *part, uint64_t bsize, uint64_t blocks, uint64_t bfree,
		     uint64_t bavail)
{
	uint64_t k = bsize / 1024;
	part->capacity = k * blocks;
	part->used = k * (blocks - bfree);
	part->avail = k * bavail;
}

}  // namespace hx::storage

using namespace hx::storage;

const char *disk_lock_state_name(int lock_state)
{
	static constexpr const char *names[] = {"Error", "Unlocked", "Locked", "Unlocks Exceeded"};
	return lock_state < -1 || lock_state > 2 ? nullptr : names[lock_state + 1];
}

std::string format_capacity(uint64_t kib)
{
	double g = kib / 1024.0 / 1024.0;
	double m = kib / 1024.0;
	std::string text = g >= 1.0   ? hx::format("%0.2fG", g)
			   : m >= 1.0 ? hx::format("%0.1fM", m)
				      : hx::format("%uK", static_cast<unsigned>(kib & 0xFFFFFFFFu));
	// The display's field holds nine characters.
	text.resize(std::min<size_t>(text.size(), 9));
	return text;
}

// The device node reaches the shell unquoted, in a command of 64 bytes.
int get_fstype(const char *device_node, char out_type[16])
{
	if (access("/lib/udev/vol_id", F_OK) != 0) {
		puts("vol_id not exist");
		return -1;
	}
	std::string command = hx::format("/lib/udev/vol_id -t %s", device_node);
	if (command.size() >= 64 || strpbrk(device_node, " \t\n;&|`$<>()\\\"'*?[]#~{}!^") != nullptr)
		return -1;
	hx::PipePtr pipe = hx::open_pipe(command.c_str(), "r");
	if (!pipe) {
		puts("popen vol_id error");
		return -1;
	}
	std::optional<std::string> answer = last_line(pipe.get());
	if (!answer || answer->size() >= 11)
		return -1;
	strlcpy(out_type, *answer == "vfat" ? "fat" : answer->c_str(), 16);
	return 0;
}

int get_media_type(const char *disk_name, uint32_t *out_media_type)
{
	char target[256];
	ssize_t n = readlink(hx::format("/sys/block/%s", disk_name).c_str(), target, sizeof(target) - 1);
	if (n < 0) {
		puts("readlink for media_type error");
		return -1;
	}
	std::string_view link(target, static_cast<size_t>(n));
	*out_media_type = link.find("usb1/1-1/1-1.4") != std::string_view::npos ? 1 : 0;
	return 0;
}

int getDiskProbe(disk_probe_list *list)
{
	if (list == nullptr) {
		puts("parameter of getDiskProbe invalid");
		return -1;
	}
	int scanned = scan_disks(list->disk_num, [list](const char *name, uint32_t i) {
		strlcpy(list->disk[i].name, name, sizeof(list->disk[i].name));
		return 0;
	});
	for (uint32_t i = 0; scanned == 0 && i < list->disk_num; i++)
		list->disk[i].lock_state = disk_probe(list->disk[i].name);
	return scanned;
}

int getDiskInfo(disk_info *record, const char *disk_name)
{
	if (record == nullptr || disk_name == nullptr) {
		puts("parameter of getDiskInfo invalid");
		return -1;
	}
	strlcpy(record->name, disk_name, sizeof(record->name));
	auto on_disk = [disk_name](const mntent &entry) { return node_disk(entry.mnt_fsname) == disk_name; };
	return walk_mounts(record, true, on_disk, [=] {
		if (read_disk_total(disk_name, &record->total) != 0)
			return -1;
		get_media_type(disk_name, &record->media_type);
		return 0;
	});
}

// Every partition under the share root but ramfs, whatever its disk; the
// total is that of the first entry's disk.
int getSnDiskInfo(disk_info *record)
{
	if (record == nullptr) {
		puts("parameter of getSnDiskInfo invalid");
		return -1;
	}
	bool first = true;
	std::string disk;
	auto keep = [&](const mntent &entry) {
		if (strcmp(entry.mnt_type, "ramfs") == 0)
			return false;
		if (std::exchange(first, false))
			disk = node_disk(entry.mnt_fsname).value_or("");
		return true;
	};
	return walk_mounts(record, false, keep, [&] { return read_disk_total(disk, &record->total); });
}

bool sector_compare(const partition_info &a, const partition_info &b)
{
	return a.number < b.number;
}

void sort_sector_list(disk_info *record)
{
	std::stable_sort(record->partition, record->partition + record->partition_num, sector_compare);
}

// The null check's message is getDiskInfo's, as the device prints it.
int getDiskList(disk_list *list)
{
	if (list == nullptr) {
		puts("parameter of getDiskInfo invalid");
		return -1;
	}
	return scan_disks(list->disk_num, [list](const char *name, uint32_t i) {
		std::optional<std::string> vendor = device_text(name, "vendor");
		std::optional<std::string> model = vendor ? device_text(name, "model") : std::nullopt;
		if (!model)
			return -1;
		disk_info &record = list->disk[i];
		snprintf(record.vendor, sizeof(record.vendor), "%s %s", vendor->c_str(), model->c_str());
		getDiskInfo(&record, name);
		sort_sector_list(&record);
		return 0;
	});
}
