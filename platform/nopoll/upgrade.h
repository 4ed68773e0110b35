// The HTTP exchange that opens a WebSocket: the request's text, the check of the answer.
#pragma once

#include "platform/nopoll/failure.h"

#include <span>
#include <string_view>

namespace ws {

inline constexpr std::size_t MAX_UPGRADE_REQUEST = 4096;
inline constexpr std::size_t MAX_UPGRADE_ANSWER = 8192;
inline constexpr std::string_view HTTP_HEAD_END = "\r\n\r\n";

struct UPGRADE_REQUEST_T {
    const char *host;
    const char *path;
    const char *origin;
    const char *protocols; // empty for none
    const char *key;
};

// Length of the request in dst, 0 when it does not fit.
std::size_t formatUpgradeRequest(const UPGRADE_REQUEST_T &request, std::span<char> dst);

// True when the answer, without the blank line that ends it, opens the WebSocket that was asked
// for: status 101, both upgrade headers, the right accept text, no extension, and no sub-protocol
// that was not offered.
bool checkUpgradeAnswer(std::string_view text, std::string_view accept,
                        std::string_view offered_protocols, FAILURE_T &failure);

} // namespace ws
