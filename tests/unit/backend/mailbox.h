// The io thread of a test: runs what the store posts when the test waits for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

struct MAILBOX_T {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<std::function<void()>> posted;

    std::function<void(std::function<void()>)> poster()
    {
        return [this](std::function<void()> function) {
            const std::lock_guard guard(mutex);
            posted.push_back(std::move(function));
            arrived.notify_one();
        };
    }

    // False: it has not become true within ten seconds.
    bool runUntil(const std::function<bool()> &is_true)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!is_true()) {
            std::unique_lock guard(mutex);
            if (!arrived.wait_until(guard, deadline, [this] { return !posted.empty(); }))
                return false;
            const std::function<void()> next = std::move(posted.front());
            posted.pop_front();
            guard.unlock();
            next();
        }
        return true;
    }
};
