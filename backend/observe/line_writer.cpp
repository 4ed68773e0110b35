#include "backend/observe/line_writer.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>

namespace backend {

constexpr std::size_t BATCH_MAX = std::size_t{64} * 1024;
constexpr auto TICK_TIME = std::chrono::seconds(1);
constexpr int POLL_TIME_MS = 500; // until the thread sees that it was given up

struct LINE_WRITER_T {
    LINE_WRITER_T(int to, std::size_t most, std::function<void()> each)
        : fd(to), queue_max(most), tick(std::move(each))
    {
    }
    const int fd;
    const std::size_t queue_max;
    const std::function<void()> tick;
    // The thread's.
    std::string batch;    // its memory is taken at the start: none may be left later
    bool is_torn = false; // the last line was written in part only

    std::mutex lock; // guards the rest
    std::condition_variable wake;
    std::condition_variable ended;
    std::string queue;
    bool is_stopping = false;
    bool is_ended = false;
    bool is_given_up = false;
};

static bool isGivenUp(LINE_WRITER_T &writer)
{
    const std::lock_guard guard(writer.lock);
    return writer.is_given_up;
}

// A pipe that is ready takes PIPE_BUF bytes at once, and does not mix them with those of others.
static std::size_t pieceSize(std::string_view text)
{
    if (text.size() <= PIPE_BUF) return text.size();
    const std::size_t line_end = text.rfind('\n', PIPE_BUF - 1);
    return line_end == std::string_view::npos ? std::size_t{PIPE_BUF} : line_end + 1;
}

static void writeBatch(LINE_WRITER_T &writer, std::string_view text)
{
    while (!text.empty()) {
        pollfd ready{writer.fd, POLLOUT, 0};
        const int count_ready = poll(&ready, 1, POLL_TIME_MS);
        if (isGivenUp(writer)) return;
        if (count_ready <= 0) continue;
        const ssize_t count = write(writer.fd, text.data(), pieceSize(text));
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count <= 0) return;
        const auto size = static_cast<std::size_t>(count);
        writer.is_torn = text[size - 1] != '\n';
        text.remove_prefix(size);
    }
}

// Waits for lines, a second at most. False when there will be none any more.
static bool takeBatch(LINE_WRITER_T &writer)
{
    std::string &batch = writer.batch;
    batch.clear();
    std::unique_lock guard(writer.lock);
    writer.wake.wait_for(guard, TICK_TIME,
                         [&] { return writer.is_stopping || !writer.queue.empty(); });
    if (writer.is_given_up || (writer.is_stopping && writer.queue.empty())) {
        writer.is_ended = true;
        writer.ended.notify_all();
        return false;
    }
    const std::size_t size = std::min(writer.queue.size(), BATCH_MAX);
    if (writer.is_torn && size > 0) batch.push_back('\n');
    batch.append(writer.queue, 0, size);
    writer.queue.erase(0, size);
    return true;
}

static void runWriter(LINE_WRITER_T &writer)
{
    for (;;) {
        if (writer.tick) writer.tick();
        if (!takeBatch(writer)) return;
        writeBatch(writer, writer.batch);
    }
}

LineWriterPtr startLineWriter(int fd, std::size_t queue_max, std::function<void()> tick)
{
    auto writer = std::make_shared<LINE_WRITER_T>(fd, queue_max, std::move(tick));
    writer->batch.reserve(BATCH_MAX + 1);
    sigset_t all{};
    sigset_t before{};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread([writer] { runWriter(*writer); }).detach();
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return writer;
}

bool offerLine(LINE_WRITER_T &writer, std::string_view line)
{
    const std::lock_guard guard(writer.lock);
    if (writer.is_stopping || line.size() > writer.queue_max - writer.queue.size()) return false;
    writer.queue += line;
    writer.wake.notify_one();
    return true;
}

bool stopLineWriter(LINE_WRITER_T &writer, std::chrono::milliseconds bound)
{
    std::unique_lock guard(writer.lock);
    writer.is_stopping = true;
    writer.wake.notify_one();
    const bool is_ended = writer.ended.wait_for(guard, bound, [&] { return writer.is_ended; });
    writer.is_given_up = true;
    return is_ended;
}

} // namespace backend
