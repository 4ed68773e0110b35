// A detached thread and its run state.
//
// Protocol  the handle starts at 0; the body sets THREAD_STATE_RUNNING as its first action and
//           loops while it is set; stopDetachedThread sets THREAD_STATE_STOPPING; the body then
//           leaves its loop and sets THREAD_STATE_STOPPED as its last action. The thread is
//           never joined.
// Threads   run_state is shared between the stopper and the body; thread_id is the creator's.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

enum THREAD_STATE : std::int32_t {
    THREAD_STATE_STOPPED = 0,
    THREAD_STATE_RUNNING = 1,
    THREAD_STATE_STOPPING = 2,
};

struct THREAD_HANDLE_T {
    pthread_t thread_id;
    std::atomic<std::int32_t> run_state;
};

using THREAD_BODY_FUNC_T = void *(*)(void *);

// -1 when run_state is not 0, else the result of pthread_create (0 or an error number). Nothing is
// logged.
[[nodiscard]] int createDetachedThread(THREAD_HANDLE_T *handle, THREAD_BODY_FUNC_T body, void *arg);

// Asks the thread to stop and waits at most 5 s. 0 when it is (or was) stopped, 1 when it still
// runs.
[[nodiscard]] int stopDetachedThread(THREAD_HANDLE_T *handle);
