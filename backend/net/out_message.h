// A message on its way to a device: header and payload, which leave as one WebSocket message.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace backend {

// Header bytes of a message to be sent.
struct HEADER_TEXT_T {
    std::array<char, 320>
        bytes{}; // the fixed text, two ids of ID_MAX and three numbers take 260 at most
    std::size_t size = 0;
};

struct OUT_MESSAGE_T {
    OUT_MESSAGE_T() = default;
    OUT_MESSAGE_T(const OUT_MESSAGE_T &) = delete;
    OUT_MESSAGE_T &operator=(const OUT_MESSAGE_T &) = delete;
    ~OUT_MESSAGE_T(); // overwrites a secret payload

    HEADER_TEXT_T header;
    std::vector<std::uint8_t> payload;
    std::size_t payload_size = 0; // the payload's used part: its storage is used again
    bool is_data = false;         // a session's bytes; otherwise our own answer or request
    bool is_secret = false;
};
using OutMessagePtr = std::unique_ptr<OUT_MESSAGE_T>;

} // namespace backend
