/* Transitional: libbsd's red-black tree, until the handler indexes are
 * standard containers too. */
#ifndef HX_CORE_TREE_H
#define HX_CORE_TREE_H

#include <bsd/sys/tree.h>

/* RB_GENERATE_STATIC needs a __unused that libbsd leaves undefined, because
 * Linux headers use that name for struct members. */
#define HX_RB_GENERATE_STATIC(name, type, field, cmp) \
	RB_GENERATE_INTERNAL(name, type, field, cmp, __attribute__((__unused__)) static)

#endif
