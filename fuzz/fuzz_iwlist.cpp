/* "iwlist mlan0 scan" output through scan_parse_iwlist, and each of its
 * lines (any length) through scan_parse_line. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz/fuzzutil.h"
#include "wifi/scan.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void
check_list(const struct scan_list *list)
{
	if (list->count < 0 || list->count > SCAN_CELL_MAX)
		abort();
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static struct scan_list list;
	char *text = fuzz_text(data, size), *line, *rest;

	scan_parse_iwlist(text, &list);
	check_list(&list);
	memset(&list, 0, sizeof(list));
	for (rest = text; (line = strsep(&rest, "\n")) != NULL;)
		scan_parse_line(line, &list);
	check_list(&list);
	free(text);
	return 0;
}
