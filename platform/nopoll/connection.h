// One WebSocket connection: the record behind noPollConn, its frames both ways, and its end.
//
// Receiving  bytes go from the wire (or TLS) into `rx`; a message handed out points into it.
//            The last byte of a data frame without FIN is held back and handed out in front of
//            what follows: a sender may end a message with an empty frame, and the end must not
//            reach the caller in a piece without bytes, which it would drop.
// Sending    a frame is masked into `tx`, or for TLS a record at a time into `frame` and from there
//            through TLS into `tx`; no frame is put behind bytes that the socket has not taken. Of
//            the PINGs that come in meanwhile the newest is answered.
// Ending     the reason is logged and the record marked; the descriptor stays open until
//            closeSocket.
#pragma once

#include "platform/nopoll/net_connect.h"
#include "platform/nopoll/nopoll.h"
#include "platform/nopoll/tls_link.h"
#include "platform/nopoll/upgrade.h"
#include "platform/nopoll/websocket_codec.h"
#include "platform/nopoll/wire.h"

struct noPollCtx {
    int references;
    noPollLogHandler handler;
    noPollPtr user_data;
    ws::FAILURE_T failure; // of the last of its connections that failed
};

struct noPollMsg {
    const unsigned char *payload; // into the connection's rx
    int size;
    bool final;
};

struct noPollConn {
    noPollCtx *context; // counted
    char host[ws::HOST_TEXT_SIZE];
    char port[ws::PORT_TEXT_SIZE];
    char host_name[ws::HOST_TEXT_SIZE]; // what the certificate must carry
    char host_header[ws::HOST_TEXT_SIZE + 2];
    char path[1024];
    char origin[ws::HOST_TEXT_SIZE + 16];
    char protocols[256];
    char accept[ws::ACCEPT_TEXT_SIZE];

    ws::WIRE_T wire;
    ws::TLS_LINK_T tls;
    bool tls_on;
    bool ready; // upgraded
    bool ended;

    ws::BYTE_QUEUE_T rx;
    ws::FRAME_HEADER_T header; // of the frame that is being received
    uint64_t frame_left;       // payload of it that has not been handed out
    bool in_frame;
    bool in_message; // a continuation must come next
    bool holding;
    uint8_t held;
    bool starved; // what is buffered is not enough for a step, and that has been tried
    noPollMsg message;

    ws::BYTE_QUEUE_T frame;     // TLS: a record in plain text
    std::size_t payload_unsent; // of the data frame in tx
    bool pong_waiting;
    uint8_t pong[ws::MAX_CONTROL_PAYLOAD];
    std::size_t pong_size;
    uint8_t masks[256]; // random bytes, used up from the front
    std::size_t masks_used;
};

namespace ws {

// The longest piece, but for the byte held back.
inline constexpr std::size_t RX_SIZE = std::size_t{16} * 1024;
inline constexpr std::size_t MAX_MESSAGE = std::size_t{16} * 1024 * 1024;

enum CLOSE_CODE : uint16_t { CLOSE_NORMAL = 1000, CLOSE_PROTOCOL_ERROR = 1002 };

void logLine(noPollCtx *context, noPollDebugLevel level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Logs the reason and marks the connection as ended; always false.
bool endConnection(noPollConn &conn, noPollDebugLevel level, const char *reason);
void closeSocket(noPollConn &conn);
// Sends what still fits: a close frame and the closing alert, but nothing behind a frame
// that is cut.
void sayGoodbye(noPollConn &conn, uint16_t code);

enum class QUEUED { YES, NOT_TAKEN, ENDED };
// Puts one frame into tx, all of it or (NOT_TAKEN, see writeTls) nothing; ENDED when that ended the
// connection. May read from the socket what TLS needs first.
[[nodiscard]] QUEUED queueFrame(noPollConn &conn, OPCODE opcode, std::span<const uint8_t> payload);
// Sends what the socket takes now, and the PONG that waited for it. False when that ended the
// connection.
[[nodiscard]] bool pushOut(noPollConn &conn);
// The same, with a bounded wait for room as long as the peer takes bytes.
[[nodiscard]] bool pushOutPatiently(noPollConn &conn);

// Reads the answer to the upgrade request as far as it is there, and marks the connection ready or
// ended.
void advanceUpgrade(noPollConn &conn);
// The next piece of data, or null. Frames that carry none are dealt with on the way.
noPollMsg *nextPiece(noPollConn &conn);

} // namespace ws
