// The input as a backup file through conf_to_db; when it is accepted,
// db_to_conf of the store written must give back the input with its
// reserved header bytes zeroed.  All three files are memfds: nothing
// touches the file system.
#include <string>

#include "conf/backup.h"
#include "fuzz/fuzzutil.h"

namespace {

using hx::conf::backup_header_size;

struct Files {
	hx::fuzz::MemFile backup{"backup.conf"}, store{"sysconf.gdbm"}, again{"again.conf"};
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static Files files;
	hx::fuzz::Bytes input(data, size);
	files.backup.set(input);
	files.store.set({});
	if (conf_to_db(files.store.path(), files.backup.path()) != 0)
		return 0;
	if (size < backup_header_size)
		hx::fuzz::fail("a file shorter than the header was accepted");
	std::string want(hx::fuzz::text(input));
	want.replace(8, backup_header_size - 8, backup_header_size - 8, '\0');
	if (db_to_conf(files.store.path(), files.again.path()) != 0 ||
	    files.again.contents() != want)
		hx::fuzz::fail("the store written does not give back the backup file");
	return 0;
}
