#include "backend/devices/protocol.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <limits>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

constexpr std::string_view SEPARATOR = "\r\n\r\n";

static std::string_view textOf(std::span<const std::uint8_t> bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// False when the value is there but is no integer of 64 bits with sign.
static bool readInteger(const json &object, const char *key, std::int64_t &value)
{
    const auto found = object.find(key);
    if (found == object.end()) return true;
    if (!found->is_number_integer()) return false;
    if (found->is_number_unsigned() &&
        found->get<std::uint64_t>() > std::uint64_t{std::numeric_limits<std::int64_t>::max()}) {
        return false;
    }
    value = found->get<std::int64_t>();
    return true;
}

// False when the value is there but is no text, or no id unless it is empty.
static bool readId(const json &object, const char *key, std::string &value)
{
    const auto found = object.find(key);
    if (found == object.end()) return true;
    if (!found->is_string()) return false;
    value = found->get<std::string>();
    return value.empty() || isPlainId(value);
}

static const char *readHeader(std::string_view text, HEADER_T &header, std::int64_t &payload_len)
{
    if (!text.starts_with('{')) return "no brace at the start";
    const json object = json::parse(text, nullptr, false);
    if (!object.is_object()) return "header is no JSON object";
    if (!object.contains("msg_type") || !readInteger(object, "msg_type", header.type)) {
        return "msg_type is missing or no integer";
    }
    if (!object.contains("payload_len") || !readInteger(object, "payload_len", payload_len)) {
        return "payload_len is missing or no integer";
    }
    if (!readInteger(object, "timestamp", header.timestamp)) return "timestamp is no integer";
    if (!readId(object, "msg_id", header.msg_id))
        return "msg_id is no plain text of up to 63 characters";
    if (!readId(object, "token", header.token))
        return "token is no plain text of up to 63 characters";
    return nullptr;
}

static bool skip(std::string_view &text, std::string_view expected)
{
    if (!text.starts_with(expected)) return false;
    text.remove_prefix(expected.size());
    return true;
}

static bool takeNumber(std::string_view &text, std::int64_t &value)
{
    const char *const first = text.data();
    const auto [end, fault] = std::from_chars(first, first + text.size(), value);
    if (fault != std::errc{} || *first == '-' || (*first == '0' && end != first + 1)) return false;
    text.remove_prefix(static_cast<std::size_t>(end - first));
    return true;
}

static bool takeId(std::string_view &text, std::string &value)
{
    const std::string_view id = text.substr(0, text.find('"'));
    if (!id.empty() && !isPlainId(id)) return false;
    value = id;
    text.remove_prefix(id.size());
    return true;
}

// Reads the very form in which devices write a header, because building JSON values costs each data
// message one part in twenty. False for any other one, good or not: what was read by then means
// nothing.
static bool readUsualHeader(std::string_view text, HEADER_T &header, std::int64_t &payload_len)
{
    return skip(text, "{\"msg_type\": ") && takeNumber(text, header.type) &&
           skip(text, ",\"payload_len\": ") && takeNumber(text, payload_len) &&
           skip(text, ",\"msg_id\": \"") && takeId(text, header.msg_id) &&
           skip(text, "\",\"timestamp\":") && takeNumber(text, header.timestamp) &&
           skip(text, ",\"token\":\"") && takeId(text, header.token) && text == "\"}";
}

const char *parseMessage(std::span<const std::uint8_t> bytes, MESSAGE_T &message)
{
    message = {};
    const std::string_view text = textOf(bytes);
    const std::size_t end = text.substr(0, HEADER_MAX).find(SEPARATOR);
    if (end == std::string_view::npos) return "no end of the header";
    std::int64_t payload_len = 0;
    const std::string_view header = text.substr(0, end);
    if (!readUsualHeader(header, message.header, payload_len)) {
        message.header = {};
        const char *fault = readHeader(header, message.header, payload_len);
        if (fault != nullptr) return fault;
    }
    message.payload = bytes.subspan(end + SEPARATOR.size());
    if (payload_len < 0 || static_cast<std::uint64_t>(payload_len) != message.payload.size()) {
        return "payload_len differs from the payload";
    }
    return nullptr;
}

const char *parseResponse(std::span<const std::uint8_t> payload, RESPONSE_T &response)
{
    response = {};
    const std::string_view text = textOf(payload);
    const std::size_t end = text.find(SEPARATOR);
    const json first = json::parse(text.substr(0, end), nullptr, false);
    if (!first.is_object()) return "response is no JSON object";
    if (!first.contains("code") || !readInteger(first, "code", response.code))
        return "code is missing or no integer";
    const auto words = first.find("message");
    if (words != first.end() && words->is_string()) response.message = words->get<std::string>();
    if (end == std::string_view::npos) return nullptr;
    const json second = json::parse(text.substr(end + SEPARATOR.size()), nullptr, false);
    if (second.is_null()) return nullptr;
    if (!second.is_object()) return "second part of the response is no JSON object";
    if (!readId(second, "session_id", response.session_id)) return "session_id is no plain text";
    return nullptr;
}

HEADER_TEXT_T buildHeader(MESSAGE_TYPE type, std::size_t payload_len, std::string_view msg_id,
                          std::int64_t timestamp, std::string_view token)
{
    HEADER_TEXT_T header;
    const int count = snprintf(
        header.bytes.data(), header.bytes.size(),
        "{\"msg_type\": %d,\"payload_len\": %zu,\"msg_id\": \"%.*s\",\"timestamp\":%" PRId64
        ",\"token\":\"%.*s\"}\r\n\r\n",
        type, payload_len, static_cast<int>(std::min(msg_id.size(), ID_MAX)), msg_id.data(),
        timestamp, static_cast<int>(std::min(token.size(), ID_MAX)), token.data());
    header.size = static_cast<std::size_t>(std::max(count, 0));
    return header;
}

std::string buildResponse(std::int64_t code, std::string_view text)
{
    return "{\"code\": " + std::to_string(code) + ", \"message\": \"" + std::string(text) + "\"}";
}

std::string buildNewSession(const SERVICE_T &service)
{
    const nlohmann::ordered_json request = {{"service_type", service.type},
                                            {"service_name", service.name},
                                            {"service_ip", service.ip},
                                            {"service_port", service.port}};
    return request.dump();
}

std::optional<std::string> buildVerifyAccount(std::string_view user, std::string_view password)
{
    const auto fits = [](std::string_view text) {
        return !text.empty() && text.size() <= CREDENTIAL_MAX &&
               text.find_first_of(std::string_view("\"\0", 2)) == std::string_view::npos;
    };
    if (!fits(user) || !fits(password)) return std::nullopt;
    std::string payload;
    payload.reserve(2 * CREDENTIAL_MAX + 64); // no copy of the password is left behind by growing
    payload.append("{\"username\":\"")
        .append(user)
        .append("\",\"password\":\"")
        .append(password)
        .append("\"}");
    return payload;
}

bool isPlainText(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char byte) {
        return static_cast<unsigned char>(byte) >= ' ' && byte != '"' && byte != '\\' &&
               byte != 0x7f;
    });
}

bool isPlainId(std::string_view id)
{
    return !id.empty() && id.size() <= ID_MAX && std::all_of(id.begin(), id.end(), [](char byte) {
        return byte > ' ' && byte <= '~' && byte != '"' && byte != '\\' && byte != '{' &&
               byte != '}';
    });
}

const char *deviceCodeText(std::int64_t code)
{
    switch (code) {
    case 0:
        return "done";
    case DEVICE_ACCOUNT_UNREADABLE:
        return "the device could not read the account";
    case DEVICE_SESSIONS_FULL:
        return "the device has no room for another session";
    case DEVICE_ACCOUNT_WRONG:
        return "user name or password wrong";
    case DEVICE_SERVICE_DOWN:
        return "the local service does not answer";
    default:
        return "unknown code";
    }
}

} // namespace backend
