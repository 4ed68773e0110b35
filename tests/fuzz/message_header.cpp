// The header of a message from the back end, as the receive buffer holds it.
// Under test: src/remote_access_proxy_protocol_packet.cpp(Header|take) utility/text.cpp
#include "src/remote_access_proxy_protocol_packet.h"
#include "tests/fuzz/fuzz.h"
#include "utility/data_buffer.h"

namespace {

// What was read, written again by the daemon's own builder, reads the same: a text that fits into a
// JSON string of the daemon does not change.
void requireRoundTrip(const PROXY_HEADER_T &header)
{
    const std::string_view texts[] = {header.msg_id, header.token};
    for (const std::string_view text : texts)
        if (text.find_first_of("\"}") != std::string_view::npos) return;
    if (header.msg_type < 0 || header.payload_len < 0) return; // a sign is skipped

    char text[HEADER_BUFFER_SIZE];
    const int length = spliceProxyProtocolHeader(text, header.msg_type, header.payload_len,
                                                 header.msg_id, header.token);
    REQUIRE(length > 0 && length < HEADER_BUFFER_SIZE - 1);
    PROXY_HEADER_T again{};
    REQUIRE(parseProxyProtocolHeader(text, length, &again) == 0);
    REQUIRE(again.msg_type == header.msg_type && again.payload_len == header.payload_len);
    REQUIRE(std::string_view{again.msg_id} == texts[0]);
    REQUIRE(std::string_view{again.token} == texts[1]);
    REQUIRE(again.header_len == length);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size > MESSAGE_BUFFER_SIZE) return 0;
    const auto length = static_cast<std::int32_t>(size);
    DATA_BUFFER_T buffer{};
    REQUIRE(initDataBuffer(&buffer, std::max(length, 1)) == 0);
    REQUIRE(appendDataBuffer(&buffer, data, length) == 0);
    PROXY_HEADER_T header{};
    if (getRemoteAccessProtocolHeader(&buffer, &header) == 0) {
        REQUIRE(header.header_len > HEADER_SEPARATOR_LEN);
        REQUIRE(header.header_len <= length + HEADER_SEPARATOR_LEN);
        REQUIRE(isTerminated(header.msg_id) && isTerminated(header.token));
        requireRoundTrip(header);
    }
    REQUIRE(getBufferDataLength(&buffer) == length);
    freeDataBuffer(&buffer);
    return 0;
}
