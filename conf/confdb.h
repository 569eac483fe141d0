/* Part 3.1: the three gdbm stores and the key index of the persistent store.
 * Every function returns 0 on success and -1 on failure unless said otherwise. */
#ifndef HX_CONF_CONFDB_H
#define HX_CONF_CONFDB_H

#include <gdbm.h>

struct evbuffer;

enum conf_store { CONF_SYSCONF, CONF_RTCONF, CONF_SYSINFO };

/* Path of a store: its environment override ("DB_FILE", "RT_DB_FILE",
 * "INFO_DB_FILE") when set, read on every call, else the default path. */
const char *confStorePath(enum conf_store store);

/* gdbm_open with the store layer's settings: default block size, no fatal
 * callback, reader mode or writer-create mode 0664.  NULL on failure. */
GDBM_FILE confOpenReader(const char *path);
GDBM_FILE confOpenWriter(const char *path);

/* Builds the key index from the persistent store (start-up only). */
int confIndexInit(void);
/* 0 when key is in the index and writable; -1 when unknown or read-only. */
int confVerify(const char *key);
/* 0 for the read-only keys "product_model" and "product_description", else 1. */
int sysConfKeyAttrGet(const char *key);

/* Append the value, with its NUL, to buf; -1 when the store cannot be opened,
 * the key is absent or its value is empty. */
int sysConfGet(const char *key, struct evbuffer *buf);
int rtConfGet(const char *key, struct evbuffer *buf);
int sysInfoGet(const char *key, struct evbuffer *buf);

/* Store the buffer's content plus one NUL under key (replace). */
int sysConfSet(const char *key, struct evbuffer *buf);
int rtConfSet(const char *key, struct evbuffer *buf);

/* Generic forms of the above, on any store file. */
int confGet(const char *path, const char *key, struct evbuffer *buf);
int confSet(const char *path, const char *key, struct evbuffer *buf);
/* Stores text plus its NUL ("" gives an empty value); NULL is refused. */
int confSetText(const char *path, const char *key, const char *text);

int sysConfCopy(const char *dst, const char *src);
int sysConfSwap(const char *a, const char *b);

#endif
