// The text frames of a session's WebSocket.
// Threads  no shared state.
#pragma once

#include "backend/sessions/session_client.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace backend {

constexpr std::size_t CONTROL_TEXT_MAX = 256; // bytes of a client's text message

// Whether it is {"end":"sending"}, in any way to write that; there is no other message yet.
bool isEndOfSending(std::string_view text);

// Where a session has ended: what is said in the text frame, and in the close frame after it.
struct END_FRAMES_T {
    std::string text;
    std::uint16_t code = 0;
    std::string reason; // whole characters of UTF-8, 123 bytes at most
};
END_FRAMES_T endFrames(const SESSION_END_T &end);

} // namespace backend
