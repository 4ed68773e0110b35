// One end of a kept session as bytes: what has been received, what the other end has acknowledged,
// and what both may still send. Nothing here knows a socket or a clock's time.
// Positions count the bytes of a stream from its begin; the end counts as one more, so that it is
// acknowledged and sent again as bytes are.
// Failure  a frame that must not come is a FAULT; the carrier is then worthless. std::bad_alloc.
// Threads  each is one thread's.
#pragma once

#include "keep/byte_store.h"
#include "keep/frame.h"

#include <cstdint>
#include <span>

namespace keep {

struct KEPT_STREAM_T {
    // To the other end
    ByteStore outgoing;          // begins at what is acknowledged
    bool has_end = false;        // nothing will be added to outgoing
    bool is_end_taken = false;   // the end is acknowledged, too
    std::uint64_t sent = 0;      // on this carrier, or acknowledged
    std::uint64_t most_sent = 0; // on any
    std::uint64_t limit = INITIAL_WINDOW;

    // From the other end
    ByteStore incoming; // received, and not taken from here
    bool has_peer_end = false;
    bool is_peer_end_passed = false; // all of it, and the end, have left here: only then it counts
    std::uint32_t window = INITIAL_WINDOW;   // wanted
    std::uint64_t promised = INITIAL_WINDOW; // the other end may send up to here
    std::uint64_t told = 0;                  // the last acknowledgement that was sent
    bool is_window_short = false;            // the other end says so
};

// A carrier's first frame from the other end: what it has received counts as sent, and the rest is
// sent again. False when that cannot be.
[[nodiscard]] bool resumeStream(KEPT_STREAM_T &stream, const FRAME_T &first);
// The carrier is gone: nothing is known of what is not acknowledged.
void loseCarrier(KEPT_STREAM_T &stream);

// What every frame tells. False: it must not come.
[[nodiscard]] bool takeAcknowledgement(KEPT_STREAM_T &stream, const FRAME_T &frame);
// Whether nothing is missing in front of the frame.
[[nodiscard]] bool isNext(const KEPT_STREAM_T &stream, const FRAME_T &frame);
// Whether a DATA frame, a next one, may come; its payload then has to go into `incoming`.
[[nodiscard]] bool mayTakeData(const KEPT_STREAM_T &stream, const FRAME_T &frame);
[[nodiscard]] bool takeEnd(KEPT_STREAM_T &stream, const FRAME_T &frame);

// Received so far; the end counts when everything in front of it has left here.
std::uint64_t received(const KEPT_STREAM_T &stream);
// Bytes that are there and that the other end takes.
std::uint64_t sendable(const KEPT_STREAM_T &stream);
std::uint64_t unsent(const KEPT_STREAM_T &stream);
bool isEndDue(const KEPT_STREAM_T &stream);
// The other end owes an acknowledgement or a window.
bool isWaiting(const KEPT_STREAM_T &stream);
// Both streams have arrived, with their ends.
bool isWhole(const KEPT_STREAM_T &stream);

// A frame of this end with what it tells about the other stream. It is taken as sent.
FRAME_T makeFrame(KEPT_STREAM_T &stream, FRAME kind);
// A DATA frame of what comes next, at most `most` bytes of payload, which stay in `outgoing`. Only
// when something is sendable.
FRAME_T makeData(KEPT_STREAM_T &stream, std::size_t most, std::span<const std::uint8_t> &payload);
FRAME_T makeEnd(KEPT_STREAM_T &stream);

// How far the window that could be told goes beyond the one that has been.
std::uint64_t untoldWindow(const KEPT_STREAM_T &stream);

} // namespace keep
