// Task scheduler: one worker thread that runs named tasks on a timetable of whole seconds of the
// wall clock.
//
// Bus      the worker owns a private bus connection and hands it to every task function (null while
//          there is none); a lost connection is replaced within about 2 seconds.
// Threads  task functions run on the worker with the list lock held: addOneTask, delOneTask and
//          getOneTaskResult on other threads wait for them. The lock is recursive, so a task
//          function may add tasks and read results; it must not delete any. Tasks are added by one
//          thread at a time.
// Limits   TASK_NAME_SIZE - 1 characters of a name. The list is walked linearly.
// Failure  logged here; results as given below.
#pragma once

#include "utility/list.h"

#include <cstddef>
#include <cstdint>

struct DBusConnection;
struct TASK_NODE_T;

// 0 = success. The arguments are the task itself, its task_arg and the worker's connection.
using TASK_FUNC_T = int (*)(TASK_NODE_T *task, void *arg, DBusConnection *conn);

enum TASK_MODE : std::int32_t {
    TASK_MODE_PERIODIC = 0,      // runs while repeat_count is not 0
    TASK_MODE_UNTIL_SUCCESS = 1, // the same, until it returns 0
};

constexpr std::size_t TASK_NAME_SIZE = 64;
constexpr int TASK_NO_MEMORY = 1; // addOneTask

struct TASK_NODE_T {
    char task_name[TASK_NAME_SIZE];
    std::int64_t next_run_time; // seconds since the epoch
    TASK_FUNC_T task_func;
    std::uint32_t interval;    // s
    void *task_arg;            // borrowed
    std::int32_t repeat_count; // runs left; negative = no limit
    std::int32_t mode;         // TASK_MODE
    std::int32_t last_result;  // -1 before the first run
    LIST_LINK_T list_link;
};

// 0 when the worker runs (or already ran), -1 on failure.
[[nodiscard]] int initDelayWorker();
// Lists a task, or re-arms the one of that name in place. delay and interval in seconds, count -1 =
// no limit. 0; -1 for a bad argument; TASK_NO_MEMORY.
[[nodiscard]] int addOneTask(const char *name, int mode, int delay, int interval, int count,
                             TASK_FUNC_T func, void *arg);
// 0 when no task has the name any more, -1 for a bad name.
int delOneTask(const char *name);
// What the task's function returned at its last run; -1 before that and for an unknown name.
int getOneTaskResult(const char *name);
// 0 when the worker is stopped and everything is released, -1 when its thread did not stop within 5
// s.
int releaseDelayWorker();
