/* Part 3.1: configuration database. */
#include <stdlib.h>
#include <string.h>

#include "core/tree.h"
#include <event.h>

#include "conf/confdb.h"
#include "core/console.h"

#define CONF_INDEX_SIZE 127

struct conf_index_record {
	datum key;		/* kept for the life of the process */
	datum value;		/* read at start-up, never used again */
	int attr;		/* 1 writable, 0 read-only */
	RB_ENTRY(conf_index_record) link;
};

RB_HEAD(conf_index, conf_index_record);

static struct conf_index_record conf_records[CONF_INDEX_SIZE];
static struct conf_index conf_root = RB_INITIALIZER(&conf_root);

static const char *const sysconf_key_ro[] = {
	"product_model",
	"product_description",
};

/* Byte order over the stored bytes, shorter first on a common prefix: the
 * same order as strcmp for NUL-terminated keys, and never reads past a key
 * that a script stored without its NUL. */
static int
conf_index_cmp(const struct conf_index_record *a, const struct conf_index_record *b)
{
	size_t la = (size_t)a->key.dsize, lb = (size_t)b->key.dsize;
	int r = memcmp(a->key.dptr, b->key.dptr, la < lb ? la : lb);

	if (r != 0)
		return r;
	return (la > lb) - (la < lb);
}

HX_RB_GENERATE_STATIC(conf_index, conf_index_record, link, conf_index_cmp)

const char *
confStorePath(enum conf_store store)
{
	static const char *const env[] = { "DB_FILE", "RT_DB_FILE", "INFO_DB_FILE" };
	static const char *const dflt[] = {
		"/mnt/rwdata/sysconf.gdbm",
		"/var/run/rtconf.gdbm",
		"/mnt/rwdata/sysinfo.gdbm",
	};
	const char *path = getenv(env[store]);

	return path != NULL ? path : dflt[store];
}

GDBM_FILE
confOpenReader(const char *path)
{
	return gdbm_open(path, 0, GDBM_READER | GDBM_NOMMAP, 0664, NULL);
}

GDBM_FILE
confOpenWriter(const char *path)
{
	return gdbm_open(path, 0, GDBM_WRCREAT | GDBM_NOMMAP, 0664, NULL);
}

static datum
conf_key(const char *key)
{
	datum d = { (char *)key, (int)strlen(key) + 1 };

	return d;
}

int
confGet(const char *path, const char *key, struct evbuffer *buf)
{
	GDBM_FILE db = confOpenReader(path);
	datum value;
	int ret = -1;

	if (db == NULL)
		return -1;
	value = gdbm_fetch(db, conf_key(key));
	if (value.dptr != NULL && value.dsize > 0 && value.dptr[0] != '\0') {
		/* A value stored without its NUL still reaches the caller terminated. */
		size_t len = strnlen(value.dptr, (size_t)value.dsize);

		evbuffer_add(buf, value.dptr, len);
		evbuffer_add(buf, "", 1);
		ret = 0;
	}
	free(value.dptr);
	gdbm_close(db);
	return ret;
}

/* Stores size bytes of data under key; NULL data is refused. */
static int
conf_store(const char *path, const char *key, const char *data, size_t size)
{
	GDBM_FILE db = confOpenWriter(path);
	datum value = { (char *)data, (int)size };
	int ret = 0;

	if (db == NULL)
		return -1;
	if (data == NULL || gdbm_store(db, conf_key(key), value, GDBM_REPLACE) != 0) {
		gw_console("_confSet: Item '%s' not inserted. \n", key);
		ret = -1;
	}
	gdbm_close(db);
	return ret;
}

int
confSetText(const char *path, const char *key, const char *text)
{
	return conf_store(path, key, text, text != NULL ? strlen(text) + 1 : 0);
}

/* The original stored content length + 1 bytes straight from the buffer,
 * relying on a NUL behind the content; the NUL is appended explicitly here.
 * A buffer that never held data has no data pointer at all, and the store
 * refuses it. */
int
confSet(const char *path, const char *key, struct evbuffer *buf)
{
	size_t len = EVBUFFER_LENGTH(buf);
	char *data = len > 0 ? (char *)malloc(len + 1) : NULL;
	int ret;

	if (data != NULL) {
		evbuffer_copyout(buf, data, len);
		data[len] = '\0';
	}
	ret = conf_store(path, key, data, len + 1);
	free(data);
	return ret;
}

int
sysConfGet(const char *key, struct evbuffer *buf)
{
	return confGet(confStorePath(CONF_SYSCONF), key, buf);
}

int
rtConfGet(const char *key, struct evbuffer *buf)
{
	return confGet(confStorePath(CONF_RTCONF), key, buf);
}

int
sysInfoGet(const char *key, struct evbuffer *buf)
{
	return confGet(confStorePath(CONF_SYSINFO), key, buf);
}

int
sysConfSet(const char *key, struct evbuffer *buf)
{
	return confSet(confStorePath(CONF_SYSCONF), key, buf);
}

int
rtConfSet(const char *key, struct evbuffer *buf)
{
	return confSet(confStorePath(CONF_RTCONF), key, buf);
}

int
sysConfCopy(const char *dst, const char *src)
{
	struct evbuffer *buf = evbuffer_new();
	int ret = -1;

	if (buf == NULL)
		return -1;
	if (sysConfGet(src, buf) == 0) {
		sysConfSet(dst, buf);
		ret = 0;
	}
	evbuffer_free(buf);
	return ret;
}

int
sysConfSwap(const char *a, const char *b)
{
	struct evbuffer *value_b = evbuffer_new();
	struct evbuffer *value_a = evbuffer_new();

	if (value_a != NULL && value_b != NULL) {
		sysConfGet(b, value_b);
		sysConfGet(a, value_a);
		sysConfSet(a, value_b);
		sysConfSet(b, value_a);
	}
	if (value_b != NULL)
		evbuffer_free(value_b);
	if (value_a != NULL)
		evbuffer_free(value_a);
	return 0;
}

int
sysConfKeyAttrGet(const char *key)
{
	size_t i;

	for (i = 0; i < sizeof(sysconf_key_ro) / sizeof(sysconf_key_ro[0]); i++)
		if (strcmp(key, sysconf_key_ro[i]) == 0)
			return 0;
	return 1;
}

/* attr of a key read from the store, which may lack its NUL. */
static int
conf_key_attr(datum key)
{
	char *text = strndup(key.dptr, (size_t)key.dsize);
	int attr;

	if (text == NULL)
		return 1;
	attr = sysConfKeyAttrGet(text);
	free(text);
	return attr;
}

static int
conf_index_fill(GDBM_FILE db)
{
	datum key = gdbm_firstkey(db);
	int n = 0;

	while (key.dptr != NULL && n < CONF_INDEX_SIZE) {
		struct conf_index_record *r = &conf_records[n++];

		r->key = key;
		r->value = gdbm_fetch(db, key);
		r->attr = conf_key_attr(key);
		key = gdbm_nextkey(db, key);
	}
	free(key.dptr);
	return n;
}

int
confIndexInit(void)
{
	GDBM_FILE db = confOpenReader(confStorePath(CONF_SYSCONF));
	int i, n;

	if (db == NULL) {
		gw_console("Open sysconf.gdbm file failed.\n");
		return -1;
	}
	n = conf_index_fill(db);
	gdbm_close(db);
	for (i = 0; i < n; i++) {
		if (RB_INSERT(conf_index, &conf_root, &conf_records[i]) != NULL) {
			gw_console("Insert sysconf_gdbm rbtree with the same key value.\n");
			return -1;
		}
	}
	return 0;
}

int
confVerify(const char *key)
{
	struct conf_index_record find, *r;

	find.key = conf_key(key);
	r = RB_FIND(conf_index, &conf_root, &find);
	return r != NULL && r->attr != 0 ? 0 : -1;
}
