// One line of the SD-card backup log through getRecordFromLine.  The
// record's result and type index the texts the log's readers print.
#include "fuzz/fuzzutil.h"
#include "sync/sync.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	backup_record record;
	initRecord(record);
	getRecordFromLine(record, hx::fuzz::text({data, size}));
	if (record.result < 0 || static_cast<size_t>(record.result) >= backup_result_str.size() ||
	    record.type < 0 || static_cast<size_t>(record.type) >= backup_type_str.size())
		hx::fuzz::fail("a result or type that names no text");
	return 0;
}
