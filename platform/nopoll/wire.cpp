#include "platform/nopoll/wire.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>

namespace ws {

bool reserveBytes(BYTE_QUEUE_T &queue, std::size_t more)
{
    if (queue.data && queue.capacity - queue.end >= more) return true;
    const std::size_t used = queue.end - queue.start;
    if (more > QUEUE_LIMIT || queue.headroom + used + more > QUEUE_LIMIT) return false;
    const std::size_t needed = queue.headroom + used + more;
    if (queue.data && used > 0)
        std::memmove(queue.data.get() + queue.headroom, queue.data.get() + queue.start, used);
    queue.start = queue.headroom;
    queue.end = queue.headroom + used;
    if (needed <= queue.capacity) return true;

    const std::size_t capacity = std::max(needed, std::min(2 * queue.capacity, QUEUE_LIMIT));
    auto *grown = static_cast<uint8_t *>(std::realloc(queue.data.get(), capacity));
    if (!grown) return false;
    (void)queue.data.release(); // realloc has taken the old block
    queue.data.reset(grown);
    queue.capacity = capacity;
    return true;
}

bool appendBytes(BYTE_QUEUE_T &queue, std::span<const uint8_t> bytes)
{
    if (!reserveBytes(queue, bytes.size())) return false;
    if (!bytes.empty()) std::memcpy(queue.data.get() + queue.end, bytes.data(), bytes.size());
    queue.end += bytes.size();
    return true;
}

void consumeBytes(BYTE_QUEUE_T &queue, std::size_t count)
{
    queue.start += count;
    if (queue.start == queue.end) queue.start = queue.end = queue.headroom;
}

int64_t monotonicMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int pollUntil(int fd, short events, int64_t deadline_ms)
{
    for (;;) {
        const int64_t left = deadline_ms - monotonicMs();
        if (left <= 0) return 0;
        pollfd entry{fd, events, 0};
        const int ready = poll(&entry, 1, static_cast<int>(std::min<int64_t>(left, INT_MAX)));
        if (ready > 0) return entry.revents;
        if (ready < 0 && errno != EINTR) return POLLERR; // the next call gives the reason
    }
}

bool flushWire(WIRE_T &wire)
{
    while (!bytesOf(wire.tx).empty()) {
        const auto bytes = bytesOf(wire.tx);
        const ssize_t sent =
            send(wire.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            consumeBytes(wire.tx, static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            return true;
        } else if (errno != EINTR) {
            wire.error = errno;
            return false;
        }
    }
    return true;
}

bool flushWireUntil(WIRE_T &wire, int64_t deadline_ms)
{
    while (flushWire(wire)) {
        if (bytesOf(wire.tx).empty()) return true;
        if (pollUntil(wire.socket.get(), POLLOUT, deadline_ms) == 0) {
            wire.error = ETIMEDOUT;
            return false;
        }
    }
    return false;
}

int receiveFromWire(WIRE_T &wire, std::span<uint8_t> dst)
{
    if (wire.reads_left <= 0) return 0;
    --wire.reads_left;
    ssize_t got;
    do {
        got = recv(wire.socket.get(), dst.data(), dst.size(), MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        wire.received += static_cast<uint64_t>(got);
        return static_cast<int>(got);
    }
    if (got < 0 && errno == EAGAIN) return 0;
    wire.ended_by_peer = got == 0;
    wire.error = got == 0 ? 0 : errno;
    return -1;
}

const char *wireFault(const WIRE_T &wire)
{
    if (wire.ended_by_peer) return "the server ended the TCP connection";
    const char *text = strerrordesc_np(wire.error);
    return text ? text : "unknown error";
}

} // namespace ws
