/* The input as a backup file through conf_to_db (Part 3.2); when it is
 * accepted, db_to_conf of the store written must give back the input with
 * its reserved header bytes zeroed.  All three files are memfds: nothing
 * touches the file system. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "conf/backup.h"
#include "fuzz/fuzzutil.h"

int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static struct memfile conf, db, again;

int
LLVMFuzzerInitialize(int *argc, char ***argv)
{
	(void)argc;
	(void)argv;
	memfile_open(&conf, "backup.conf");
	memfile_open(&db, "sysconf.gdbm");
	memfile_open(&again, "again.conf");
	return 0;
}

/* The file written by db_to_conf equals data with bytes 8..31 zeroed. */
static void
check_round_trip(const uint8_t *data, size_t size)
{
	uint8_t *got = malloc(size + 1), *want = malloc(size);

	if (got == NULL || want == NULL)
		abort();
	memcpy(want, data, size);
	memset(want + 8, 0, hx::conf::backup_header_size - 8);
	if (db_to_conf(db.path, again.path) != 0 ||
	    pread(again.fd, got, size + 1, 0) != (ssize_t)size ||
	    memcmp(got, want, size) != 0)
		abort();
	free(got);
	free(want);
}

int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	memfile_set(&conf, data, size);
	memfile_set(&db, NULL, 0);
	if (conf_to_db(db.path, conf.path) == 0)
		check_round_trip(data, size);
	return 0;
}
