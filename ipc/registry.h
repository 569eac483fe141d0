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

/* Steps 1 and 2 of the common shape of a target handler (Part 2.2): prints
 * "Input parameter is NULL." for a null value or "Unexpected json type." for
 * one that is not an object and returns error; NULL when value is an object. */
const char *ipc_target_check(struct json_object *value, const char *error);
/* The text of value's string member "action", or NULL. */
const char *ipc_target_action(struct json_object *value);

#endif
