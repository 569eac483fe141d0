/* Unit tests of Part 3.2: the backup file's checksum, cipher and the two
 * conversions (conf/backup.c).  Every file lives in a temporary directory
 * under $TMPDIR; the restore itself works on fixed device paths and is
 * tested through the daemon (tests/it/test_p3_2_backup.py). */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}

#include "conf/backup.h"
#include "tests/unit/testutil.h"

/* DES-ECB of 0123456789ABCDEF under the built-in key 5A13C708E4913D6B, from
 * `openssl enc -des-ecb -nopad -K 5A13C708E4913D6B -provider legacy`. */
#define KAT_PLAIN  "\x01\x23\x45\x67\x89\xAB\xCD\xEF"
#define KAT_CIPHER "\x16\x81\x9F\xAD\x12\x6F\x57\x55"
#define ZERO24 "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
#define MAGIC_LE "\x1F\x22\xE7\x88"

static char *dir;

static int
setup(void **state)
{
	(void)state;
	dir = tu_tempdir();
	return 0;
}

static int
teardown(void **state)
{
	(void)state;
	tu_rmtree(dir);
	free(dir);
	return 0;
}

static char *
path_of(const char *name)
{
	return tu_path(dir, name);
}

static void
file_put(const char *path, const void *data, size_t len)
{
	FILE *f = fopen(path, "wb");

	assert_non_null(f);
	assert_int_equal(fwrite(data, 1, len, f), len);
	assert_int_equal(fclose(f), 0);
}

/* The whole file (malloc'd, at least one byte), its size in *len. */
static unsigned char *
file_get(const char *path, size_t *len)
{
	FILE *f = fopen(path, "rb");
	unsigned char *data = (unsigned char *)malloc(1 << 20);
	size_t got;

	assert_non_null(f);
	assert_non_null(data);
	got = fread(data, 1, 1 << 20, f);
	fclose(f);
	*len = got;
	return data;
}

static int
file_exists(const char *path)
{
	struct stat st;

	return lstat(path, &st) == 0;
}

/* The file holds exactly these bytes (a literal, NULs included). */
#define assert_file(path, bytes) assert_file_is((path), (bytes), sizeof(bytes) - 1)

static void
assert_file_is(const char *path, const void *bytes, size_t size)
{
	size_t len;
	unsigned char *data = file_get(path, &len);

	assert_int_equal(len, size);
	assert_memory_equal(data, bytes, size);
	free(data);
}

/* What fn(a, b) printed on standard output, and its result in *ret. */
static char *
output_of(int (*fn)(const char *, const char *), const char *a, const char *b, int *ret)
{
	struct tu_capture cap;

	tu_capture_begin(&cap, stdout);
	*ret = fn(a, b);
	return tu_capture_end(&cap);
}

static void
assert_output(int (*fn)(const char *, const char *), const char *a, const char *b,
	      int ret, const char *expected)
{
	int got;
	char *out = output_of(fn, a, b, &got);

	assert_string_equal(out, expected);
	assert_int_equal(got, ret);
	free(out);
}

/* ---- checksum ---- */

static void
test_crc32c_backup_parameters(void **state)
{
	(void)state;
	/* Initial value 0, no final inversion: computed bit by bit in Python. */
	assert_int_equal(crc32c_(0, "123456789", 9), 0x58E3FA20u);
	assert_int_equal(crc32c_(0, "", 0), 0);
	assert_int_equal(crc32c_(0x12345678u, "", 0), 0x12345678u);
	/* Continued a piece at a time, as the header says. */
	assert_int_equal(crc32c_(crc32c_(0, "1234", 4), "56789", 5), 0x58E3FA20u);
}

static void
test_crc32c_usual_parameters_differ(void **state)
{
	(void)state;
	/* The standard CRC-32C check value needs init and final xor 0xFFFFFFFF. */
	assert_int_equal(crc32c_(0xFFFFFFFFu, "123456789", 9) ^ 0xFFFFFFFFu, 0xE3069283u);
	assert_int_equal(crc32c_(0xFFFFFFFFu, "123456789", 9), 0x1CF96D7Cu);
	assert_int_not_equal(crc32c_(0, "123456789", 9), 0xE3069283u);
}

/* ---- export ---- */

static void
test_export_known_answer(void **state)
{
	char *db = path_of("db"), *bak = path_of("bak");

	(void)state;
	/* 10 bytes: one enciphered block, then 2 bytes in plain. */
	file_put(db, KAT_PLAIN "\xAA\xBB", 10);
	assert_output(db_to_conf, db, bak, 0, "");
	/* crc32c_(0, KAT_CIPHER AA BB) = 0xB4571227, computed in Python. */
	assert_file(bak, MAGIC_LE "\x27\x12\x57\xB4" ZERO24 KAT_CIPHER "\xAA\xBB");
	free(db);
	free(bak);
}

static void
test_export_empty_store_gives_32_bytes_import_refuses(void **state)
{
	char *db = path_of("db"), *bak = path_of("bak"), *out = path_of("out");

	(void)state;
	file_put(db, "", 0);
	assert_output(db_to_conf, db, bak, 0, "");
	assert_file(bak, MAGIC_LE "\0\0\0\0" ZERO24);
	assert_output(conf_to_db, out, bak, -1, "invalid configure file, size error\n");
	assert_false(file_exists(out));
	free(db);
	free(bak);
	free(out);
}

static void
test_export_truncates_existing_backup(void **state)
{
	char *db = path_of("db"), *bak = path_of("bak");
	char big[100];

	(void)state;
	memset(big, 'x', sizeof(big));
	file_put(bak, big, sizeof(big));
	file_put(db, KAT_PLAIN, 8);
	assert_output(db_to_conf, db, bak, 0, "");
	assert_file(bak, MAGIC_LE "\xA5\x09\xE4\x1A" ZERO24 KAT_CIPHER);
	free(db);
	free(bak);
}

/* ---- round trips ---- */

static void
round_trip(size_t n)
{
	char *db = path_of("db"), *bak = path_of("bak"), *back = path_of("back");
	unsigned char data[64];
	size_t i, len;
	unsigned char *file;

	for (i = 0; i < n; i++)
		data[i] = (unsigned char)(i * 37 + 5);
	file_put(db, data, n);
	file_put(back, "old contents that are longer than the payload, to be cut",
		 sizeof("old contents that are longer than the payload, to be cut"));
	assert_output(db_to_conf, db, bak, 0, "");
	file = file_get(bak, &len);
	assert_int_equal(len, n + 32);
	/* The last n mod 8 bytes stay in plain; the blocks before them do not. */
	assert_memory_equal(file + 32 + n / 8 * 8, data + n / 8 * 8, n % 8);
	if (n >= 8)
		assert_memory_not_equal(file + 32, data, 8);
	assert_int_equal(file[4] | file[5] << 8 | file[6] << 16 | (uint32_t)file[7] << 24,
			 crc32c_(0, file + 32, n));
	free(file);
	assert_output(conf_to_db, back, bak, 0, "");
	assert_file_is(back, data, n);
	free(db);
	free(bak);
	free(back);
}

static void
test_round_trip_lengths(void **state)
{
	static const size_t lengths[] = { 1, 7, 8, 13, 16, 63 };
	size_t i;

	(void)state;
	for (i = 0; i < sizeof(lengths) / sizeof(lengths[0]); i++)
		round_trip(lengths[i]);
}

/* ---- import: refusals ---- */

/* A backup of KAT_PLAIN + "\xAA\xBB" with byte at changed to value. */
static char *
backup_with(size_t at, unsigned char value)
{
	unsigned char good[] = MAGIC_LE "\x27\x12\x57\xB4" ZERO24 KAT_CIPHER "\xAA\xBB";
	char *bak = path_of("bak");

	good[at] = value;
	file_put(bak, good, sizeof(good) - 1);
	return bak;
}

static void
test_import_known_answer(void **state)
{
	char *bak = backup_with(0, 0x1F), *db = path_of("db");

	(void)state;
	assert_output(conf_to_db, db, bak, 0, "");
	assert_file(db, KAT_PLAIN "\xAA\xBB");
	free(bak);
	free(db);
}

static void
test_import_flipped_payload_byte_crc_error(void **state)
{
	static const size_t at[] = { 32, 35, 39, 40, 41 };
	size_t i;

	(void)state;
	for (i = 0; i < sizeof(at) / sizeof(at[0]); i++) {
		char *db = path_of("db");
		char *bak = backup_with(at[i], at[i] < 40 ? KAT_CIPHER[at[i] - 32] ^ 0x01 : 0x00);

		assert_output(conf_to_db, db, bak, -1, "invalid configure file, crc error\n");
		assert_false(file_exists(db));
		free(bak);
		free(db);
	}
}

static void
test_import_flipped_reserved_byte_accepted(void **state)
{
	static const size_t at[] = { 8, 20, 31 };
	size_t i;

	(void)state;
	for (i = 0; i < sizeof(at) / sizeof(at[0]); i++) {
		char *db = path_of("db");
		char *bak = backup_with(at[i], 0xFF);

		assert_output(conf_to_db, db, bak, 0, "");
		assert_file(db, KAT_PLAIN "\xAA\xBB");
		free(bak);
		free(db);
	}
}

static void
test_import_big_endian_magic(void **state)
{
	char *db = path_of("db"), *bak = path_of("bak");

	(void)state;
	file_put(bak, "\x88\xE7\x22\x1F\x27\x12\x57\xB4" ZERO24 KAT_CIPHER "\xAA\xBB", 42);
	assert_output(conf_to_db, db, bak, -1,
		      "magic number mismatch\ninvalid configure file, magic number error\n");
	assert_false(file_exists(db));
	free(db);
	free(bak);
}

static void
test_import_usual_crc_parameters_refused(void **state)
{
	unsigned char file[] = MAGIC_LE "\0\0\0\0" ZERO24 KAT_CIPHER "\xAA\xBB";
	char *db = path_of("db"), *bak = path_of("bak");
	uint32_t usual = crc32c_(0xFFFFFFFFu, file + 32, 10) ^ 0xFFFFFFFFu;

	(void)state;
	file[4] = usual & 0xFF;
	file[5] = (usual >> 8) & 0xFF;
	file[6] = (usual >> 16) & 0xFF;
	file[7] = usual >> 24;
	file_put(bak, file, sizeof(file) - 1);
	assert_output(conf_to_db, db, bak, -1, "invalid configure file, crc error\n");
	free(db);
	free(bak);
}

static void
test_import_sizes(void **state)
{
	char *db = path_of("db"), *bak = path_of("bak");

	(void)state;
	file_put(bak, MAGIC_LE, 4);
	assert_output(conf_to_db, db, bak, -1, "invalid configure file, size error\n");
	file_put(bak, "", 0);
	assert_output(conf_to_db, db, bak, -1, "invalid configure file, size error\n");
	/* 33 bytes: one payload byte in plain, crc of that byte. */
	file_put(bak, MAGIC_LE "\xD0\x59\x4E\xA3" ZERO24 "Q", 33);
	assert_output(conf_to_db, db, bak, 0, "");
	assert_file(db, "Q");
	free(db);
	free(bak);
}

/* ---- file routine messages ---- */

static void
test_missing_input_file(void **state)
{
	char *none = path_of("none"), *out = path_of("out"), *expected;

	(void)state;
	assert_true(asprintf(&expected, "stat %s fail\nfailed to get file size for %s\n",
			     none, none) > 0);
	assert_output(db_to_conf, none, out, -1, expected);
	assert_false(file_exists(out));
	assert_output(conf_to_db, out, none, -1, expected);
	assert_false(file_exists(out));
	free(expected);
	free(none);
	free(out);
}

/* A Unix socket: stat works, open fails (ENXIO). */
static char *
socket_file(const char *name)
{
	struct sockaddr_un addr = {};
	addr.sun_family = AF_UNIX;
	char *path = path_of(name);
	int fd = socket(AF_UNIX, SOCK_STREAM, 0);

	assert_true(fd >= 0);
	assert_true(strlen(path) < sizeof(addr.sun_path));
	strcpy(addr.sun_path, path);
	assert_int_equal(bind(fd, (struct sockaddr *)&addr, sizeof(addr)), 0);
	close(fd);
	return path;
}

static void
test_export_store_cannot_be_opened(void **state)
{
	char *db = socket_file("sock"), *bak = path_of("bak"), *expected;

	(void)state;
	assert_true(asprintf(&expected, "open file %s for read fail\nfail to read %s\n", db, db) > 0);
	assert_output(db_to_conf, db, bak, -1, expected);
	assert_false(file_exists(bak));
	free(expected);
	free(db);
	free(bak);
}

/* A directory: stat works and gives a size, fopen works, fread fails. */
static void
test_export_store_cannot_be_read(void **state)
{
	char *db = path_of("d"), *bak = path_of("bak"), *expected;
	struct stat st;

	(void)state;
	assert_int_equal(mkdir(db, 0755), 0);
	assert_int_equal(stat(db, &st), 0);
	assert_true(st.st_size > 0);
	assert_true(asprintf(&expected, "fread fail\nfail to read %s\n", db) > 0);
	assert_output(db_to_conf, db, bak, -1, expected);
	assert_false(file_exists(bak));
	assert_int_equal(rmdir(db), 0);
	free(expected);
	free(db);
	free(bak);
}

static void
test_import_header_cannot_be_read(void **state)
{
	char *db = path_of("db"), *bak = path_of("d");

	(void)state;
	assert_int_equal(mkdir(bak, 0755), 0);
	assert_output(conf_to_db, db, bak, -1,
		      "fread fail\nfail to read file header\n"
		      "invalid configure file, magic number error\n");
	assert_false(file_exists(db));
	assert_int_equal(rmdir(bak), 0);
	free(db);
	free(bak);
}

static void
test_write_cannot_be_opened(void **state)
{
	char *db = path_of("db"), *bak = path_of("no-dir/bak"), *expected;
	char *good = backup_with(0, 0x1F);
	char *out = path_of("no-dir/db");

	(void)state;
	file_put(db, "12345678", 8);
	assert_true(asprintf(&expected, "open file %s for write fail\nfail to write %s\n",
			     bak, bak) > 0);
	assert_output(db_to_conf, db, bak, -1, expected);
	free(expected);
	assert_true(asprintf(&expected, "open file %s for write fail\nfail to write %s\n",
			     out, out) > 0);
	assert_output(conf_to_db, out, good, -1, expected);
	free(expected);
	free(db);
	free(bak);
	free(good);
	free(out);
}

/* /dev/full takes the open and refuses the bytes (ENOSPC at the flush). */
static void
test_write_fails(void **state)
{
	char *db = path_of("db"), *good = backup_with(0, 0x1F);

	(void)state;
	file_put(db, "12345678", 8);
	assert_output(db_to_conf, db, "/dev/full", -1, "fwrite fail\nfail to write /dev/full\n");
	assert_output(conf_to_db, "/dev/full", good, -1, "fwrite fail\nfail to write /dev/full\n");
	free(db);
	free(good);
}

#define T(fn) cmocka_unit_test_setup_teardown(fn, setup, teardown)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		T(test_crc32c_backup_parameters),
		T(test_crc32c_usual_parameters_differ),
		T(test_export_known_answer),
		T(test_export_empty_store_gives_32_bytes_import_refuses),
		T(test_export_truncates_existing_backup),
		T(test_round_trip_lengths),
		T(test_import_known_answer),
		T(test_import_flipped_payload_byte_crc_error),
		T(test_import_flipped_reserved_byte_accepted),
		T(test_import_big_endian_magic),
		T(test_import_usual_crc_parameters_refused),
		T(test_import_sizes),
		T(test_missing_input_file),
		T(test_export_store_cannot_be_opened),
		T(test_export_store_cannot_be_read),
		T(test_import_header_cannot_be_read),
		T(test_write_cannot_be_opened),
		T(test_write_fails),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
