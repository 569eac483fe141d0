// Transitional: the C-style JSON readers over the stores, removed once no
// caller uses them (conf/store.h has their replacements).
#ifndef HX_CONF_CONFJSON_H
#define HX_CONF_CONFJSON_H

#include <stddef.h>

#include "conf/confdb.h"

struct json_object;

#define CONF_MISSING  -1	/* store cannot be opened, key absent or empty */
#define CONF_BAD_JSON -2	/* the text does not parse (json_tokener_parse) */

/* The value of key parsed as JSON into *value (the caller puts it): 0,
 * CONF_MISSING or CONF_BAD_JSON.  The literal null does not parse, as with
 * json_tokener_parse. */
int confGetJson(enum conf_store store, const char *key, struct json_object **value);

/* The string form of key's JSON value, into buf, truncated to size - 1
 * characters: 0, CONF_MISSING or CONF_BAD_JSON. */
int confGetString(enum conf_store store, const char *key, char *buf, size_t size);

/* Stores the formatted text plus its NUL under key ("" gives an empty
 * value, as the original's printf into a buffer did): 0 or -1. */
int confSetf(enum conf_store store, const char *key, const char *format, ...)
	__attribute__((format(printf, 3, 4)));

#endif
