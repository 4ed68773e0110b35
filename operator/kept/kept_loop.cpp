#include "operator/kept/kept_loop.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kept_loop {

namespace {

constexpr std::size_t BUDGET = std::size_t{64} << 20;
constexpr auto PASS_TIME = std::chrono::milliseconds(1000);

using Task = std::function<void(keep::KeptSessions &)>;

class Loop {
public:
    Loop() : wake_{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)}
    {
        if (!wake_) throw std::runtime_error(std::strerror(errno));
        // Signals are for the thread that waits for connections.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        (void)::pthread_sigmask(SIG_SETMASK, &all, &before);
        std::thread([this] { run(); }).detach();
        (void)::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    void post(Task task)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        const std::uint64_t one = 1;
        // Full: it is awake.
        [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
    }

private:
    [[noreturn]] void run()
    {
        for (;;) {
            pollfd wake{wake_.get(), POLLIN, 0};
            sessions_.pass({&wake, 1}, PASS_TIME);
            if (wake.revents != 0) runTasks();
            sessions_.sweep([](const keep::KEPT_SESSION_T &) { return true; });
        }
    }

    void runTasks()
    {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = ::read(wake_.get(), &count, sizeof count);
        std::vector<Task> tasks;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            tasks.swap(tasks_);
        }
        for (const Task &task : tasks)
            task(sessions_);
    }

    UniqueFd wake_;
    keep::KeptSessions sessions_{BUDGET};
    std::mutex mutex_;
    std::vector<Task> tasks_;
};

} // namespace

void post(std::function<void(keep::KeptSessions &)> task)
{
    static Loop *const LOOP = new Loop; // its thread outlives what exit() tears down
    LOOP->post(std::move(task));
}

} // namespace kept_loop
