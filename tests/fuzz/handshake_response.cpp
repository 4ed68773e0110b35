// The payload of the back end's answer to the handshake.
// Under test: src/handshake_request.cpp(HandShakeResponse) utility/json_scanner.cpp
#include "src/handshake_request.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view payload = viewOf(data, size);
    const auto text = terminatedCopy(payload);
    constexpr std::int32_t UNTOUCHED = -77; // no run of digits gives it
    std::int32_t code = UNTOUCHED;
    const int result =
        parseProxyProtocolHandShakeResponse(text.get(), static_cast<std::int32_t>(size), &code);
    REQUIRE((result == 0) == (code != UNTOUCHED));
    if (result == 0) REQUIRE(payload.find("\"code") != std::string_view::npos);
    return 0;
}
