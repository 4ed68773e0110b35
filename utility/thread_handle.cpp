#include "utility/thread_handle.h"

#include <type_traits>
#include <unistd.h>

static_assert(std::is_standard_layout_v<THREAD_HANDLE_T>);
static_assert(std::atomic<std::int32_t>::is_always_lock_free);
static_assert(sizeof(std::atomic<std::int32_t>) == sizeof(std::int32_t));

namespace {

constexpr int STOP_WAITS = 50;
constexpr useconds_t STOP_WAIT_US = 100'000;

} // namespace

int createDetachedThread(THREAD_HANDLE_T *handle, THREAD_BODY_FUNC_T body, void *arg)
{
    if (handle->run_state.load() != THREAD_STATE_STOPPED) return -1;
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes); error != 0) return error;
    int result = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (result == 0) result = pthread_create(&handle->thread_id, &attributes, body, arg);
    (void)pthread_attr_destroy(&attributes); // never fails on an initialised object
    return result;
}

int stopDetachedThread(THREAD_HANDLE_T *handle)
{
    // A plain store could overwrite the 0 of a body that ends at this moment, and nothing would
    // ever clear the 2 again.
    std::int32_t state = handle->run_state.load();
    while (state != THREAD_STATE_STOPPED &&
           !handle->run_state.compare_exchange_weak(state, THREAD_STATE_STOPPING)) {
    }
    for (int i = 0; i < STOP_WAITS && state != THREAD_STATE_STOPPED; ++i) {
        (void)::usleep(STOP_WAIT_US); // cut short by a signal it is only a shorter wait
        state = handle->run_state.load();
    }
    return state == THREAD_STATE_STOPPED ? 0 : 1;
}
