// The status items "diskstatus", "disk_list" and "disk_probe": the
// inventory's records as JSON objects, every number as a string.
#include <stdio.h>

#include "core/fmt.h"
#include "core/json.h"
#include "ipc/info_parse.h"
#include "storage/storage.h"

namespace {

namespace json = hx::json;

// A new object or array, or NULL after json-c's failure is printed.
json_object *made(json_object *value, const char *kind)
{
	if (value == nullptr)
		printf("json_object_new_%s failed.\n", kind);
	return value;
}

json_object *add_array(json_object *object, const char *key)
{
	json_object *array = made(json_object_new_array(), "array");
	if (array != nullptr)
		json_object_object_add(object, key, array);
	return array;
}

void add_capacity(json_object *object, const char *key, uint64_t kib)
{
	json::add_string(object, key, format_capacity(kib));
}

void add_number(json_object *object, const char *key, uint32_t number)
{
	json::add_string(object, key, hx::format("%d", static_cast<int>(number)));
}

// An array under key of count objects, each filled by fill(object, i),
// which may end it with an error.
template <typename F>
const char *add_entries(json_object *object, const char *key, uint32_t count, F fill)
{
	json_object *array = add_array(object, key);
	for (uint32_t i = 0; array != nullptr && i < count; i++) {
		json_object *entry = made(json_object_new_object(), "object");
		if (entry == nullptr)
			return "ERROR";
		json_object_array_add(array, entry);
		if (const char *error = fill(entry, i))
			return error;
	}
	return array != nullptr ? nullptr : "ERROR";
}

// "diskstatus" lists the sizes before the label and type, "disk_list"
// after them.
const char *add_partitions(json_object *object, const disk_info &disk, bool names_first)
{
	auto fill = [&](json_object *entry, uint32_t i) -> const char * {
		const partition_info &part = disk.partition[i];
		auto names = [&] {
			json::add_string(entry, "label", part.label);
			json::add_string(entry, "type", part.type);
		};
		if (names_first)
			names();
		add_capacity(entry, "capacity", part.capacity);
		add_capacity(entry, "used", part.used);
		add_capacity(entry, "avai", part.avail);
		if (!names_first)
			names();
		return nullptr;
	};
	return add_entries(object, "partition_detail", disk.partition_num, fill);
}

int gather_share(disk_info *disk)
{
	if (getSnDiskInfo(disk) != 0)
		return -1;
	printf("di.sector_num = %d\n", static_cast<int>(disk->partition_num));
	return 0;
}

const char *fill_share(json_object *object, const disk_info &disk)
{
	add_capacity(object, "total_capacity", disk.total);
	add_number(object, "partition_num", disk.partition_num);
	return add_partitions(object, disk, false);
}

const char *fill_list(json_object *object, const disk_list &list)
{
	add_number(object, "disk_num", list.disk_num);
	return add_entries(object, "disk_detail", list.disk_num, [&](json_object *entry, uint32_t i) {
		const disk_info &disk = list.disk[i];
		json::add_string(entry, "disk_name", disk.name);
		json::add_string(entry, "disk_vendor", disk.vendor);
		add_number(entry, "media_type", disk.media_type);
		add_capacity(entry, "total_capacity", disk.total);
		return add_partitions(entry, disk, true);
	});
}

const char *fill_probe(json_object *object, const disk_probe_list &list)
{
	add_number(object, "disk_num", list.disk_num);
	return add_entries(object, "lock_info", list.disk_num, [&](json_object *entry, uint32_t i) {
		const char *state = disk_lock_state_name(list.disk[i].lock_state);
		json::add_string(entry, "disk_name", list.disk[i].name);
		json::add_string(entry, "lock_state", state != nullptr ? state : "");
		return static_cast<const char *>(nullptr);
	});
}

// What the three items share: the argument check, a zero-filled record
// that Gather fills (the item is "" when it fails), and the object under
// the item's name that Fill completes.
template <typename Record, int (*Gather)(Record *), const char *(*Fill)(json_object *, const Record &)>
const char *disk_item(json_object *name, json_object *infos)
{
	if (info_args_missing(name, infos))
		return "Invalid arguments.";
	Record record{};
	if (Gather(&record) != 0) {
		json::add_string(infos, json::text(name), "");
		return nullptr;
	}
	json_object *object = made(json_object_new_object(), "object");
	if (object == nullptr)
		return "ERROR";
	json_object_object_add(infos, json::text(name), object);
	return Fill(object, record);
}

}  // namespace

const char *_info_getSnDiskInfo(json_object *name, json_object *infos, void *)
{
	return disk_item<disk_info, gather_share, fill_share>(name, infos);
}

const char *_info_getDiskList(json_object *name, json_object *infos, void *)
{
	return disk_item<disk_list, getDiskList, fill_list>(name, infos);
}

const char *_info_getDiskProbe(json_object *name, json_object *infos, void *)
{
	return disk_item<disk_probe_list, getDiskProbe, fill_probe>(name, infos);
}
