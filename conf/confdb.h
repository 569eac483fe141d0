// The store layer under its own names, and the key index of the persistent
// store.  Results are 0 for success and -1 for failure unless said otherwise.
#ifndef HX_CONF_CONFDB_H
#define HX_CONF_CONFDB_H

#include "conf/store.h"


// Builds the key index from the persistent store (start-up only).
int confIndexInit();
// 0 when key is in the index and writable; -1 when unknown or read-only.
int confVerify(const char *key);
// 0 for the read-only keys "product_model" and "product_description", else 1.
int sysConfKeyAttrGet(const char *key);

// hx::conf::get and set on each store.
std::optional<std::string> sysConfGet(const char *key);
std::optional<std::string> rtConfGet(const char *key);
std::optional<std::string> sysInfoGet(const char *key);
int sysConfSet(const char *key, std::string_view text);
int rtConfSet(const char *key, std::string_view text);

// Copies src's value to dst: -1 when src has no value.
int sysConfCopy(const char *dst, const char *src);
// Exchanges the values of a and b; when one has no value, it takes the
// other's and the other keeps its own (a set from nothing is refused).  0.
int sysConfSwap(const char *a, const char *b);

#endif
