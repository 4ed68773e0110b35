#include "backend/api/session_frames.h"

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

constexpr std::uint16_t CLOSE_WHOLE = 1000;
constexpr std::uint16_t CLOSE_NOT_WHOLE = 4000; // RFC 6455 leaves 4000 to 4999 to applications
constexpr std::size_t CLOSE_REASON_MAX = 123;

bool isEndOfSending(std::string_view text)
{
    const json message = json::parse(text, nullptr, false);
    return message.is_object() && message.size() == 1 && message.value("end", json()) == "sending";
}

// text: UTF-8.
static std::string cutText(std::string text, std::size_t size)
{
    if (text.size() <= size) return text;
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xc0U) == 0x80U)
        size--;
    text.resize(size);
    return text;
}

END_FRAMES_T endFrames(const SESSION_END_T &end)
{
    // A reason may hold what a device sends.
    json frame = {{"ended", end.reason},
                  {"whole", end.is_whole},
                  {"bytes_up", end.bytes_up},
                  {"bytes_down", end.bytes_down}};
    if (end.is_final) frame["final"] = true;
    const std::string text = frame.dump(-1, ' ', false, json::error_handler_t::replace);
    return {text, end.is_whole ? CLOSE_WHOLE : CLOSE_NOT_WHOLE,
            cutText(json::parse(text).value("ended", ""), CLOSE_REASON_MAX)};
}

} // namespace backend
