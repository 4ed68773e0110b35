#include "src/remote_access_proxy_protocol_packet.h"

#include "common/log.h"
#include "utility/data_buffer.h"
#include "utility/json_scanner.h"
#include "utility/message_id.h"
#include "utility/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstring>
#include <ctime>

namespace {

constexpr char HEADER_FORMAT[] = "{\"msg_type\": %d,\"payload_len\": %d,\"msg_id\": "
                                 "\"%s\",\"timestamp\":%" PRId64 ",\"token\":\"%s\"}\r\n\r\n";
constexpr char RESPONSE_FORMAT[] = "{\"code\": %d, \"message\": \"%s\"}\r\n\r\n%s";

// The texts of a format around its conversions, each of which ends with its letter.
template <std::size_t N> consteval std::array<std::string_view, N> textsOf(std::string_view format)
{
    std::array<std::string_view, N> texts;
    for (std::string_view &text : texts) {
        text = format.substr(0, format.find('%'));
        format.remove_prefix(std::min(format.find_first_of("ds", text.size()), format.size() - 1) +
                             1);
    }
    return texts;
}
constexpr auto HEADER_TEXTS = textsOf<6>(HEADER_FORMAT);
static_assert(HEADER_TEXTS.back() == "\"}\r\n\r\n");

// A number in decimal.
struct DIGITS_T {
    char bytes[20]{};
    std::size_t length;

    explicit DIGITS_T(std::int64_t number) noexcept
        : length{static_cast<std::size_t>(
              std::to_chars(std::begin(bytes), std::end(bytes), number).ptr - bytes)}
    {
    }
    operator std::string_view() const noexcept
    {
        return {bytes, length};
    }
};

// As the formatter would: returns the length of all texts, and dst takes what fits, with NULs to
// its end.
int joinTexts(std::span<char> dst, std::span<const std::string_view> texts)
{
    std::size_t length = 0;
    std::size_t total = 0;
    for (const std::string_view text : texts) {
        const std::size_t taken = std::min(text.size(), dst.size() - 1 - length);
        std::memcpy(dst.data() + length, text.data(), taken);
        length += taken;
        total += text.size();
    }
    std::memset(dst.data() + length, 0, dst.size() - length);
    return static_cast<int>(total);
}

// The formatter's limit stays one byte below the buffer, so that a built text always leaves a spare
// NUL behind it.
std::span<char> belowLast(std::span<char> dst)
{
    return dst.empty() ? dst : dst.first(dst.size() - 1);
}

// A numeric field is converted from the value's text whatever its JSON type, so a quoted number
// counts too.
bool takeNumber(const JSON_VALUE_T &value, std::int32_t *field)
{
    if (value.text.data() == nullptr) return false;
    *field = parse_int32(value.text);
    return true;
}

template <std::size_t N> void takeText(const JSON_VALUE_T &value, char (&field)[N])
{
    if (value.text.data() != nullptr) copy_text(field, value.text);
}

// Fills the record from the span "{" to "}". False when a mandatory field is missing.
bool takeFields(std::string_view span, PROXY_HEADER_T *header)
{
    constexpr std::string_view KEYS[] = {"msg_type", "service_type", "payload_len",
                                         "msg_id",   "timestamp",    "token"};
    JSON_VALUE_T values[std::size(KEYS)];
    json_lookup_each(span, KEYS, values);
    const auto &[msg_type, service_type, payload_len, msg_id, timestamp, token] = values;
    if (!takeNumber(msg_type, &header->msg_type)) return false;
    (void)takeNumber(service_type, &header->service_type);
    if (!takeNumber(payload_len, &header->payload_len)) return false;
    takeText(msg_id, header->msg_id);
    if (timestamp.text.data() != nullptr) header->timestamp = parse_clamped32(timestamp.text);
    takeText(token, header->token);
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
    const DIGITS_T type{msg_type};
    const DIGITS_T length{payload_len};
    const DIGITS_T time{std::time(nullptr)};
    dst.back() = '\0';
    if (dst.size() == 1) return 0;
    const auto &[text_type, text_length, text_id, text_time, text_session, text_end] = HEADER_TEXTS;
    const std::string_view texts[] = {text_type, type, text_length,  length,  text_id, id,
                                      text_time, time, text_session, session, text_end};
    return joinTexts(belowLast(dst), texts);
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
