// A carrier's socket with the frames on it: what has come in part, and what the socket has not
// taken yet.
// Failure  a broken or ended carrier is a text, which is a literal; nothing is thrown but
//          std::bad_alloc.
// Threads  each is one thread's. Nothing waits.
#pragma once

#include "keep/frame.h"
#include "utility/handles.h"

#include <cstdint>
#include <span>
#include <vector>

namespace keep {

constexpr std::size_t READ_SIZE = std::size_t{256} * 1024; // of the buffer that readings share

struct CARRIER_T {
    UniqueFd fd;
    std::vector<std::uint8_t> partial; // of a frame: its begin
    std::vector<std::uint8_t> pending; // frames for the socket, from pending_at on
    std::size_t pending_at = 0;
    bool is_greeted = false; // HELLO or WELCOME has come
};

constexpr char CARRIER_CLOSED[] = "it was closed"; // by who carries it

struct READING_T {
    std::span<const std::uint8_t> bytes; // what had come in part, and what has come now
    const char *fault = nullptr;         // the carrier is gone
};

// Reads once into `buffer`, of READ_SIZE, behind what has come in part.
READING_T readCarrier(CARRIER_T &carrier, std::span<std::uint8_t> buffer);
// Keeps what of a reading is no whole frame.
void keepPartial(CARRIER_T &carrier, std::span<const std::uint8_t> bytes);

struct FRAME_BYTES_T {
    FrameHeader header;
    std::span<const std::uint8_t> payload;
};
constexpr std::size_t FRAMES_MAX = 16;

// Sends frames, at most FRAMES_MAX; what the socket does not take is kept in `pending`. False when
// the carrier is gone.
[[nodiscard]] bool sendFrames(CARRIER_T &carrier, std::span<const FRAME_BYTES_T> frames);
[[nodiscard]] bool sendPending(CARRIER_T &carrier);

inline bool isBlocked(const CARRIER_T &carrier)
{
    return carrier.pending.size() > carrier.pending_at;
}

// Takes a whole frame off the front of `bytes`. NONE: it has not come as a whole.
enum class TAKEN { NONE, FRAME, DAMAGED };
TAKEN takeFrame(std::span<const std::uint8_t> &bytes, FRAME_T &frame,
                std::span<const std::uint8_t> &payload);

} // namespace keep
