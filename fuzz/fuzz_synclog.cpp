/* One line of the SD-card backup log (Part 7.2) through getRecordFromLine. */
#include <stdint.h>
#include <stdlib.h>

#include "fuzz/fuzzutil.h"
#include "sync/sync.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	struct backup_record record;
	char *line = fuzz_text(data, size);

	initRecord(record);
	getRecordFromLine(record, line);
	free(line);
	return 0;
}
