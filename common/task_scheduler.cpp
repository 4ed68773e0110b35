#include "common/task_scheduler.h"

#include "common/bus_names.h"
#include "common/log.h"
#include "utility/alternate_stack.h"
#include "utility/bus_handles.h"
#include "utility/mutex_lock.h"
#include "utility/text.h"
#include "utility/thread_handle.h"

#include <cstring>
#include <memory>
#include <new>
#include <pthread.h>
#include <string_view>
#include <sys/time.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace {

constexpr char SYS_TASK_NAME[] = "sys_default_task";
constexpr int SYS_TASK_INTERVAL_S = 2;
constexpr useconds_t PASS_PERIOD_US = 300'000;
constexpr useconds_t START_POLL_US = 1000;
constexpr int START_POLLS = 1000;

// List and lock are usable at all times, so that a call before init or after release finds an empty
// list instead of a null link or a destroyed lock.
struct DELAY_WORKER_T {
    int initialised = 0;                // for the thread that starts and releases the worker
    DBusConnection *bus_conn = nullptr; // owned; the worker thread's, between init and release
    LIST_LINK_T task_list{&task_list, &task_list}; // owns its tasks
    pthread_mutex_t list_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    int task_count = 0;
    THREAD_HANDLE_T worker_thread = {};
};

constinit DELAY_WORKER_T g_delay_worker;

static_assert(std::is_standard_layout_v<TASK_NODE_T>);

std::int64_t wall_clock_s()
{
    timeval now{};
    (void)gettimeofday(&now, nullptr); // fails for a bad pointer only
    return now.tv_sec;
}

TASK_NODE_T *task_of(LIST_LINK_T *link)
{
    return container_of(link, TASK_NODE_T, list_link);
}

bool is_name_too_long(const char *name)
{
    return ::strnlen(name, TASK_NAME_SIZE) >= TASK_NAME_SIZE;
}

// Under the list lock.
TASK_NODE_T *find_task(const char *name)
{
    LIST_LINK_T *head = &g_delay_worker.task_list;
    for (LIST_LINK_T *link = head->next; link != head; link = link->next) {
        if (std::strcmp(task_of(link)->task_name, name) == 0) return task_of(link);
    }
    return nullptr;
}

int _addNodeToList(LIST_LINK_T *list, TASK_NODE_T *task)
{
    if (list == nullptr || task == nullptr) {
        RA_ERROR("invalid params");
        return -1;
    }
    RA_INFO("add node(%s) to list", task->task_name);
    list_add_tail(&task->list_link, list);
    g_delay_worker.task_count += 1;
    return 0;
}

int _removeNodeFromList(LIST_LINK_T *list, TASK_NODE_T *task)
{
    if (list == nullptr || task == nullptr) {
        RA_ERROR("invalid params");
        return -1;
    }
    RA_INFO("del node(%s) from list", task->task_name);
    list_del(&task->list_link);
    g_delay_worker.task_count -= 1;
    return 0;
}

int _freeTaskNode(TASK_NODE_T *task)
{
    if (task == nullptr) {
        RA_ERROR("invalid params");
        return -1;
    }
    delete task;
    return 0;
}

// 1 when the error was set; it is free again afterwards.
int check_and_abort(DBusError *error)
{
    if (!dbus_error_is_set(error)) return 0;
    RA_WARN("DBus error:%s!", error->message);
    dbus_error_free(error);
    return 1;
}

int createDbusConnection(DELAY_WORKER_T *worker)
{
    if (worker->bus_conn != nullptr && dbus_connection_get_is_connected(worker->bus_conn)) return 0;
    BusError error;
    DBusConnectionPtr conn{dbus_connection_open_private(BUS_ADDRESS, error)};
    if (check_and_abort(error) != 0) {
        RA_WARN("connect dbus error!");
        return -1;
    }
    if (conn == nullptr) {
        RA_WARN("conn is NULL!");
        return -1;
    }
    bound_bus_input(conn.get());
    dbus_bus_register(conn.get(), error);
    if (check_and_abort(error) != 0) {
        conn.reset();
        RA_WARN("bus register error!");
        return -1;
    }
    // A lost bus must not end the process.
    dbus_connection_set_exit_on_disconnect(conn.get(), FALSE);
    const DBusConnectionPtr old{std::exchange(worker->bus_conn, conn.release())};
    return 0;
}

// Keeps the worker's connection alive. A connection notices that the bus is gone only when it does
// I/O, and nothing else reads what arrives on it (late answers, the bus's own signals).
int sysDefaultTask(TASK_NODE_T * /*task*/, void *arg, DBusConnection *conn)
{
    if (conn != nullptr) {
        (void)dbus_connection_read_write(conn, 0); // the connected test follows
        while (const DBusMessagePtr message{dbus_connection_pop_message(conn)}) {
        }
    }
    return createDbusConnection(static_cast<DELAY_WORKER_T *>(arg));
}

bool is_over(const TASK_NODE_T *task)
{
    if (task->mode == TASK_MODE_PERIODIC) return task->repeat_count == 0;
    if (task->mode != TASK_MODE_UNTIL_SUCCESS) return false;
    return task->last_result == 0 || task->repeat_count == 0;
}

void run_task(TASK_NODE_T *task, std::int64_t now, DBusConnection *conn)
{
    task->last_result = task->task_func(task, task->task_arg, conn);
    if (task->repeat_count > 0) task->repeat_count -= 1;
    task->next_run_time = now + task->interval;
}

void run_pass(DELAY_WORKER_T *worker)
{
    const MutexLock lock{g_delay_worker.list_lock};
    const std::int64_t now = wall_clock_s();
    LIST_LINK_T *head = &worker->task_list;
    LIST_LINK_T *next = nullptr;
    for (LIST_LINK_T *link = head->next; link != head; link = next) {
        next = link->next;
        TASK_NODE_T *task = task_of(link);
        if (is_over(task)) continue;
        const auto due = static_cast<std::uint64_t>(task->next_run_time);
        if (static_cast<std::uint64_t>(now) < due) continue;
        run_task(task, now, worker->bus_conn);
    }
}

void *workerLoopThread(void *arg)
{
    auto *worker = static_cast<DELAY_WORKER_T *>(arg);
    std::atomic<std::int32_t> &run_state = worker->worker_thread.run_state;
    std::int32_t expected = THREAD_STATE_STOPPED;
    // A stop that came before the thread ran must not be overwritten.
    if (!run_state.compare_exchange_strong(expected, THREAD_STATE_RUNNING)) {
        run_state.store(THREAD_STATE_STOPPED);
        return nullptr;
    }
    use_alternate_signal_stack();
    RA_INFO("workerLoopThread start!");
    while (run_state.load() == THREAD_STATE_RUNNING) {
        (void)::usleep(PASS_PERIOD_US); // a signal only brings the next pass forward
        run_pass(worker);
    }
    RA_WARN("workerLoopThread exit!");
    run_state.store(THREAD_STATE_STOPPED);
    return nullptr;
}

// A release right after init would otherwise find the state 0 of a thread that is yet to start.
void wait_for_start(const THREAD_HANDLE_T &thread)
{
    for (int i = 0; i < START_POLLS && thread.run_state.load() == THREAD_STATE_STOPPED; ++i) {
        (void)::usleep(START_POLL_US);
    }
}

} // namespace

int initDelayWorker()
{
    DELAY_WORKER_T *worker = &g_delay_worker;
    if (worker->initialised != 0) return 0;
    if (createDetachedThread(&worker->worker_thread, workerLoopThread, worker) != 0) {
        (void)stopDetachedThread(&worker->worker_thread); // it never ran
        RA_ERROR("create monitor thread error!");
        return -1;
    }
    wait_for_start(worker->worker_thread);
    {
        // The worker reads the connection under the lock.
        const MutexLock lock{g_delay_worker.list_lock};
        (void)createDbusConnection(worker); // the default task retries
    }
    if (addOneTask(SYS_TASK_NAME, TASK_MODE_PERIODIC, 0, SYS_TASK_INTERVAL_S, -1, sysDefaultTask,
                   worker) != 0) {
        RA_ERROR("create default task error!");
        return -1;
    }
    worker->initialised = 1;
    return 0;
}

int addOneTask(const char *name, int mode, int delay, int interval, int count, TASK_FUNC_T func,
               void *arg)
{
    if (name == nullptr) return -1;
    if (is_name_too_long(name)) {
        RA_ERROR("task name exceed the limit!");
        return -1;
    }
    if (func == nullptr) {
        RA_ERROR("task function is NULL");
        return -1;
    }
    const std::int64_t now = wall_clock_s();
    // Held over search and insert, so that a name is never listed twice.
    const MutexLock lock{g_delay_worker.list_lock};
    std::unique_ptr<TASK_NODE_T> added;
    TASK_NODE_T *task = find_task(name);
    if (task == nullptr) {
        added.reset(new (std::nothrow) TASK_NODE_T());
        if (added == nullptr) {
            RA_ERROR("malloc TASK_NODE_T failed");
            return TASK_NO_MEMORY;
        }
        task = added.get();
        copy_text(task->task_name, name);
    }
    // An existing task keeps its name bytes, which are equal: name may be its own task_name.
    task->next_run_time = now + delay;
    task->task_func = func;
    task->interval = static_cast<std::uint32_t>(interval);
    task->task_arg = arg;
    task->repeat_count = count;
    task->last_result = -1;
    task->mode = mode;
    if (added == nullptr) return 0;
    if (_addNodeToList(&g_delay_worker.task_list, task) != 0) {
        RA_ERROR("add node to list failed! taskname:%s", name);
        return -1;
    }
    (void)added.release(); // the list owns it
    return 0;
}

int delOneTask(const char *name)
{
    if (name == nullptr) return -1;
    if (is_name_too_long(name)) {
        RA_ERROR("task name exceed the limit!");
        return -1;
    }
    const MutexLock lock{g_delay_worker.list_lock};
    TASK_NODE_T *task = find_task(name);
    if (task == nullptr) return 0;
    (void)_removeNodeFromList(&g_delay_worker.task_list, task); // fails for null only
    return _freeTaskNode(task);
}

int getOneTaskResult(const char *name)
{
    if (name == nullptr) return -1;
    const MutexLock lock{g_delay_worker.list_lock};
    const TASK_NODE_T *task = find_task(name);
    return task != nullptr ? task->last_result : -1;
}

int releaseDelayWorker()
{
    DELAY_WORKER_T *worker = &g_delay_worker;
    if (worker->initialised == 0) return 0;
    if (stopDetachedThread(&worker->worker_thread) != 0) {
        RA_ERROR("delet worker loop thread error!");
        return -1;
    }
    DBusConnectionPtr{std::exchange(worker->bus_conn, nullptr)}.reset();
    const MutexLock lock{g_delay_worker.list_lock};
    while (worker->task_list.next != &worker->task_list) {
        TASK_NODE_T *task = task_of(worker->task_list.next);
        (void)_removeNodeFromList(&worker->task_list, task); // fails for null only
        (void)_freeTaskNode(task);
    }
    worker->initialised = 0;
    return 0;
}
