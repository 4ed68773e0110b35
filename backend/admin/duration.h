// Times as the administrator writes them: "90s", "15m", "8h", "2d".
#pragma once

#include <cstdint>
#include <string_view>

namespace backend {

// In seconds, up to ten years; 0 may stand alone. Throws std::invalid_argument.
std::int64_t parseDuration(std::string_view text);

} // namespace backend
