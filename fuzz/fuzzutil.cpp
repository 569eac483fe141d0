/* See fuzzutil.h. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "fuzz/fuzzutil.h"

char *
fuzz_text(const uint8_t *data, size_t size)
{
	char *text = malloc(size + 1);

	if (text == NULL)
		abort();
	memcpy(text, data, size);
	text[size] = '\0';
	return text;
}

void
memfile_open(struct memfile *file, const char *name)
{
	file->fd = memfd_create(name, 0);
	if (file->fd < 0) {
		perror("memfd_create");
		abort();
	}
	snprintf(file->path, sizeof(file->path), "/proc/self/fd/%d", file->fd);
}

void
memfile_set(struct memfile *file, const uint8_t *data, size_t size)
{
	if (ftruncate(file->fd, 0) != 0 ||
	    (size > 0 && pwrite(file->fd, data, size, 0) != (ssize_t)size)) {
		perror("memfile");
		abort();
	}
}
