/* Shared helpers of the unit tests: temporary stores, capture of standard
 * output and standard error, capture of replies, and scenarios run in a
 * forked child (the key index of the persistent store is process-wide and built once).
 *
 * None of these helpers uses cmocka: they work the same in a forked child,
 * where a cmocka assertion must not be used (it would jump back into the
 * child's copy of the test runner).  A failing system call aborts. */
#ifndef HX_TEST_TESTUTIL_H
#define HX_TEST_TESTUTIL_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

struct json_object;

/* ---- temporary directories ---- */

/* A new directory made by mkdtemp under $TMPDIR (or /tmp); malloc'd. */
char *tu_tempdir(void);
/* dir + "/" + name; malloc'd. */
char *tu_path(const char *dir, const char *name);
/* Removes the files of dir (one level) and dir itself. */
void tu_rmtree(const char *dir);

/* ---- stores ---- */

/* Points DB_FILE, RT_DB_FILE and INFO_DB_FILE at dir/sysconf.gdbm,
 * dir/rtconf.gdbm and dir/sysinfo.gdbm (the files are not created). */
void tu_stores_env(const char *dir);

/* The stores of the running test: a temporary directory of its own and
 * the paths of the three stores in it. */
struct tu_stores {
	char *dir;
	char *sysconf;		/* DB_FILE */
	char *rtconf;		/* RT_DB_FILE */
	char *sysinfo;		/* INFO_DB_FILE */
};
extern struct tu_stores tu_stores;

/* A cmocka setup and teardown (state is not used).  The setup makes
 * tu_stores's directory, points the environment at its stores
 * (tu_stores_env; the files are not created) and empties the console
 * capture; the teardown removes the directory and frees and clears the
 * paths. */
int tu_stores_setup(void **state);
int tu_stores_teardown(void **state);

/* Writes one record with gdbm directly (GDBM_WRCREAT, replace). */
void tu_store_raw(const char *path, const void *key, size_t key_size,
		  const void *value, size_t value_size);
/* Key = name + NUL, value = text + NUL. */
void tu_store_put(const char *path, const char *key, const char *value);
/* The bytes stored under key + NUL (malloc'd, size in *size), or NULL when
 * the record or the store is missing. */
char *tu_store_fetch(const char *path, const char *key, size_t *size);

/* ---- output capture (file descriptor level) ---- */

struct tu_capture {
	FILE *stream;
	int saved;
	int tmp;
};

/* Flushes stream and sends its descriptor to an unlinked temporary file. */
void tu_capture_begin(struct tu_capture *capture, FILE *stream);
/* Flushes, restores the descriptor and returns what was written (malloc'd). */
char *tu_capture_end(struct tu_capture *capture);

/* ---- reply capture ---- */

#define TU_REPLIES_MAX 4
#define TU_REPLY_SIZE 4096

struct tu_replies {
	int count;
	char text[TU_REPLIES_MAX][TU_REPLY_SIZE];
};

/* A reply function of the request layer: client must point to a struct tu_replies;
 * records json_object_to_json_string(reply). */
void tu_reply_capture(struct json_object *reply, void *client);

/* ---- forked scenarios ---- */

/* Flushes standard output and standard error, so that the child does not
 * write their buffered text a second time, then forks; fork's result. */
pid_t tu_fork(void);

/* Runs fn(arg) in a child process that exits 0 when fn returns; returns
 * the wait status (0 when the child succeeded). */
int tu_run_child(void (*fn)(void *), void *arg);
/* Describes a wait status that is not 0 on the original standard error;
 * returns 1 when status is 0. */
int tu_child_ok(int status);

/* Checks for a forked child: on failure they describe it on the original
 * standard error and end the child with exit status 1. */
#define TU_CHECK(cond) \
	((cond) ? (void)0 : tu_child_fail(__FILE__, __LINE__, #cond))
#define TU_CHECK_INT(actual, expected) \
	tu_child_int(__FILE__, __LINE__, #actual, (long)(actual), (long)(expected))
#define TU_CHECK_STR(actual, expected) \
	tu_child_str(__FILE__, __LINE__, #actual, (actual), (expected))
/* bytes is a string literal holding the exact record, NULs included. */
#define TU_CHECK_RECORD(path, key, bytes) \
	tu_child_record(__FILE__, __LINE__, (path), (key), (bytes), sizeof(bytes) - 1)
#define TU_CHECK_NO_RECORD(path, key) \
	tu_child_record(__FILE__, __LINE__, (path), (key), NULL, 0)

void tu_child_fail(const char *file, int line, const char *what)
	__attribute__((noreturn));
void tu_child_int(const char *file, int line, const char *what, long actual,
		  long expected);
void tu_child_str(const char *file, int line, const char *what,
		  const char *actual, const char *expected);
void tu_child_record(const char *file, int line, const char *path,
		     const char *key, const char *bytes, size_t size);

/* Runs fn(arg) in a child process whose standard error goes to a temporary
 * file; returns the wait status and stores what the child wrote to its
 * standard error in *err_text (malloc'd). */
int tu_run_child_stderr(void (*fn)(void *), void *arg, char **err_text);
/* 1 when text holds the glibc assertion message of expr failing in function
 * of the source file module (a file name such as "ipcimpl.c", any line):
 * ".../module:LINE: function: Assertion `expr' failed.\n"; module NULL
 * accepts any file. */
int tu_assertion_is(const char *text, const char *module, const char *function,
		    const char *expr);

/* For cmocka tests: the same record check, returning 1 when it holds (and
 * describing the difference on standard error when not). */
int tu_record_is(const char *path, const char *key, const char *bytes, size_t size);
#define TU_RECORD_IS(path, key, bytes) tu_record_is((path), (key), (bytes), sizeof(bytes) - 1)
#define TU_NO_RECORD(path, key) tu_record_is((path), (key), NULL, 0)

#endif
