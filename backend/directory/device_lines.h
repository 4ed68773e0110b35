// How many lines of the log and of the audit one device may cause: whoever has its secret can come
// and go a thousand times a second, and must not use up what others have.
// Limits  LINES_BURST lines at once and LINES_PER_MINUTE for good, of each kind and device. What is
//         left out is counted, and told in front of the device's next line, when it has been quiet
//         for some minutes, or at the end. Kept of devices that came lately only.
// Threads the thread of the io_context.
#pragma once

#include "backend/device_key.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <map>

namespace backend {

constexpr double LINES_BURST = 20;
constexpr double LINES_PER_MINUTE = 6;

// Apart from each other: a stranger can have a handshake refused in a device's name, and must not
// hide its visits.
enum class DEVICE_LINE { VISIT, REFUSAL, DUPLICATE };

struct DEVICE_BUDGET_T {
    double used = 0; // lines, less what has come back
    std::chrono::steady_clock::time_point counted_at;
    std::uint64_t left_out = 0;
};

struct DEVICE_LINES_T {
    std::map<DEVICE_KEY_T, std::array<DEVICE_BUDGET_T, 3>> devices;
    std::chrono::steady_clock::time_point swept_at;
};

// For a registered device. False: its next line of this kind is to be left out, and is counted.
bool lineIsAllowed(DEVICE_LINES_T &lines, const DEVICE_KEY_T &device, DEVICE_LINE kind);

// What is still to be told of lines left out.
void tellAllLeftOut(DEVICE_LINES_T &lines);

} // namespace backend
