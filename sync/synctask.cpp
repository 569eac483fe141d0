/* Part 7.1: sync tasks. */
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <atomic>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <event.h>
#include <json-c/json.h>

#include "conf/confdb.h"
#include "conf/confjson.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "ipc/registry.h"
#include "sync/sync.h"

#define SYNC_SCRIPT      "/etc/app/sync/gw_copy_prog.sh"
#define SYNC_PATH_MAX    1024
#define SYNC_CMD_SIZE    1024
#define SYNC_STACK_SIZE  204800
#define BATTERY_CAPACITY "/sys/class/power_supply/sp2566-0/capacity"
#define BATTERY_STATUS   "/sys/class/power_supply/sp2566-0/status"

const char *const sync_error_string[4] = {
	"sync_internal_error", "sync_task_busy", "sync_low_battery_power", "sync_no_sdcard_found",
};

struct sync_task g_synctask = { -1, NULL, NULL, {0}, 0 };

/* lock_sync is held for a task's whole life: taken (try-lock) by the
 * request thread, released by the worker.  A semaphore, because POSIX
 * leaves a mutex unlocked by another thread than its owner undefined. */
static sem_t lock_sync;
static pthread_once_t lock_sync_once = PTHREAD_ONCE_INIT;
static pthread_mutex_t cond_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t sync_end = PTHREAD_COND_INITIALIZER;
static int task_end;
static std::atomic<int> buffers_released;

static void
lock_sync_init(void)
{
	sem_init(&lock_sync, 0, 1);
}

static const char *
share_root(void)
{
	const char *top = getenv("MOUNT_TOP");

	return top != NULL ? top : "/tmp/media/share";
}

static const char *
buffer_text(struct evbuffer *buf)
{
	return (const char *)evbuffer_pullup(buf, -1);
}

/* Reads one line of at most size - 1 characters without its newline. */
static int
read_line_file(const char *path, char *buf, int size)
{
	FILE *fp = fopen(path, "r");

	if (fp == NULL) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) fopen %s error\n", __func__, __LINE__, path);
		return -1;
	}
	if (fgets(buf, size, fp) == NULL)
		buf[0] = '\0';
	fclose(fp);
	buf[strcspn(buf, "\n")] = '\0';
	return 0;
}

int
get_battery_cap(void)
{
	char buf[8];

	if (read_line_file(BATTERY_CAPACITY, buf, sizeof(buf)) != 0)
		return -1;
	return gw_atoi(buf);
}

int
get_battery_status(char *buf, int size)
{
	return read_line_file(BATTERY_STATUS, buf, size < 16 ? size : 16);
}

int
sync_battery_low(void)
{
	char status[16];

	if (get_battery_cap() > 1)
		return 0;
	return get_battery_status(status, sizeof(status)) != 0 || strcmp(status, "Charging") != 0;
}

int
sync_path_safe(const char *path)
{
	const char *p = path;
	size_t len;

	if (path == NULL)
		return 0;
	if (strpbrk(path, "$`\"\\") != NULL)
		return -1;
	while (*p != '\0') {
		len = strcspn(p, "/");
		if (len == 2 && p[0] == '.' && p[1] == '.')
			return -1;
		p += len;
		p += *p == '/';
	}
	return 0;
}

void
sync_task_init(struct sync_task *task)
{
	static int seeded;

	if (!seeded) {
		srand((unsigned int)time(NULL));
		seeded = 1;
	}
	/* Buffers that the once-only release left behind are freed here. */
	if (task->src != NULL)
		evbuffer_free(task->src);
	if (task->dst != NULL)
		evbuffer_free(task->dst);
	task->id = rand();
	task->src = evbuffer_new();
	task->dst = evbuffer_new();
	task->status.store(SYNC_CREATED);
	task->reserved = 0;
}

void
sync_task_reset(struct sync_task *task)
{
	if (buffers_released.exchange(1) != 0)
		return;
	evbuffer_free(task->src);
	evbuffer_free(task->dst);
	task->src = NULL;
	task->dst = NULL;
}

/* share root + "/" + rel (when given) + NUL into a new buffer. */
static struct evbuffer *
sync_path_build(const char *rel)
{
	struct evbuffer *buf = evbuffer_new();

	if (buf == NULL)
		return NULL;
	if (evbuffer_add_printf(buf, "%s/%s", share_root(), rel != NULL ? rel : "") < 0 ||
	    evbuffer_add(buf, "", 1) != 0) {
		evbuffer_free(buf);
		return NULL;
	}
	return buf;
}

static int
sync_dst_check(const char *dst)
{
	struct stat st;

	if (stat(dst, &st) != 0 && mkdirs(dst, 0777) != 0) {
		printf("hxsrvd: Sync ERROR: %s (line %d) mkdir for dst error: %s\n",
		       __func__, __LINE__, strerror(errno));
		return -1;
	}
	if (stat(dst, &st) != 0 || (!S_ISDIR(st.st_mode) && strlen(dst) + 1 <= SYNC_PATH_MAX)) {
		printf("hxsrvd: Sync ERROR: %s (line %d) Check destination path(%s) failed\n",
		       __func__, __LINE__, dst);
		return -1;
	}
	return 0;
}

/* 0, 1 when the source is a directory, -1 when it fails the check. */
static int
sync_src_check(const char *src)
{
	struct stat st;

	if (stat(src, &st) != 0 || strlen(src) + 1 > SYNC_PATH_MAX) {
		printf("hxsrvd: Sync ERROR: %s (line %d) Check source path(%s) failed\n",
		       __func__, __LINE__, src);
		return -1;
	}
	return S_ISDIR(st.st_mode);
}

struct sync_job {
	char command[SYNC_CMD_SIZE];
};

static void
sync_result_apply(void)
{
	struct evbuffer *buf = evbuffer_new();
	struct json_object *value;
	int result, expected = SYNC_RUNNING;

	if (buf == NULL || rtConfGet("sync_result", buf) != 0) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) rtConfGet error for sync_result\n",
		       __func__, __LINE__);
	} else if ((value = json_tokener_parse(buffer_text(buf))) == NULL) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) token parse error for sync_result\n",
		       __func__, __LINE__);
	} else {
		result = gw_atoi(json_object_get_string(value));
		json_object_put(value);
		printf("hxsrvd: Sync DEBUG: %s (line %d) sync_result = %d\n", __func__, __LINE__, result);
		if (result == 1) {
			g_synctask.status.store(SYNC_DONE_1);
		} else if (result == 0) {
			g_synctask.status.store(SYNC_DONE);
		} else if (result == -1) {
			/* below 3 is 1 or 2: the only states a running worker can see */
			if (!g_synctask.status.compare_exchange_strong(expected, SYNC_DONE)) {
				expected = SYNC_CREATED;
				g_synctask.status.compare_exchange_strong(expected, SYNC_DONE);
			}
		}
	}
	if (buf != NULL)
		evbuffer_free(buf);
}

static void *
thread_dosync(void *arg)
{
	struct sync_job *job = static_cast<struct sync_job *>(arg);
	int created = SYNC_CREATED;

	printf("hxsrvd: Sync DEBUG: %s (line %d) sync command: %s\n", __func__, __LINE__, job->command);
	confSetf(CONF_RTCONF, "sync_result", "-1");
	confSetf(CONF_RTCONF, "sync_progress", "0");
	/* a task cancelled before this point stays cancelled */
	g_synctask.status.compare_exchange_strong(created, SYNC_RUNNING);
	if (system(job->command) == -1)
		printf("hxsrvd: Sync DEBUG: %s (line %d) system error\n", __func__, __LINE__);
	pthread_mutex_lock(&cond_lock);
	while (task_end == 0)
		pthread_cond_wait(&sync_end, &cond_lock);
	task_end = 0;
	pthread_mutex_unlock(&cond_lock);
	sync_result_apply();
	sync_task_reset(&g_synctask);
	free(job);
	sem_post(&lock_sync);
	return NULL;
}

static int
sync_thread_start(struct sync_job *job)
{
	pthread_attr_t attr;
	pthread_t thread;
	int rc;

	if (pthread_attr_init(&attr) != 0)
		return -1;
	pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
	pthread_attr_setstacksize(&attr, SYNC_STACK_SIZE);
	rc = pthread_create(&thread, &attr, thread_dosync, job);
	pthread_attr_destroy(&attr);
	return rc == 0 ? 0 : -1;
}

/* The worker gets its command built here, so it never reads the record's
 * buffers, which a cancel may release while it starts. */
static struct sync_job *
sync_job_new(int type, const char *src, const char *dst)
{
	struct sync_job *job = (struct sync_job *)calloc(1, sizeof(*job));
	int len;

	if (job == NULL)
		return NULL;
	len = snprintf(job->command, sizeof(job->command), "\"%s\" %d \"%s\" \"%s\" &",
		       SYNC_SCRIPT, type, src, dst);
	if (len < 0 || (size_t)len >= sizeof(job->command)) {
		free(job);
		return NULL;
	}
	return job;
}

static int
sync_task_prepare(int type, const char *src, const char *dst)
{
	struct evbuffer *sbuf = NULL, *dbuf = NULL;
	struct sync_job *job = NULL;
	int isdir;

	if (sync_path_safe(src) != 0 || sync_path_safe(dst) != 0)
		goto fail;
	sbuf = sync_path_build(src);
	dbuf = sync_path_build(dst);
	if (sbuf == NULL || dbuf == NULL)
		goto fail;
	printf("hxsrvd: Sync DEBUG: %s (line %d) new task src:%s, dst:%s\n",
	       __func__, __LINE__, buffer_text(sbuf), buffer_text(dbuf));
	if (sync_dst_check(buffer_text(dbuf)) != 0 || (isdir = sync_src_check(buffer_text(sbuf))) < 0)
		goto fail;
	job = sync_job_new(type, buffer_text(sbuf), buffer_text(dbuf));
	if (job == NULL)
		goto fail;
	if (isdir && src != NULL && src[0] != '\0' && src[strlen(src) - 1] != '/')
		evbuffer_add(sbuf, "/", 1);
	sync_task_init(&g_synctask);
	evbuffer_add_buffer(g_synctask.src, sbuf);
	evbuffer_add_buffer(g_synctask.dst, dbuf);
	evbuffer_free(sbuf);
	evbuffer_free(dbuf);
	printf("hxsrvd: Sync DEBUG: %s (line %d) New sync task created(id %d)\n",
	       __func__, __LINE__, g_synctask.id);
	if (sync_thread_start(job) != 0) {
		free(job);
		return -1;
	}
	return 0;
fail:
	if (sbuf != NULL)
		evbuffer_free(sbuf);
	if (dbuf != NULL)
		evbuffer_free(dbuf);
	return -1;
}

int
sync_task_new(int type, const char *src, const char *dst)
{
	if (dst == NULL) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) dst is NULL\n", __func__, __LINE__);
		return -1;
	}
	pthread_once(&lock_sync_once, lock_sync_init);
	if (sem_trywait(&lock_sync) != 0) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) Busy, another sync task is running.\n",
		       __func__, __LINE__);
		return -2;
	}
	if (sync_task_prepare(type, src, dst) != 0) {
		sem_post(&lock_sync);
		return -1;
	}
	return 0;
}

int
start_sync(const char *dst)
{
	return sync_task_new(1, NULL, dst);
}

int
sync_task_delete(void)
{
	static const char *const pidfiles[] = {
		"/var/run/gw_copy_prog.sh.pid", "/var/run/gw_copy.sh.pid",
	};
	char cmd[128];
	int status = g_synctask.status.load();
	size_t i;

	if (status != SYNC_CREATED && status != SYNC_RUNNING)
		return 0;
	for (i = 0; i < sizeof(pidfiles) / sizeof(pidfiles[0]); i++) {
		if (access(pidfiles[i], F_OK) != 0)
			continue;
		gwutil_snprintf(cmd, sizeof(cmd), "kill `cat %s` > /dev/null 2>&1", pidfiles[i]);
		do_system(cmd);
	}
	do_system("/usr/bin/killall -9 mcp > /dev/null 2>&1");
	do_system("/usr/bin/killall -9 find > /dev/null 2>&1");
	sync_task_reset(&g_synctask);
	g_synctask.status.store(SYNC_CANCELLED);
	return 0;
}

int
sync_task_get_id(void)
{
	return g_synctask.id;
}

int
sync_task_get_status(void)
{
	return g_synctask.status.load();
}

int
sync_task_get_progress(void)
{
	struct json_object *value;
	int progress;

	if (confGetJson(CONF_RTCONF, "sync_progress", &value) != 0)
		return 0;
	progress = gw_atoi(json_object_get_string(value));
	json_object_put(value);
	return progress;
}

static const char *
member_text(struct json_object *value, const char *key)
{
	struct json_object *member;

	if (!json_object_object_get_ex(value, key, &member) ||
	    !json_object_is_type(member, json_type_string))
		return NULL;
	return json_object_get_string(member);
}

const char *
_revalidate_createSyncTask(struct json_object *value, struct json_object *reply_arguments,
			   void *deferred)
{
	const char *src, *dst;

	(void)reply_arguments;
	(void)deferred;
	if (value == NULL) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	if (!json_object_is_type(value, json_type_object)) {
		puts("Unexpected json type of input parameters.");
		return "invalid arguments";
	}
	if (sync_battery_low())
		return sync_error_string[SYNC_ERR_LOW_BATTERY];
	src = member_text(value, "src");
	dst = member_text(value, "dst");
	if (src == NULL || src[0] == '\0' || dst == NULL || dst[0] == '\0')
		return "invalid arguments";
	switch (sync_task_new(0, src, dst)) {
	case -1:
		return sync_error_string[SYNC_ERR_INTERNAL];
	case -2:
		return sync_error_string[SYNC_ERR_BUSY];
	default:
		return NULL;
	}
}

const char *
_revalidate_cancelSyncTask(struct json_object *value, struct json_object *reply_arguments,
			   void *deferred)
{
	(void)reply_arguments;
	(void)deferred;
	if (value == NULL) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	sync_task_delete();
	return NULL;
}

const char *
_revalidate_syncSignal(struct json_object *value, struct json_object *reply_arguments,
		       void *deferred)
{
	struct json_object *action;
	const char *error = ipc_target_check(value, "invalid arguments");

	(void)reply_arguments;
	(void)deferred;
	if (error != NULL)
		return error;
	if (!json_object_object_get_ex(value, "action", &action))
		return "invalid arguments";
	if (!json_object_is_type(action, json_type_string) ||
	    strcmp(json_object_get_string(action), "stop") != 0)
		return "internal error";
	pthread_mutex_lock(&cond_lock);
	task_end = 1;
	pthread_cond_signal(&sync_end);
	pthread_mutex_unlock(&cond_lock);
	return NULL;
}

static struct json_object *
sync_task_object(void)
{
	struct json_object *task = json_object_new_object();
	char text[16];

	if (task == NULL)
		return NULL;
	gwutil_snprintf(text, sizeof(text), "%d", sync_task_get_id());
	info_set_string(task, "id", text);
	gwutil_snprintf(text, sizeof(text), "%d", sync_task_get_progress());
	info_set_string(task, "prog", text);
	gwutil_snprintf(text, sizeof(text), "%d", sync_task_get_status());
	info_set_string(task, "status", text);
	return task;
}

/* s_synctasklist and backup_stat */
const char *
_info_getSyncTaskList(struct json_object *name, struct json_object *infos, void *context)
{
	struct json_object *list, *task;

	(void)context;
	if (info_args_missing(name, infos))
		return "invalid arguments";
	list = json_object_new_array();
	task = sync_task_object();
	if (list == NULL || task == NULL) {
		json_object_put(list);
		json_object_put(task);
		return "internal error";
	}
	json_object_array_add(list, task);
	json_object_object_add(infos, json_object_get_string(name), list);
	return NULL;
}
