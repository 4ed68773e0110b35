// What a client of a session's WebSocket writes, and what a device gives as the reason of an end.
// Under test: backend/api/session_frames.cpp
#include "backend/api/session_frames.h"
#include "tests/fuzz/fuzz.h"

#include <nlohmann/json.hpp>

using namespace backend;
using nlohmann::json;

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(data, data + size);
    if (size <= CONTROL_TEXT_MAX && isEndOfSending(text))
        REQUIRE(json::parse(text) == json({{"end", "sending"}}));
    const END_FRAMES_T end = endFrames({text.c_str(), size % 2 == 0, size, 0});
    const json frame = json::parse(end.text, nullptr, false);
    REQUIRE(frame.is_object() && frame.size() == 4);
    REQUIRE(end.reason.size() <= 123);
    REQUIRE(frame.value("ended", "").starts_with(end.reason));
    REQUIRE(!json(end.reason).dump().empty()); // throws unless it is UTF-8
    REQUIRE(end.code == (size % 2 == 0 ? 1000 : 4000));
    return 0;
}
