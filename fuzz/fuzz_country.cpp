/* The country table of Part 5.3 through wl_countryChanCount.  The input
 * is "COUNTRY\nTABLE": the text before the first newline (at most 15
 * bytes) is the country code looked up, the rest is the file. */
#include <stdint.h>
#include <string.h>

#include "fuzz/fuzzutil.h"
#include "wifi/wifi.h"

int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static struct memfile table;

int
LLVMFuzzerInitialize(int *argc, char ***argv)
{
	(void)argc;
	(void)argv;
	memfile_open(&table, "80211d_domain.conf");
	return 0;
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const uint8_t *newline = memchr(data, '\n', size < 16 ? size : 16);
	size_t n = newline != NULL ? (size_t)(newline - data) : 0;
	char country[16];

	memcpy(country, data, n);
	country[n] = '\0';
	if (newline != NULL)
		memfile_set(&table, newline + 1, size - n - 1);
	else
		memfile_set(&table, data, size);
	wl_countryChanCount(table.path, country);
	return 0;
}
