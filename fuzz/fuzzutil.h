/* Helpers of the fuzz targets (fuzz/fuzzutil.c). */
#ifndef HX_FUZZ_FUZZUTIL_H
#define HX_FUZZ_FUZZUTIL_H

#include <stddef.h>
#include <stdint.h>

/* The input as a NUL-terminated text (malloc'd; aborts when out of memory). */
char *fuzz_text(const uint8_t *data, size_t size);

/* An in-memory file with a path (memfd_create, "/proc/self/fd/N"), for
 * code that opens a file by name. */
struct memfile {
	int fd;
	char path[32];
};

/* Makes the file (aborts when it cannot). */
void memfile_open(struct memfile *file, const char *name);
/* Replaces the file's content with data (aborts when it cannot). */
void memfile_set(struct memfile *file, const uint8_t *data, size_t size);

#endif
