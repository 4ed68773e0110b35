#include "src/remote_access_proxy_protocol_packet.h"

#include "common/log.h"
#include "utility/data_buffer.h"
#include "utility/json_scanner.h"
#include "utility/message_id.h"
#include "utility/text.h"

#include <cinttypes>
#include <ctime>

namespace {

constexpr char HEADER_FORMAT[] = "{\"msg_type\": %d,\"payload_len\": %d,\"msg_id\": "
                                 "\"%s\",\"timestamp\":%" PRId64 ",\"token\":\"%s\"}\r\n\r\n";
constexpr char RESPONSE_FORMAT[] = "{\"code\": %d, \"message\": \"%s\"}\r\n\r\n%s";

// The formatter's limit stays one byte below the buffer, so that a built text always leaves a spare
// NUL behind it.
std::span<char> belowLast(std::span<char> dst)
{
    return dst.empty() ? dst : dst.first(dst.size() - 1);
}

// A numeric field is converted from the value's text whatever its JSON type, so a quoted number
// counts too.
bool takeNumber(std::string_view span, const char *key, std::int32_t *field)
{
    const JSON_VALUE_T value = json_lookup(span, key);
    if (value.text.data() == nullptr) return false;
    *field = parse_int32(value.text);
    return true;
}

template <std::size_t N> void takeText(std::string_view span, const char *key, char (&field)[N])
{
    const JSON_VALUE_T value = json_lookup(span, key);
    if (value.text.data() != nullptr) copy_text(field, value.text);
}

// Fills the record from the span "{" to "}". False when a mandatory field is missing.
bool takeFields(std::string_view span, PROXY_HEADER_T *header)
{
    if (!takeNumber(span, "msg_type", &header->msg_type)) return false;
    (void)takeNumber(span, "service_type", &header->service_type);
    if (!takeNumber(span, "payload_len", &header->payload_len)) return false;
    takeText(span, "msg_id", header->msg_id);
    const JSON_VALUE_T timestamp = json_lookup(span, "timestamp");
    if (timestamp.text.data() != nullptr) header->timestamp = parse_clamped32(timestamp.text);
    takeText(span, "token", header->token);
    header->header_len = static_cast<std::int32_t>(span.size()) + HEADER_SEPARATOR_LEN;
    return true;
}

int failToParse(const char *text)
{
    RA_WARN_FOR("parseProxyProtocolHeader", "header json formate error:  %s ", text);
    return -1;
}

int failToGet(const char *text)
{
    RA_WARN_FOR("getRemoteAccessProtocolHeader", "parse proxy header failed: %s", text);
    return -1;
}

} // namespace

int spliceProxyProtocolHeader(std::span<char> dst, int msg_type, std::int32_t payload_len,
                              const char *msg_id, const char *token)
{
    if (dst.empty()) return 0;
    const char *const id = msg_id != nullptr ? msg_id : generateMsgId();
    const char *const session = token != nullptr ? token : "";
    dst.back() = '\0';
    return format_text(belowLast(dst), HEADER_FORMAT, msg_type, payload_len, id,
                       static_cast<std::int64_t>(std::time(nullptr)), session);
}

int spliceProxyProtocolResponsePayload(std::span<char> dst, int code, const char *second_part,
                                       const char *message)
{
    if (dst.empty()) return 0;
    dst.back() = '\0';
    return format_text(belowLast(dst), RESPONSE_FORMAT, code, message != nullptr ? message : "null",
                       second_part != nullptr ? second_part : "null");
}

int parseProxyProtocolHeader(const char *text, std::int32_t length, PROXY_HEADER_T *header)
{
    if (text != nullptr && header != nullptr) {
        const std::string_view message{text, length > 0 ? static_cast<std::size_t>(length) : 0};
        const std::string_view span = message.substr(0, message.find('}') + 1);
        const bool is_text = span.find('\0') == std::string_view::npos; // a NUL ends the text
        if (span.starts_with('{') && is_text && takeFields(span, header)) return 0;
    }
    return failToParse(text != nullptr ? text : "");
}

int getRemoteAccessProtocolHeader(const DATA_BUFFER_T *buffer, PROXY_HEADER_T *header)
{
    const char *const text = getBufferReadPointer(buffer);
    if (parseProxyProtocolHeader(text, getBufferDataLength(buffer), header) != 0)
        return failToGet(text);
    return 0;
}

int refuseRemoteAccessProtocolHeader(const DATA_BUFFER_T *buffer)
{
    const char *const text = getBufferReadPointer(buffer);
    (void)failToParse(text);
    return failToGet(text);
}
