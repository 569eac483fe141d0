// The two families of named handlers: status items (pref-get's "infos") and
// revalidate targets, each a constant table of {name, handler} rows loaded
// at start-up into an index ordered by name.
#ifndef HX_IPC_REGISTRY_H
#define HX_IPC_REGISTRY_H

#include <map>
#include <string_view>

#include "ipc/ipc.h"

struct ipc_handler_entry {
	const char *name;
	ipc_handler_func handler;
};

// Names in byte order, as strcmp orders them.
using ipc_handler_index = std::map<std::string_view, const ipc_handler_entry *>;

constexpr size_t IPC_TABLE_ROWS = 41;

void infos_init();
void revalidates_init();

// The row with exactly this name (a C string), or NULL.
const ipc_handler_entry *info_find(const char *name);
const ipc_handler_entry *revalidate_find(const char *name);

#endif
