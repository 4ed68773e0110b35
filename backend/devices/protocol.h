// The messages of the cloud channel, as the back end reads and writes them. A message is one
// WebSocket binary message: a header (one JSON object on one line, the message's first byte is its
// brace), "\r\n\r\n", and exactly payload_len bytes of payload. A device takes messages of at most
// MESSAGE_MAX bytes, header included, and drops longer ones. Devices read JSON with a scanner that
// knows neither escapes nor nesting in a header, and takes the first closing brace as the header's
// end: so no text with a quote, brace or backslash is ever written into a header.
// Ownership  parsed messages point into the bytes they were read from.
// Threads    none of the functions keeps state.
// Failure    parsers return the fault in words, or null when the input is good; they never throw
//            for bad input.
#pragma once

#include "backend/net/out_message.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace backend {

enum MESSAGE_TYPE : std::int32_t {
    MESSAGE_RESPONSE = 0,        // both ways; msg_id repeats the one answered
    MESSAGE_HANDSHAKE = 1,       // from the device
    MESSAGE_NEW_SESSION = 4,     // to the device
    MESSAGE_RELEASE_SESSION = 5, // both ways
    MESSAGE_VERIFY_ACCOUNT = 6,  // to the device
    MESSAGE_DATA_UP = 21,        // from the device
    MESSAGE_DATA_DOWN = 22,      // to the device
    MESSAGE_PING = 256,          // from the device
    MESSAGE_PONG = 257,          // to the device
};

// Codes with which a device refuses a request.
enum DEVICE_CODE : std::int32_t {
    DEVICE_ACCOUNT_UNREADABLE = 101601,
    DEVICE_SESSIONS_FULL = 101604,
    DEVICE_ACCOUNT_WRONG = 101607,
    DEVICE_SERVICE_DOWN = 101671,
};

constexpr std::string_view HANDSHAKE_ID = "msg_id_for_handshake";
constexpr std::size_t MESSAGE_MAX = 51200;
constexpr std::size_t HEADER_MAX = 1024; // with the four bytes that end it
constexpr std::size_t ID_MAX = 63;       // of msg_id and token; a device cuts what is longer
constexpr std::size_t CREDENTIAL_MAX = 255;

// Payload of one data message to a device: with both its headers at most three TLS records of 16
// KB, in place of three and a short one. A device writes a data message to its local service at
// once: it waits at most 60 ms for a service that accepts nothing and then drops the rest of that
// message, which no answer reports.
constexpr std::size_t DATA_MAX = std::size_t{48} * 1024 - 324;

// One service as a device announces it. A new session names it by all four values, unchanged.
struct SERVICE_T {
    std::string type;
    std::string name;
    std::string ip;
    std::int64_t port = 0;
};

struct HEADER_T {
    std::int64_t type = 0;
    std::int64_t timestamp = 0; // seconds since the epoch; 0 when absent
    std::string msg_id;
    std::string token; // the session's identifier, or empty
};

struct MESSAGE_T {
    HEADER_T header;
    std::span<const std::uint8_t> payload;
};

struct RESPONSE_T {
    std::int64_t code = 0;
    std::string message;
    std::string session_id; // empty when the response carries none
};

[[nodiscard]] const char *parseMessage(std::span<const std::uint8_t> bytes, MESSAGE_T &message);

// A device's answer: {"code": N, "message": "..."}, "\r\n\r\n", and {"session_id": "..."} or null.
[[nodiscard]] const char *parseResponse(std::span<const std::uint8_t> payload,
                                        RESPONSE_T &response);

// msg_id and token must be ids in the sense of isPlainId (or empty).
HEADER_TEXT_T buildHeader(MESSAGE_TYPE type, std::size_t payload_len, std::string_view msg_id,
                          std::int64_t timestamp, std::string_view token);

std::string buildResponse(std::int64_t code,
                          std::string_view text); // text: our own words, without quotes
std::string buildNewSession(const SERVICE_T &service);

// Nothing when the wire cannot carry them: a device reads both texts raw up to the next quote, 1 to
// CREDENTIAL_MAX bytes.
std::optional<std::string> buildVerifyAccount(std::string_view user, std::string_view password);

// 1 to ID_MAX printable characters, none of which ends a string or an object.
bool isPlainId(std::string_view id);

// Whether a text comes back from a device unchanged when it is written between quotes.
bool isPlainText(std::string_view text);

const char *deviceCodeText(std::int64_t code);

} // namespace backend
