// Sync tasks.  The request thread checks a new task's paths and starts a
// detached worker that runs the copy script in the background and waits
// for the script's "sync_signal" "stop"; the worker then reads the script's
// result and frees the place for the next task.
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <semaphore>

#include "conf/store.h"
#include "core/fmt.h"
#include "core/util.h"
#include "ipc/info_parse.h"
#include "ipc/target.h"
#include "sync/sync.h"

using hx::sync::Status;
namespace conf = hx::conf;

sync_task g_synctask;

// Held for a task's whole life: taken without waiting by the request
// thread, released by the worker.  A semaphore, because a mutex may only
// be unlocked by the thread that locked it.
static std::binary_semaphore lock_sync{1};

namespace {

// The script's end: "stop" sets task_end and wakes the worker.
struct SyncEnd {
	std::mutex cond_lock;
	std::condition_variable sync_end;
	bool task_end = false;	// guarded by cond_lock
};

// Never destroyed: a worker may still wait when the daemon exits, and a
// condition variable destroyed under a waiter blocks the exit.
SyncEnd &ending = *new SyncEnd;

constexpr const char *sync_script = "/etc/app/sync/gw_copy_prog.sh";
constexpr size_t path_max = 1024;	// a path with its NUL, and the command
constexpr size_t worker_stack = 204800;
constexpr const char *battery_capacity = "/sys/class/power_supply/sp2566-0/capacity";
constexpr const char *battery_status = "/sys/class/power_supply/sp2566-0/status";

// lock_sync as the request thread takes it: given back when the task does
// not start, kept when the worker takes it over.
class TaskLock {
public:
	TaskLock() : held_(lock_sync.try_acquire()) {}
	~TaskLock()
	{
		if (held_)
			lock_sync.release();
	}
	TaskLock(const TaskLock &) = delete;
	TaskLock &operator=(const TaskLock &) = delete;
	explicit operator bool() const { return held_; }
	void hand_over() { held_ = false; }

private:
	bool held_;
};

class ThreadAttr {
public:
	ThreadAttr() : ok_(pthread_attr_init(&attr_) == 0) {}
	~ThreadAttr()
	{
		if (ok_)
			pthread_attr_destroy(&attr_);
	}
	ThreadAttr(const ThreadAttr &) = delete;
	ThreadAttr &operator=(const ThreadAttr &) = delete;
	pthread_attr_t *get() { return ok_ ? &attr_ : nullptr; }

private:
	pthread_attr_t attr_;
	bool ok_;
};

std::string path_of(const char *rel)
{
	return hx::format("%s/%s", hx::sync::share_root(), rel != nullptr ? rel : "");
}

}  // namespace

// The gauge's files are read as one line into a fixed buffer of Size
// bytes, without its newline.
template <int Size>
static std::optional<std::string> read_line_file(const char *path)
{
	hx::FilePtr file = hx::open_file(path, "r");
	if (!file) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) fopen %s error\n", __func__, __LINE__, path);
		return std::nullopt;
	}
	std::array<char, Size> line{};
	if (fgets(line.data(), Size, file.get()) == nullptr)
		line[0] = '\0';
	line[strcspn(line.data(), "\n")] = '\0';
	return std::string(line.data());
}

int get_battery_cap()
{
	std::optional<std::string> line = read_line_file<8>(battery_capacity);
	return line ? gw_atoi(line->c_str()) : -1;
}

std::optional<std::string> get_battery_status()
{
	return read_line_file<16>(battery_status);
}

namespace hx::sync {

const char *error_text(Error error)
{
	return sync_error_string[static_cast<size_t>(error)];
}

const char *task_result(int result)
{
	if (result == -1)
		return error_text(Error::internal);
	return result == -2 ? error_text(Error::busy) : nullptr;
}

bool battery_low()
{
	if (get_battery_cap() > 1)
		return false;
	std::optional<std::string> status = get_battery_status();
	return !status || *status != "Charging";
}

const char *share_root()
{
	const char *top = getenv("MOUNT_TOP");
	return top != nullptr ? top : "/tmp/media/share";
}

bool path_safe(const char *path)
{
	if (path == nullptr)
		return true;
	std::string_view rest(path);
	if (rest.find_first_of("$`\"\\") != std::string_view::npos)
		return false;
	for (;;) {
		size_t end = rest.find('/');
		if (rest.substr(0, end) == "..")
			return false;
		if (end == std::string_view::npos)
			return true;
		rest.remove_prefix(end + 1);
	}
}

const char *member_text(json_object *object, const char *key)
{
	json_object *member = json::member(object, key);
	return json::is(member, json_type_string) ? json::text(member) : nullptr;
}

}  // namespace hx::sync

void sync_task_init(sync_task &task)
{
	static bool seeded = false;
	if (!seeded) {
		srand(static_cast<unsigned int>(time(nullptr)));
		seeded = true;
	}
	task.id = rand();
	task.src.clear();
	task.dst.clear();
	task.status.store(Status::created);
	task.reserved = 0;
}

// Only the first release ever frees the paths; later ones do nothing, so a
// cancel and the worker never both touch them.
void sync_task_reset(sync_task &task)
{
	static std::atomic<bool> released{false};
	if (released.exchange(true))
		return;
	std::string().swap(task.src);
	std::string().swap(task.dst);
}

static void sync_result_apply()
{
	tl::expected<hx::json::Ptr, conf::Error> value = conf::json(conf::Store::rtconf, "sync_result");
	if (!value) {
		printf(value.error() == conf::Error::missing
			       ? "hxsrvd: Sync DEBUG: %s (line %d) rtConfGet error for sync_result\n"
			       : "hxsrvd: Sync DEBUG: %s (line %d) token parse error for sync_result\n",
		       __func__, __LINE__);
		return;
	}
	int result = gw_atoi(hx::json::text(value->get()));
	printf("hxsrvd: Sync DEBUG: %s (line %d) sync_result = %d\n", __func__, __LINE__, result);
	if (result == 1) {
		g_synctask.status.store(Status::done_failed);
	} else if (result == 0) {
		g_synctask.status.store(Status::done);
	} else if (result == -1) {
		// only from created or running: a cancel meanwhile makes the
		// exchange fail, and a cancelled task stays cancelled
		Status now = g_synctask.status.load();
		if (now < Status::done)
			g_synctask.status.compare_exchange_strong(now, Status::done);
	}
}

static void wait_for_end()
{
	std::unique_lock lock(ending.cond_lock);
	ending.sync_end.wait(lock, [] { return ending.task_end; });
	ending.task_end = false;
}

static void *thread_dosync(void *arg)
{
	std::unique_ptr<std::string> command(static_cast<std::string *>(arg));
	try {
		printf("hxsrvd: Sync DEBUG: %s (line %d) sync command: %s\n", __func__, __LINE__,
		       command->c_str());
		conf::set(conf::Store::rtconf, "sync_result", "-1");
		conf::set(conf::Store::rtconf, "sync_progress", "0");
		// a task cancelled before this point stays cancelled
		Status created = Status::created;
		g_synctask.status.compare_exchange_strong(created, Status::running);
		if (system(command->c_str()) == -1)
			printf("hxsrvd: Sync DEBUG: %s (line %d) system error\n", __func__, __LINE__);
		wait_for_end();
		sync_result_apply();
	} catch (const std::bad_alloc &) {
		printf("hxsrvd: Sync ERROR: %s (line %d) out of memory\n", __func__, __LINE__);
	}
	sync_task_reset(g_synctask);
	lock_sync.release();
	return nullptr;
}

// The worker gets its command whole, so it never reads the record, which a
// cancel may release while it starts.
static bool start_worker(std::unique_ptr<std::string> command)
{
	ThreadAttr attr;
	pthread_t thread;
	if (attr.get() == nullptr ||
	    pthread_attr_setdetachstate(attr.get(), PTHREAD_CREATE_DETACHED) != 0 ||
	    pthread_attr_setstacksize(attr.get(), worker_stack) != 0 ||
	    pthread_create(&thread, attr.get(), thread_dosync, command.get()) != 0)
		return false;
	(void)command.release();	// the worker's own now
	return true;
}

static bool sync_dst_check(const std::string &dst)
{
	struct stat st;
	if (stat(dst.c_str(), &st) != 0 && mkdirs(dst.c_str(), 0777) != 0) {
		printf("hxsrvd: Sync ERROR: %s (line %d) mkdir for dst error: %s\n", __func__, __LINE__,
		       strerror(errno));
		return false;
	}
	// a non-directory with a longer path passes, as it always has
	if (stat(dst.c_str(), &st) != 0 || (!S_ISDIR(st.st_mode) && dst.size() + 1 <= path_max)) {
		printf("hxsrvd: Sync ERROR: %s (line %d) Check destination path(%s) failed\n", __func__,
		       __LINE__, dst.c_str());
		return false;
	}
	return true;
}

static bool sync_src_check(const std::string &src)
{
	struct stat st;
	if (stat(src.c_str(), &st) != 0 || src.size() + 1 > path_max) {
		printf("hxsrvd: Sync ERROR: %s (line %d) Check source path(%s) failed\n", __func__,
		       __LINE__, src.c_str());
		return false;
	}
	return true;
}

static bool sync_task_prepare(int type, const char *src, const char *dst)
{
	if (!hx::sync::path_safe(src) || !hx::sync::path_safe(dst))
		return false;
	std::string source = path_of(src), destination = path_of(dst);
	printf("hxsrvd: Sync DEBUG: %s (line %d) new task src:%s, dst:%s\n", __func__, __LINE__,
	       source.c_str(), destination.c_str());
	if (!sync_dst_check(destination) || !sync_src_check(source))
		return false;
	auto command = std::make_unique<std::string>(hx::format(
		"\"%s\" %d \"%s\" \"%s\" &", sync_script, type, source.c_str(), destination.c_str()));
	if (command->size() >= path_max)
		return false;
	sync_task_init(g_synctask);
	g_synctask.src = std::move(source);
	g_synctask.dst = std::move(destination);
	printf("hxsrvd: Sync DEBUG: %s (line %d) New sync task created(id %d)\n", __func__, __LINE__,
	       g_synctask.id);
	return start_worker(std::move(command));
}

int sync_task_new(int type, const char *src, const char *dst)
{
	if (dst == nullptr) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) dst is NULL\n", __func__, __LINE__);
		return -1;
	}
	TaskLock lock;
	if (!lock) {
		printf("hxsrvd: Sync DEBUG: %s (line %d) Busy, another sync task is running.\n", __func__,
		       __LINE__);
		return -2;
	}
	if (!sync_task_prepare(type, src, dst))
		return -1;
	lock.hand_over();
	return 0;
}

int start_sync(const char *dst)
{
	return sync_task_new(1, nullptr, dst);
}

int sync_task_delete()
{
	Status status = g_synctask.status.load();
	if (status != Status::created && status != Status::running)
		return 0;
	for (const char *pidfile : {"/var/run/gw_copy_prog.sh.pid", "/var/run/gw_copy.sh.pid"}) {
		if (access(pidfile, F_OK) == 0)
			do_system(hx::format("kill `cat %s` > /dev/null 2>&1", pidfile).c_str());
	}
	do_system("/usr/bin/killall -9 mcp > /dev/null 2>&1");
	do_system("/usr/bin/killall -9 find > /dev/null 2>&1");
	sync_task_reset(g_synctask);
	g_synctask.status.store(Status::cancelled);
	return 0;
}

int sync_task_get_id()
{
	return g_synctask.id;
}

int sync_task_get_status()
{
	return static_cast<int>(g_synctask.status.load());
}

int sync_task_get_progress()
{
	tl::expected<std::string, conf::Error> progress = conf::text(conf::Store::rtconf, "sync_progress");
	return progress ? gw_atoi(progress->c_str()) : 0;
}

const char *_revalidate_createSyncTask(json_object *value, json_object *, void *)
{
	if (value == nullptr) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	if (!hx::json::is(value, json_type_object)) {
		puts("Unexpected json type of input parameters.");
		return "invalid arguments";
	}
	if (hx::sync::battery_low())
		return hx::sync::error_text(hx::sync::Error::low_battery);
	const char *src = hx::sync::member_text(value, "src");
	const char *dst = hx::sync::member_text(value, "dst");
	if (src == nullptr || src[0] == '\0' || dst == nullptr || dst[0] == '\0')
		return "invalid arguments";
	return hx::sync::task_result(sync_task_new(0, src, dst));
}

const char *_revalidate_cancelSyncTask(json_object *value, json_object *, void *)
{
	if (value == nullptr) {
		puts("Input parameter is NULL.");
		return "invalid arguments";
	}
	sync_task_delete();
	return nullptr;
}

namespace {

const char *wake_worker(json_object *)
{
	std::lock_guard lock(ending.cond_lock);
	ending.task_end = true;
	ending.sync_end.notify_one();
	return nullptr;
}

constexpr hx::ipc::Action signal_actions[] = {{"stop", wake_worker}};

}  // namespace

// An object without "action" is invalid; any other action than "stop",
// a non-string one included, fails.
const char *_revalidate_syncSignal(json_object *value, json_object *, void *)
{
	if (hx::json::is(value, json_type_object) &&
	    !json_object_object_get_ex(value, "action", nullptr))
		return "invalid arguments";
	return hx::ipc::run_target(value, {signal_actions, "invalid arguments", "internal error"});
}

// s_synctasklist and backup_stat
const char *_info_getSyncTaskList(json_object *name, json_object *infos, void *)
{
	if (info_args_missing(name, infos))
		return "invalid arguments";
	hx::json::Ptr list(json_object_new_array()), task(json_object_new_object());
	if (!list || !task)
		return "internal error";
	hx::json::add_string(task.get(), "id", hx::format("%d", sync_task_get_id()));
	hx::json::add_string(task.get(), "prog", hx::format("%d", sync_task_get_progress()));
	hx::json::add_string(task.get(), "status", hx::format("%d", sync_task_get_status()));
	json_object_array_add(list.get(), task.release());
	hx::json::add(infos, hx::json::text(name), std::move(list));
	return nullptr;
}
