// The outer form of every message on the cloud channel: header, separator, payload; and the payload
// of a response.
//
// Header   one JSON object on one line, closed by the first "}"; values as json_scanner.h finds
//          them, so no value may hold a double quote or a brace. CR LF CR LF follows, then exactly
//          payload_len bytes.
// Texts    parsers read [text, text + length) and stop at the first NUL before that.
// Failure  parsers log here and return -1; builders return the formatter's count, <= 0 on failure.
//          A count of at least the destination's size means that the text was cut.
#pragma once

#include "src/cloud_protocol.h"

#include <cstdint>
#include <span>

struct DATA_BUFFER_T;

struct PROXY_HEADER_T {
    std::int32_t msg_type;
    std::int32_t service_type; // 0 when absent
    std::int32_t payload_len;
    char msg_id[SESSION_ID_SIZE]; // empty when absent
    std::int64_t timestamp;       // s; 0 when absent; within the range of int32
    char token[SESSION_ID_SIZE];  // the session identifier; empty when absent
    std::int32_t header_len; // up to and including "}", and the separator, which may reach past the
                             // message's end
};

// msg_id null = a fresh random id; token null = empty. Reads the wall clock.
int spliceProxyProtocolHeader(std::span<char> dst, int msg_type, std::int32_t payload_len,
                              const char *msg_id, const char *token);

// second_part and message null = "null".
int spliceProxyProtocolResponsePayload(std::span<char> dst, int code, const char *second_part,
                                       const char *message);

// The record has to be clear.
[[nodiscard]] int parseProxyProtocolHeader(const char *text, std::int32_t length,
                                           PROXY_HEADER_T *header);

// Parses the header at the buffer's read position; the read offset stays.
[[nodiscard]] int getRemoteAccessProtocolHeader(const DATA_BUFFER_T *buffer,
                                                PROXY_HEADER_T *header);
// Refuses the text at the read position as a header, whatever it is: the same lines, and -1.
int refuseRemoteAccessProtocolHeader(const DATA_BUFFER_T *buffer);
