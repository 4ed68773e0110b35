// The payloads of the back end's two requests: a new session, an account check.
// Under test: src/request_payload.cpp utility/text.cpp(parse|copy)
#include "src/request_payload.h"

#include "tests/fuzz/fuzz.h"

namespace {

// A text that was taken is in the payload.
template <std::size_t N> bool isPartOf(std::string_view payload, const char (&field)[N])
{
    return isTerminated(field) && field[0] != '\0' && payload.find(field) != std::string_view::npos;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view payload = viewOf(data, size);
    const auto text = terminatedCopy(payload);
    const auto length = static_cast<std::int32_t>(size);

    NEW_SESSION_REQ_T request{};
    parseProxyProtocolNewSessionPayload(text.get(), length, &request);
    const auto holds = [&](const auto &field, std::string_view fallback) {
        return isPartOf(payload, field) || field == fallback;
    };
    REQUIRE(holds(request.service_type, "SSH"));
    REQUIRE(holds(request.service_name, "ssh_localhost"));
    REQUIRE(holds(request.service_ip, "127.0.0.1"));

    VERIFY_ACCOUNT_T account{};
    if (parseProxyProtocolVerifyAccount(text.get(), length, &account) == 0) {
        REQUIRE(isPartOf(payload, account.username));
        REQUIRE(isPartOf(payload, account.password));
    }
    return 0;
}
