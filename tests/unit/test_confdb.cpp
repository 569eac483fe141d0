/* Unit tests of Part 3.1: the configuration database (conf/confdb.c).
 *
 * Each test points DB_FILE, RT_DB_FILE and INFO_DB_FILE at files of its own
 * temporary directory and writes them with gdbm directly.  The key index is
 * process-wide and built once, so every index scenario runs in a forked
 * child that builds it and checks; the parent asserts the child's status. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <cmocka.h>
}
#include <event.h>
#include <gdbm.h>

#include "conf/confdb.h"
#include "tests/unit/console_capture.h"
#include "tests/unit/testutil.h"

/* The buffer holds exactly these bytes (a literal, NULs included). */
#define assert_buffer(buf, bytes) \
	do { \
		assert_int_equal(evbuffer_get_length(buf), sizeof(bytes) - 1); \
		if (sizeof(bytes) > 1) \
			assert_memory_equal(evbuffer_pullup((buf), -1), (bytes), sizeof(bytes) - 1); \
	} while (0)

static struct evbuffer *
buffer_with(const char *text)
{
	struct evbuffer *buf = evbuffer_new();

	assert_non_null(buf);
	if (text != NULL)
		evbuffer_add(buf, text, strlen(text));
	return buf;
}

static mode_t
file_mode(const char *path)
{
	struct stat st;

	assert_int_equal(stat(path, &st), 0);
	return st.st_mode & 07777;
}

static int
file_exists(const char *path)
{
	struct stat st;

	return stat(path, &st) == 0;
}

/* ================= get ================= */

static void
test_get_appends_text_and_nul(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	tu_store_put(tu_stores.sysconf, "lan_ipaddr", "\"192.168.1.1\"");
	assert_int_equal(sysConfGet("lan_ipaddr", buf), 0);
	assert_buffer(buf, "\"192.168.1.1\"\0");
	evbuffer_free(buf);
}

static void
test_get_appends_after_existing_data(void **state)
{
	struct evbuffer *buf = buffer_with("xy");

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "abc");
	assert_int_equal(sysConfGet("k", buf), 0);
	assert_buffer(buf, "xyabc\0");
	assert_int_equal(sysConfGet("k", buf), 0);
	assert_buffer(buf, "xyabc\0abc\0");
	evbuffer_free(buf);
}

static void
test_each_get_reads_its_own_store(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "sys");
	tu_store_put(tu_stores.rtconf, "k", "rt");
	tu_store_put(tu_stores.sysinfo, "k", "info");
	assert_int_equal(sysConfGet("k", buf), 0);
	assert_int_equal(rtConfGet("k", buf), 0);
	assert_int_equal(sysInfoGet("k", buf), 0);
	assert_buffer(buf, "sys\0rt\0info\0");
	evbuffer_free(buf);
}

static void
test_get_key_without_nul_invisible(void **state)
{
	struct evbuffer *buf = buffer_with("xy");

	(void)state;
	tu_store_raw(tu_stores.sysconf, "nonul", 5, "v", 2);
	tu_store_raw(tu_stores.rtconf, "nonul", 5, "v", 2);
	tu_store_raw(tu_stores.sysinfo, "nonul", 5, "v", 2);
	assert_int_equal(sysConfGet("nonul", buf), -1);
	assert_int_equal(rtConfGet("nonul", buf), -1);
	assert_int_equal(sysInfoGet("nonul", buf), -1);
	assert_buffer(buf, "xy");
	evbuffer_free(buf);
}

static void
test_get_empty_value_reads_as_missing(void **state)
{
	struct evbuffer *buf = buffer_with("xy");

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "");
	tu_store_put(tu_stores.rtconf, "k", "");
	tu_store_put(tu_stores.sysinfo, "k", "");
	assert_int_equal(sysConfGet("k", buf), -1);
	assert_int_equal(rtConfGet("k", buf), -1);
	assert_int_equal(sysInfoGet("k", buf), -1);
	assert_buffer(buf, "xy");
	evbuffer_free(buf);
}

static void
test_get_absent_key_fails(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "v");
	assert_int_equal(sysConfGet("other", buf), -1);
	assert_int_equal(sysConfGet("k2", buf), -1);
	assert_buffer(buf, "");
	evbuffer_free(buf);
}

static void
test_get_store_missing_fails_silently(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	assert_int_equal(sysConfGet("k", buf), -1);
	assert_int_equal(rtConfGet("k", buf), -1);
	assert_int_equal(sysInfoGet("k", buf), -1);
	assert_buffer(buf, "");
	assert_string_equal(console_captured(), "");
	assert_false(file_exists(tu_stores.sysconf));
	assert_false(file_exists(tu_stores.rtconf));
	assert_false(file_exists(tu_stores.sysinfo));
	evbuffer_free(buf);
}

/* Documented deviation (README): a value stored without its NUL is bounded
 * by its stored size and reaches the caller terminated. */
static void
test_get_value_without_nul_is_bounded(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	tu_store_raw(tu_stores.sysconf, "k", 2, "abc", 3);
	assert_int_equal(sysConfGet("k", buf), 0);
	assert_buffer(buf, "abc\0");
	evbuffer_free(buf);
}

/* ================= set ================= */

static void
test_sysconf_set_stores_content_and_one_nul(void **state)
{
	struct evbuffer *buf = buffer_with("abc");

	(void)state;
	assert_int_equal(sysConfSet("k", buf), 0);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "k", "abc\0"));
	assert_buffer(buf, "abc");	/* the buffer is only read */
	assert_string_equal(console_captured(), "");
	evbuffer_free(buf);
}

static void
test_rtconf_set_stores_content_and_one_nul(void **state)
{
	struct evbuffer *buf = buffer_with("\"on\"");

	(void)state;
	assert_int_equal(rtConfSet("wl_radio", buf), 0);
	assert_true(TU_RECORD_IS(tu_stores.rtconf, "wl_radio", "\"on\"\0"));
	assert_false(file_exists(tu_stores.sysconf));
	evbuffer_free(buf);
}

static void
test_set_replaces_existing_record(void **state)
{
	struct evbuffer *buf = buffer_with("2");

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "1111");
	tu_store_put(tu_stores.sysconf, "other", "o");
	assert_int_equal(sysConfSet("k", buf), 0);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "k", "2\0"));
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "other", "o\0"));
	evbuffer_free(buf);
}

static void
test_set_buffer_with_nul_stores_extra_nul(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	evbuffer_add(buf, "ab\0", 3);
	assert_int_equal(sysConfSet("k", buf), 0);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "k", "ab\0\0"));
	evbuffer_free(buf);
}

static void
test_set_empty_buffer_refused(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "old");
	assert_int_equal(sysConfSet("k", buf), -1);
	assert_string_equal(console_captured(), "_confSet: Item 'k' not inserted. \n");
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "k", "old\0"));
	evbuffer_free(buf);
}

static void
test_set_store_cannot_open_fails_silently(void **state)
{
	char *path = tu_path(tu_stores.dir, "no_dir/sysconf.gdbm");
	struct evbuffer *buf = buffer_with("v");

	(void)state;
	setenv("DB_FILE", path, 1);
	assert_int_equal(sysConfSet("k", buf), -1);
	assert_string_equal(console_captured(), "");
	evbuffer_free(buf);
	free(path);
}

static void
expect_created_mode(mode_t mask, mode_t expected)
{
	struct evbuffer *buf = buffer_with("v");
	mode_t old = umask(mask);
	int ret;

	ret = sysConfSet("k", buf);
	umask(old);
	assert_int_equal(ret, 0);
	assert_int_equal(file_mode(tu_stores.sysconf), expected);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "k", "v\0"));
	evbuffer_free(buf);
}

static void
test_set_creates_missing_file_mode_0664_umask_0(void **state)
{
	(void)state;
	expect_created_mode(0, 0664);
}

static void
test_set_creates_missing_file_mode_0664_umask_022(void **state)
{
	(void)state;
	expect_created_mode(022, 0644);
}

static void
test_set_creates_missing_file_mode_0664_umask_027(void **state)
{
	(void)state;
	expect_created_mode(027, 0640);
}

static void
test_missing_db_file_gets_fail_set_creates_store(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);
	struct evbuffer *value = buffer_with("x");

	(void)state;
	assert_int_equal(sysConfGet("k", buf), -1);
	assert_int_equal(sysConfGet("other", buf), -1);
	assert_false(file_exists(tu_stores.sysconf));
	assert_int_equal(sysConfSet("k", value), 0);
	assert_true(file_exists(tu_stores.sysconf));
	assert_int_equal(sysConfGet("k", buf), 0);
	assert_buffer(buf, "x\0");
	evbuffer_free(buf);
	evbuffer_free(value);
}

/* ================= environment override ================= */

static void
test_environment_reread_on_every_call(void **state)
{
	char *other = tu_path(tu_stores.dir, "other.gdbm");
	struct evbuffer *buf = buffer_with(NULL);
	struct evbuffer *value = buffer_with("new");

	(void)state;
	tu_store_put(tu_stores.sysconf, "k", "first");
	tu_store_put(other, "k", "second");
	assert_int_equal(sysConfGet("k", buf), 0);
	setenv("DB_FILE", other, 1);
	assert_int_equal(sysConfGet("k", buf), 0);
	assert_int_equal(sysConfSet("k", value), 0);
	setenv("DB_FILE", tu_stores.sysconf, 1);
	assert_int_equal(sysConfGet("k", buf), 0);
	assert_buffer(buf, "first\0second\0first\0");
	assert_true(TU_RECORD_IS(other, "k", "new\0"));
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "k", "first\0"));
	assert_string_equal(confStorePath(CONF_SYSCONF), tu_stores.sysconf);
	evbuffer_free(buf);
	evbuffer_free(value);
	free(other);
}

static void
test_empty_environment_value_replaces_default(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	setenv("DB_FILE", "", 1);
	setenv("RT_DB_FILE", "", 1);
	setenv("INFO_DB_FILE", "", 1);
	assert_string_equal(confStorePath(CONF_SYSCONF), "");
	assert_string_equal(confStorePath(CONF_RTCONF), "");
	assert_string_equal(confStorePath(CONF_SYSINFO), "");
	assert_int_equal(sysConfGet("k", buf), -1);
	assert_int_equal(rtConfGet("k", buf), -1);
	assert_int_equal(sysInfoGet("k", buf), -1);
	evbuffer_free(buf);
}

static void
test_default_paths_when_unset(void **state)
{
	(void)state;
	unsetenv("DB_FILE");
	unsetenv("RT_DB_FILE");
	unsetenv("INFO_DB_FILE");
	/* Only the path is asked for: no store is opened. */
	assert_string_equal(confStorePath(CONF_SYSCONF), "/mnt/rwdata/sysconf.gdbm");
	assert_string_equal(confStorePath(CONF_RTCONF), "/var/run/rtconf.gdbm");
	assert_string_equal(confStorePath(CONF_SYSINFO), "/mnt/rwdata/sysinfo.gdbm");
	tu_stores_env(tu_stores.dir);
}

/* ================= copy and swap ================= */

static void
test_copy_record_one_byte_longer(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "src", "abc");
	assert_int_equal(sysConfCopy("dst", "src"), 0);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "dst", "abc\0\0"));
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "src", "abc\0"));
	assert_string_equal(console_captured(), "");
}

static void
test_copy_reader_sees_source_text(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	tu_store_put(tu_stores.sysconf, "src", "abc");
	tu_store_put(tu_stores.sysconf, "dst", "old value");
	assert_int_equal(sysConfCopy("dst", "src"), 0);
	assert_int_equal(sysConfGet("dst", buf), 0);
	assert_buffer(buf, "abc\0");
	evbuffer_free(buf);
}

static void
test_copy_missing_source_fails(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "dst", "keep");
	assert_int_equal(sysConfCopy("dst", "src"), -1);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "dst", "keep\0"));
	assert_true(TU_NO_RECORD(tu_stores.sysconf, "src"));
	assert_string_equal(console_captured(), "");
}

static void
test_swap_a_missing_a_gets_b_b_keeps_own(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "b", "bval");
	assert_int_equal(sysConfSwap("a", "b"), 0);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "a", "bval\0\0"));
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "b", "bval\0"));
	assert_string_equal(console_captured(), "_confSet: Item 'b' not inserted. \n");
}

static void
test_swap_b_missing_b_gets_a_a_keeps_own(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "a", "aval");
	assert_int_equal(sysConfSwap("a", "b"), 0);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "a", "aval\0"));
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "b", "aval\0\0"));
	assert_string_equal(console_captured(), "_confSet: Item 'a' not inserted. \n");
}

static void
test_swap_two_present_values(void **state)
{
	struct evbuffer *buf = buffer_with(NULL);

	(void)state;
	tu_store_put(tu_stores.sysconf, "a", "A");
	tu_store_put(tu_stores.sysconf, "b", "BB");
	assert_int_equal(sysConfSwap("a", "b"), 0);
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "a", "BB\0\0"));
	assert_true(TU_RECORD_IS(tu_stores.sysconf, "b", "A\0\0"));
	assert_string_equal(console_captured(), "");
	assert_int_equal(sysConfGet("a", buf), 0);
	assert_int_equal(sysConfGet("b", buf), 0);
	assert_buffer(buf, "BB\0A\0");
	evbuffer_free(buf);
}

static void
test_swap_both_missing_returns_zero(void **state)
{
	(void)state;
	tu_store_put(tu_stores.sysconf, "other", "o");
	assert_int_equal(sysConfSwap("a", "b"), 0);
	assert_true(TU_NO_RECORD(tu_stores.sysconf, "a"));
	assert_true(TU_NO_RECORD(tu_stores.sysconf, "b"));
	assert_string_equal(console_captured(),
			    "_confSet: Item 'a' not inserted. \n"
			    "_confSet: Item 'b' not inserted. \n");
}

/* ================= key attributes ================= */

static void
test_key_attr_read_only_names(void **state)
{
	(void)state;
	assert_int_equal(sysConfKeyAttrGet("product_model"), 0);
	assert_int_equal(sysConfKeyAttrGet("product_description"), 0);
}

static void
test_key_attr_other_names_writable(void **state)
{
	(void)state;
	assert_int_equal(sysConfKeyAttrGet("lan_ipaddr"), 1);
	assert_int_equal(sysConfKeyAttrGet("Product_model"), 1);
	assert_int_equal(sysConfKeyAttrGet("product_model2"), 1);
	assert_int_equal(sysConfKeyAttrGet("product_"), 1);
	assert_int_equal(sysConfKeyAttrGet(""), 1);
}

/* ================= key index (forked) ================= */

static void
child_index_key_without_nul(void *arg)
{
	(void)arg;
	tu_store_raw(tu_stores.sysconf, "nonul", 5, "\"v\"", 4);
	tu_store_put(tu_stores.sysconf, "withnul", "\"v\"");
	TU_CHECK_INT(confIndexInit(), 0);
	TU_CHECK_STR(console_captured(), "");
	TU_CHECK_INT(confVerify("nonul"), -1);
	TU_CHECK_INT(confVerify("withnul"), 0);
	TU_CHECK_INT(confVerify("nonu"), -1);
}

static void
test_index_key_without_nul_not_matched(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_key_without_nul, NULL)));
}

static void
child_index_read_only(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "product_model", "\"HX100\"");
	tu_store_put(tu_stores.sysconf, "product_description", "\"Travel router\"");
	tu_store_put(tu_stores.sysconf, "lan_ipaddr", "\"192.168.1.1\"");
	TU_CHECK_INT(confIndexInit(), 0);
	TU_CHECK_INT(confVerify("product_model"), -1);
	TU_CHECK_INT(confVerify("product_description"), -1);
	TU_CHECK_INT(confVerify("lan_ipaddr"), 0);
}

static void
test_index_product_keys_present_but_rejected(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_read_only, NULL)));
}

static void
child_index_unknown_key(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "lan_ipaddr", "\"192.168.1.1\"");
	TU_CHECK_INT(confIndexInit(), 0);
	TU_CHECK_INT(confVerify("lan_ipaddr"), 0);
	TU_CHECK_INT(confVerify("LAN_IPADDR"), -1);
	TU_CHECK_INT(confVerify("lan_ipaddr2"), -1);
	TU_CHECK_INT(confVerify("lan_ip"), -1);
	TU_CHECK_INT(confVerify(""), -1);
}

static void
test_index_unknown_key_rejected(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_unknown_key, NULL)));
}

#define MANY_KEYS 130

static void
child_index_130_keys(void *arg)
{
	char order[MANY_KEYS][16];
	GDBM_FILE db;
	datum key, next;
	int i, n = 0;

	(void)arg;
	for (i = 0; i < MANY_KEYS; i++) {
		char name[16];

		snprintf(name, sizeof(name), "key%03d", i);
		tu_store_put(tu_stores.sysconf, name, "1");
	}
	/* The store's own iteration order. */
	db = gdbm_open(tu_stores.sysconf, 0, GDBM_READER, 0, NULL);
	TU_CHECK(db != NULL);
	for (key = gdbm_firstkey(db); key.dptr != NULL; key = next) {
		TU_CHECK(n < MANY_KEYS);
		TU_CHECK(key.dsize > 0 && key.dptr[key.dsize - 1] == '\0');
		snprintf(order[n++], sizeof(order[0]), "%s", key.dptr);
		next = gdbm_nextkey(db, key);
		free(key.dptr);
	}
	gdbm_close(db);
	TU_CHECK_INT(n, MANY_KEYS);

	TU_CHECK_INT(confIndexInit(), 0);
	TU_CHECK_STR(console_captured(), "");
	for (i = 0; i < MANY_KEYS; i++) {
		if (confVerify(order[i]) != (i < 127 ? 0 : -1)) {
			fprintf(stderr, "key %d of the iteration order, %s\n", i, order[i]);
			tu_child_fail(__FILE__, __LINE__, "confVerify of that key");
		}
	}
}

static void
test_index_130_keys_first_127_in_iteration_order_writable(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_130_keys, NULL)));
}

static void
child_index_missing_store(void *arg)
{
	(void)arg;
	console_reset();
	TU_CHECK_INT(confIndexInit(), -1);
	TU_CHECK_STR(console_captured(), "Open sysconf.gdbm file failed.\n");
	TU_CHECK(!file_exists(tu_stores.sysconf));
	TU_CHECK_INT(confVerify("lan_ipaddr"), -1);
}

static void
test_index_missing_store_fails_with_console_line(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_missing_store, NULL)));
}

static void
child_index_empty_store(void *arg)
{
	GDBM_FILE db;

	(void)arg;
	db = gdbm_open(tu_stores.sysconf, 0, GDBM_WRCREAT, 0664, NULL);
	TU_CHECK(db != NULL);
	gdbm_close(db);
	TU_CHECK_INT(confIndexInit(), 0);
	TU_CHECK_STR(console_captured(), "");
	TU_CHECK_INT(confVerify("lan_ipaddr"), -1);
}

static void
test_index_empty_store_builds_empty_index(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_empty_store, NULL)));
}

static void
child_index_built_once(void *arg)
{
	GDBM_FILE db;
	datum key;

	(void)arg;
	tu_store_put(tu_stores.sysconf, "kept", "1");
	tu_store_put(tu_stores.sysconf, "removed", "1");
	TU_CHECK_INT(confIndexInit(), 0);
	tu_store_put(tu_stores.sysconf, "added", "1");
	db = gdbm_open(tu_stores.sysconf, 0, GDBM_WRITER, 0, NULL);
	TU_CHECK(db != NULL);
	key.dptr = (char *)"removed";
	key.dsize = 8;
	TU_CHECK_INT(gdbm_delete(db, key), 0);
	gdbm_close(db);
	TU_CHECK_INT(confVerify("kept"), 0);
	TU_CHECK_INT(confVerify("added"), -1);
	TU_CHECK_INT(confVerify("removed"), 0);
}

static void
test_index_not_rebuilt_after_store_changes(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_built_once, NULL)));
}

static void
child_index_not_initialised(void *arg)
{
	(void)arg;
	tu_store_put(tu_stores.sysconf, "lan_ipaddr", "1");
	TU_CHECK_INT(confVerify("lan_ipaddr"), -1);
}

static void
test_verify_before_index_built_rejects(void **state)
{
	(void)state;
	assert_true(tu_child_ok(tu_run_child(child_index_not_initialised, NULL)));
}

#define T(fn) cmocka_unit_test_setup_teardown(fn, tu_stores_setup, tu_stores_teardown)

int
main(void)
{
	const struct CMUnitTest tests[] = {
		T(test_get_appends_text_and_nul),
		T(test_get_appends_after_existing_data),
		T(test_each_get_reads_its_own_store),
		T(test_get_key_without_nul_invisible),
		T(test_get_empty_value_reads_as_missing),
		T(test_get_absent_key_fails),
		T(test_get_store_missing_fails_silently),
		T(test_get_value_without_nul_is_bounded),
		T(test_sysconf_set_stores_content_and_one_nul),
		T(test_rtconf_set_stores_content_and_one_nul),
		T(test_set_replaces_existing_record),
		T(test_set_buffer_with_nul_stores_extra_nul),
		T(test_set_empty_buffer_refused),
		T(test_set_store_cannot_open_fails_silently),
		T(test_set_creates_missing_file_mode_0664_umask_0),
		T(test_set_creates_missing_file_mode_0664_umask_022),
		T(test_set_creates_missing_file_mode_0664_umask_027),
		T(test_missing_db_file_gets_fail_set_creates_store),
		T(test_environment_reread_on_every_call),
		T(test_empty_environment_value_replaces_default),
		T(test_default_paths_when_unset),
		T(test_copy_record_one_byte_longer),
		T(test_copy_reader_sees_source_text),
		T(test_copy_missing_source_fails),
		T(test_swap_a_missing_a_gets_b_b_keeps_own),
		T(test_swap_b_missing_b_gets_a_a_keeps_own),
		T(test_swap_two_present_values),
		T(test_swap_both_missing_returns_zero),
		T(test_key_attr_read_only_names),
		T(test_key_attr_other_names_writable),
		T(test_index_key_without_nul_not_matched),
		T(test_index_product_keys_present_but_rejected),
		T(test_index_unknown_key_rejected),
		T(test_index_130_keys_first_127_in_iteration_order_writable),
		T(test_index_missing_store_fails_with_console_line),
		T(test_index_empty_store_builds_empty_index),
		T(test_index_not_rebuilt_after_store_changes),
		T(test_verify_before_index_built_rejects),
	};

	return cmocka_run_group_tests(tests, NULL, NULL);
}
