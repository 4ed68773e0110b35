// The wire of the cloud channel: types, codes, sizes and fixed texts, each in one place.
// docs/protocol.md describes the rest.
#pragma once

#include <cstddef>
#include <cstdint>

// msg_type of a message header.
enum MSG_TYPE : std::int32_t {
    MSG_TYPE_RESPONSE = 0,         // both ways
    MSG_TYPE_HANDSHAKE = 1,        // to the back end
    MSG_TYPE_NEW_SESSION = 4,      // from the back end
    MSG_TYPE_RELEASE_SESSION = 5,  // both ways
    MSG_TYPE_VERIFY_ACCOUNT = 6,   // from the back end
    MSG_TYPE_DATA_UP = 21,         // local service to back end
    MSG_TYPE_DATA_DOWN = 22,       // back end to local service
    MSG_TYPE_KEEPALIVE_PING = 256, // to the back end
    MSG_TYPE_KEEPALIVE_PONG = 257, // from the back end
};

// "code" of a response payload.
enum RESPONSE_CODE : std::int32_t {
    RESPONSE_OK = 0,
    RESPONSE_BAD_ACCOUNT_REQUEST = 101601,
    RESPONSE_NO_SESSION_LEFT = 101604,
    RESPONSE_ACCOUNT_REFUSED = 101607,
    RESPONSE_SERVICE_UNAVAILABLE = 101671,
};

constexpr std::int32_t MESSAGE_BUFFER_SIZE = 51200; // a whole message, header included
constexpr std::int32_t HEADER_BUFFER_SIZE = 1024;   // a header with its separator, and its NUL
constexpr std::int32_t HEADER_SEPARATOR_LEN = 4;    // CR LF CR LF
constexpr std::int32_t DATA_HEADER_ROOM = 1028;     // kept free in front of service data
static_assert(DATA_HEADER_ROOM >= HEADER_BUFFER_SIZE);
constexpr std::int32_t MAX_SESSIONS = 32;
constexpr std::size_t SESSION_ID_SIZE = 64; // also that of a message id; 63 characters are kept

constexpr char HANDSHAKE_MSG_ID[] = "msg_id_for_handshake";
