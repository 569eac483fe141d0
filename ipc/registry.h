/* Part 2.2: handler registry and the two target tables. */
#ifndef HX_IPC_REGISTRY_H
#define HX_IPC_REGISTRY_H

#include "core/tree.h"

#include "ipc/ipc.h"

typedef struct ipc_handler_entry {
	const char *name;
	ipc_handler_func handler;
	RB_ENTRY(ipc_handler_entry) link;
} ipc_handler_entry;

RB_HEAD(ipc_handler_index, ipc_handler_entry);

#define IPC_TABLE_ROWS 41

void infos_init(void);
void revalidates_init(void);

/* The row with exactly this name, or NULL. */
ipc_handler_entry *info_find(const char *name);
ipc_handler_entry *revalidate_find(const char *name);

/* Rows whose handler belongs to a later issue (see README). */
const char *ipc_not_built(struct json_object *value,
			  struct json_object *reply_arguments, void *deferred);

#endif
