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

static constinit LINE_LIMIT_T g_failed_handlers{"handlers that failed"};

static void releaseReserve()
{
    free(g_reserve.exchange(nullptr));
    throw std::bad_alloc();
}

static void takeReserve()
{
    if (g_reserve.load() != nullptr) return;
    free(g_reserve.exchange(malloc(RESERVE_SIZE))); // NOLINT: owned until memory runs out
}

void prepareMemory()
{
    // A fixed threshold: the library's own one grows with the sizes it sees, and what is below it
    // is hardly ever given back.
    (void)mallopt(M_MMAP_THRESHOLD, MMAP_MIN);
    (void)mallopt(M_TRIM_THRESHOLD, static_cast<int>(UNUSED_MAX));
    takeReserve();
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
        takeReserve();
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
            try {
                logLimited(g_failed_handlers, LOG_LEVEL::WARNING, "a handler failed: %s",
                           fault.what());
            } catch (const std::exception &) { // no memory for the line either
                continue;
            }
        }
    }
}

} // namespace backend
