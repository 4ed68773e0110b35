// The socket under a connection: waiting on it, and the bytes on their way to and from it.
//
// Ownership  a WIRE_T owns its descriptor and its queues.
// Limits     a queue grows to QUEUE_LIMIT and no further; it keeps what it has grown to, so
//            that a stream of messages of one size allocates nothing.
// Failure    a broken socket is marked in the record and stays open: a caller that waits on
//            the descriptor may still use it, and a number closed here could be another socket
//            by then.
#pragma once

#include "utility/handles.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace ws {

inline constexpr std::size_t QUEUE_LIMIT = std::size_t{17} * 1024 * 1024;
// What TLS takes from the socket at a time, into a buffer of its own.
inline constexpr std::size_t INPUT_SIZE = std::size_t{64} * 1024;
// Reads from the socket within one receive call. It bounds the time that a flood of control frames
// or of TLS housekeeping can hold the caller; what is left stays in the socket, where select sees
// it.
inline constexpr int READS_PER_CALL = 4;

using HeapBytes = std::unique_ptr<uint8_t, Releaser<std::free>>;

// Bytes [start, end) of data are in use. Below `headroom` nothing is ever stored.
struct BYTE_QUEUE_T {
    HeapBytes data;
    std::size_t capacity = 0;
    std::size_t headroom = 0;
    std::size_t start = 0;
    std::size_t end = 0;
};

inline std::span<uint8_t> bytesOf(BYTE_QUEUE_T &queue)
{
    if (!queue.data) return {};
    return {queue.data.get() + queue.start, queue.end - queue.start};
}
// Room for `more` bytes behind the end; false at the limit and when memory is out. Moves what is
// queued.
[[nodiscard]] bool reserveBytes(BYTE_QUEUE_T &queue, std::size_t more);
[[nodiscard]] bool appendBytes(BYTE_QUEUE_T &queue, std::span<const uint8_t> bytes);
void consumeBytes(BYTE_QUEUE_T &queue, std::size_t count);

struct WIRE_T {
    UniqueFd socket;
    BYTE_QUEUE_T tx; // as it goes to the socket
    int reads_left = 0;
    uint64_t received = 0; // bytes from the socket, in all
    bool ended_by_peer = false;
    int error = 0; // errno of the failure that broke the socket
};

int64_t monotonicMs();
// What poll reports for the descriptor, 0 once the deadline has passed. Interruptions do not end
// the wait.
int pollUntil(int fd, short events, int64_t deadline_ms);

// Sends what the socket takes now. False when it is broken.
[[nodiscard]] bool flushWire(WIRE_T &wire);
// Sends all of it by the deadline.
[[nodiscard]] bool flushWireUntil(WIRE_T &wire, int64_t deadline_ms);
// Bytes received, 0 for nothing now, -1 when the peer has ended the stream or the socket is broken.
[[nodiscard]] int receiveFromWire(WIRE_T &wire, std::span<uint8_t> dst);
// Why receiving or sending came to an end.
const char *wireFault(const WIRE_T &wire);

} // namespace ws
