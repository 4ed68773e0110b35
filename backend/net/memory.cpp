#include "backend/net/memory.h"

#include "backend/observe/log.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <malloc.h>
#include <new>

namespace backend {

constexpr auto TIDY_PERIOD = std::chrono::seconds(5);
constexpr std::size_t UNUSED_MAX = std::size_t{4} * 1024 * 1024; // of the heap
constexpr std::size_t RESERVE_SIZE = std::size_t{1024} * 1024;
constexpr int MMAP_MIN = 256 * 1024; // larger pieces go back to the system at once

static std::atomic<void *> g_reserve{nullptr};
static std::atomic<bool> g_was_short{false};

static constinit LINE_LIMIT_T g_failed_handlers{"handlers that failed"};

// The allocation is tried again after it.
static void releaseReserve()
{
    void *const reserve = g_reserve.exchange(nullptr);
    if (reserve == nullptr) throw std::bad_alloc();
    free(reserve); // NOLINT: taken below
    g_was_short = true;
}

bool wasMemoryShort() noexcept
{
    return g_was_short.exchange(false);
}

bool takeReserve() noexcept
{
    if (g_reserve.load() == nullptr) free(g_reserve.exchange(malloc(RESERVE_SIZE))); // NOLINT
    return g_reserve.load() != nullptr;
}

void prepareMemory()
{
    // A fixed threshold: the library's own one grows with the sizes it sees, and what is below it
    // is hardly ever given back.
    (void)mallopt(M_MMAP_THRESHOLD, MMAP_MIN);
    (void)mallopt(M_TRIM_THRESHOLD, static_cast<int>(UNUSED_MAX));
    (void)takeReserve();
    std::set_new_handler(releaseReserve);
}

MemoryTidy::MemoryTidy(boost::asio::io_context &io) : timer_(io)
{
    wait();
}

void MemoryTidy::stop()
{
    timer_.cancel();
}

void MemoryTidy::wait()
{
    timer_.expires_after(TIDY_PERIOD);
    timer_.async_wait([this](const boost::system::error_code &error) {
        if (error) return;
        wait();
        (void)takeReserve();
        const struct mallinfo2 heap = mallinfo2();
        if (heap.fordblks > UNUSED_MAX && heap.fordblks > heap.arena / 8) (void)malloc_trim(0);
    });
}

void runHandlers(boost::asio::io_context &io)
{
    for (;;) {
        try {
            io.run();
            return;
        } catch (const std::exception &fault) {
            logLimited(g_failed_handlers, LOG_LEVEL::WARNING, "a handler failed: %s", fault.what());
        }
    }
}

} // namespace backend
