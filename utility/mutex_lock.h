// Holds a mutex from here to the end of the scope. For the mutexes of plain records, which stay
// pthread's own: std::lock_guard takes only the C++ library's.
#pragma once

#include <pthread.h>

class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t &mutex) noexcept : mutex_{mutex}
    {
        // Fails only for misuse: no mutex there, or one that this thread holds already.
        (void)::pthread_mutex_lock(&mutex_);
    }
    ~MutexLock()
    {
        (void)::pthread_mutex_unlock(&mutex_);
    }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    pthread_mutex_t &mutex_;
};
