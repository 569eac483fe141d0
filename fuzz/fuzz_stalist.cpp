/* The lines of "/sbin/uaputl.exe sta_list" through wl_staListParseLine,
 * one list for the whole input so that the 32-station bound is reached. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz/fuzzutil.h"
#include "wifi/wifi.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	struct wl_sta_list list;
	char *text = fuzz_text(data, size), *line, *rest;

	memset(&list, 0, sizeof(list));
	for (rest = text; (line = strsep(&rest, "\n")) != NULL;)
		wl_staListParseLine(line, &list);
	if (list.count < 0 || list.count > WL_STA_MAX)
		abort();
	free(text);
	return 0;
}
