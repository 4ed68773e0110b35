// Points in time as files and answers have them: RFC 3339 in UTC, "2027-03-01T00:00:00Z".
// Threads  no state.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace backend {

// Seconds since the epoch, 1970 to 9999; nothing for what is no such time, or in another zone. A
// fraction of a second is cut off.
std::optional<std::int64_t> parseUtcTime(std::string_view text);
std::string utcTimeText(std::int64_t seconds);

} // namespace backend
