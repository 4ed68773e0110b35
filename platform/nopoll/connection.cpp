#include "platform/nopoll/connection.h"

#include <algorithm>
#include <cstring>
#include <openssl/rand.h>
#include <poll.h>

namespace ws {
namespace {

// The wait for room in the socket: so long without a byte leaving, and so long in all. It lets bulk
// data run at the line's speed under a caller that naps between its attempts, and stays short
// beside that caller's own bounds.
constexpr int64_t STALL_MS = 30;
constexpr int64_t PATIENCE_MS = 60;

constexpr std::size_t RECORD_SIZE = std::size_t{16} * 1024; // RFC 8446, 5.1

enum STEP : int32_t { STEP_AGAIN, STEP_NEED_BYTES, STEP_PIECE, STEP_ENDED };

// A pool, because asking for four bytes at a time costs more than masking a message.
bool nextMask(noPollConn &conn, uint8_t (&mask)[MASK_SIZE])
{
    if (conn.masks_used + MASK_SIZE > sizeof conn.masks) {
        if (RAND_bytes(conn.masks, sizeof conn.masks) != 1) return false;
        conn.masks_used = 0;
    }
    std::memcpy(mask, conn.masks + conn.masks_used, MASK_SIZE);
    conn.masks_used += MASK_SIZE;
    return true;
}

// Takes bytes from the socket into rx. False when there are none now or ever.
bool fillRx(noPollConn &conn)
{
    FAILURE_T failure{};
    const std::size_t used = bytesOf(conn.rx).size();
    if (!reserveBytes(conn.rx, RX_SIZE - used))
        return endConnection(conn, NOPOLL_LEVEL_CRITICAL, "out of memory");
    const std::span room{conn.rx.data.get() + conn.rx.end, RX_SIZE - used};
    int got;
    if (conn.tls_on) {
        got = readTls(conn.tls, conn.wire, room, failure);
    } else {
        got = receiveFromWire(conn.wire, room);
        if (got < 0) fail(failure, "connection lost: %s", wireFault(conn.wire));
    }
    if (got < 0) return endConnection(conn, NOPOLL_LEVEL_WARNING, failure.text);
    conn.starved = got == 0;
    conn.rx.end += static_cast<std::size_t>(got);
    return got > 0;
}

// Logs why, informs the server if possible, and ends the connection.
STEP finish(noPollConn &conn, noPollDebugLevel level, const FAILURE_T &reason, uint16_t code)
{
    logLine(conn.context, level, "%s", reason.text);
    sayGoodbye(conn, code);
    conn.context->failure = reason; // last: it outweighs a failure of the close frame
    conn.ended = true;
    return STEP_ENDED;
}

STEP refuseFrame(noPollConn &conn, const char *fault)
{
    FAILURE_T reason{};
    fail(reason, "protocol error from the server: %s", fault);
    return finish(conn, NOPOLL_LEVEL_WARNING, reason, CLOSE_PROTOCOL_ERROR);
}

STEP beginFrame(noPollConn &conn)
{
    const char *fault = nullptr;
    const HEADER_RESULT result = parseFrameHeader(bytesOf(conn.rx), conn.header, fault);
    if (result == HEADER_INCOMPLETE) return STEP_NEED_BYTES;
    if (result == HEADER_INVALID) return refuseFrame(conn, fault);
    if (!isControl(conn.header.opcode)) {
        const bool continues = conn.header.opcode == OPCODE_CONTINUATION;
        if (continues && !conn.in_message) return refuseFrame(conn, "continuation of nothing");
        if (!continues && conn.in_message)
            return refuseFrame(conn, "new message inside a fragmented one");
    }
    consumeBytes(conn.rx, conn.header.size);
    conn.frame_left = conn.header.payload;
    conn.in_frame = true;
    return STEP_AGAIN;
}

// RFC 6455, 7.4: codes that no close frame may carry, so none that could be echoed.
bool mayBeSent(int code)
{
    constexpr int NO_CODE = 1005;
    constexpr int LOST = 1006;
    constexpr int TLS_FAILED = 1015;
    constexpr int LAST = 4999;
    return code >= CLOSE_NORMAL && code <= LAST && code != NO_CODE && code != LOST &&
           code != TLS_FAILED;
}

STEP handleClose(noPollConn &conn, std::span<const uint8_t> payload)
{
    if (payload.size() == 1) return refuseFrame(conn, "close frame with half a code");
    const bool coded = payload.size() >= 2;
    const int code = coded ? payload[0] << 8 | payload[1] : CLOSE_NORMAL;
    if (!mayBeSent(code)) {
        char fault[32];
        (void)std::snprintf(fault, sizeof fault, "close code %d", code);
        return refuseFrame(conn, fault);
    }
    const auto text = payload.subspan(coded ? 2 : 0);
    char shown[MAX_CONTROL_PAYLOAD + 1];
    FAILURE_T reason{};
    fail(reason, "the server closed the channel: %d %s", code,
         printable({reinterpret_cast<const char *>(text.data()), text.size()}, shown));
    return finish(conn, NOPOLL_LEVEL_INFO, reason, static_cast<uint16_t>(code));
}

STEP handleControl(noPollConn &conn)
{
    const auto size = static_cast<std::size_t>(conn.frame_left);
    if (bytesOf(conn.rx).size() < size) return STEP_NEED_BYTES;
    const std::span<const uint8_t> payload =
        bytesOf(conn.rx).first(size); // consuming leaves the bytes in place
    consumeBytes(conn.rx, size);
    conn.in_frame = false;
    if (conn.header.opcode == OPCODE_CLOSE) return handleClose(conn, payload);
    if (conn.header.opcode == OPCODE_PING) {
        std::copy(payload.begin(), payload.end(), conn.pong);
        conn.pong_size = size;
        conn.pong_waiting = true;
        if (!pushOut(conn)) return STEP_ENDED;
    }
    return STEP_AGAIN;
}

STEP handlePayload(noPollConn &conn)
{
    const auto bytes = bytesOf(conn.rx);
    const auto taken = static_cast<std::size_t>(std::min<uint64_t>(bytes.size(), conn.frame_left));
    if (taken == 0 && conn.frame_left > 0) return STEP_NEED_BYTES;
    uint8_t *payload = bytes.data();
    std::size_t size = taken;
    consumeBytes(conn.rx, taken);
    conn.frame_left -= taken;
    if (conn.holding) { // in front of it are the header's bytes, or the headroom of rx
        *--payload = conn.held;
        ++size;
        conn.holding = false;
    }
    const bool frame_ends = conn.frame_left == 0;
    const bool message_ends = frame_ends && conn.header.final;
    if (frame_ends) {
        conn.in_frame = false;
        conn.in_message = !conn.header.final;
    }
    if (frame_ends && !message_ends && size > 0) {
        conn.held = payload[--size];
        conn.holding = true;
    }
    if (size == 0 && !message_ends) return STEP_AGAIN;
    conn.message = {payload, static_cast<int>(size), message_ends};
    return STEP_PIECE;
}

STEP takeStep(noPollConn &conn)
{
    if (!conn.in_frame) {
        const STEP step = beginFrame(conn);
        if (step != STEP_AGAIN) return step;
    }
    return isControl(conn.header.opcode) ? handleControl(conn) : handlePayload(conn);
}

QUEUED failToQueue(noPollConn &conn, noPollDebugLevel level, const char *reason)
{
    (void)endConnection(conn, level, reason);
    return QUEUED::ENDED;
}

// Encrypts the record in conn.frame.
QUEUED queueRecord(noPollConn &conn)
{
    FAILURE_T failure{};
    const std::uint64_t received = conn.wire.received;
    const TLS_WRITE result = writeTls(conn.tls, conn.wire, bytesOf(conn.frame), failure);
    consumeBytes(conn.frame, bytesOf(conn.frame).size());
    if (conn.wire.received != received) conn.starved = false; // TLS has read more
    if (result == TLS_WRITE::NOT_TAKEN) return QUEUED::NOT_TAKEN;
    if (result == TLS_WRITE::DONE) return QUEUED::YES;
    return failToQueue(conn, NOPOLL_LEVEL_WARNING, failure.text);
}

// Masks and encrypts a record at a time, while it is in the processor's nearest cache. The frame's
// header is in conn.frame.
QUEUED queueRecords(noPollConn &conn, std::span<const uint8_t> payload,
                    const uint8_t (&mask)[MASK_SIZE])
{
    uint8_t turned[MASK_SIZE];
    std::copy(std::begin(mask), std::end(mask), turned);
    bool begun = false;
    do {
        const std::size_t size = std::min(payload.size(), RECORD_SIZE - bytesOf(conn.frame).size());
        copyMasked(conn.frame.data.get() + conn.frame.end, payload.data(), size, turned);
        conn.frame.end += size;
        payload = payload.subspan(size);
        std::rotate(turned, turned + size % MASK_SIZE, std::end(turned));
        const QUEUED result = queueRecord(conn);
        if (result == QUEUED::NOT_TAKEN && begun)
            return failToQueue(conn, NOPOLL_LEVEL_WARNING, "TLS write failed: frame cut");
        if (result != QUEUED::YES) return result;
        begun = true;
    } while (!payload.empty());
    return QUEUED::YES;
}

} // namespace

void logLine(noPollCtx *context, noPollDebugLevel level, const char *format, ...)
{
    if (!context->handler) return;
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    context->handler(context, level, line, context->user_data);
}

bool endConnection(noPollConn &conn, noPollDebugLevel level, const char *reason)
{
    if (!conn.ended) {
        logLine(conn.context, level, "%s", reason);
        fail(conn.context->failure, "%s", reason);
    }
    conn.ended = true;
    return false;
}

void closeSocket(noPollConn &conn)
{
    conn.wire.socket.reset();
}

void sayGoodbye(noPollConn &conn, uint16_t code)
{
    if (conn.ended || !pushOut(conn) || !bytesOf(conn.wire.tx).empty()) return;
    const uint8_t payload[2] = {static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)};
    if (conn.ready && queueFrame(conn, OPCODE_CLOSE, payload) != QUEUED::YES) return;
    if (conn.tls_on) shutDownTls(conn.tls);
    (void)flushWire(conn.wire); // the connection ends either way
}

QUEUED queueFrame(noPollConn &conn, OPCODE opcode, std::span<const uint8_t> payload)
{
    BYTE_QUEUE_T &target = conn.tls_on ? conn.frame : conn.wire.tx;
    uint8_t mask[MASK_SIZE];
    uint8_t header[MAX_FRAME_HEADER];
    if (!nextMask(conn, mask)) return failToQueue(conn, NOPOLL_LEVEL_CRITICAL, "no random bytes");
    const std::size_t header_size = buildFrameHeader(opcode, payload.size(), mask, header);
    const std::size_t room = conn.tls_on ? RECORD_SIZE : header_size + payload.size();
    if (!reserveBytes(target, room) || !appendBytes(target, {header, header_size}))
        return failToQueue(conn, NOPOLL_LEVEL_CRITICAL, "out of memory");
    QUEUED result = QUEUED::YES;
    if (conn.tls_on) {
        result = queueRecords(conn, payload, mask);
    } else {
        copyMasked(target.data.get() + target.end, payload.data(), payload.size(), mask);
        target.end += payload.size();
    }
    if (result == QUEUED::YES) conn.payload_unsent = isControl(opcode) ? 0 : payload.size();
    return result;
}

bool pushOut(noPollConn &conn)
{
    for (;;) {
        if (!flushWire(conn.wire)) {
            FAILURE_T failure{};
            fail(failure, "connection lost: %s", wireFault(conn.wire));
            return endConnection(conn, NOPOLL_LEVEL_WARNING, failure.text);
        }
        const std::size_t pending = bytesOf(conn.wire.tx).size();
        // Over TLS a part of the records says nothing about the payload.
        if (pending == 0 || !conn.tls_on)
            conn.payload_unsent = std::min(conn.payload_unsent, pending);
        if (pending > 0 || !conn.pong_waiting) return true;
        const QUEUED result = queueFrame(conn, OPCODE_PONG, {conn.pong, conn.pong_size});
        if (result == QUEUED::NOT_TAKEN) return true; // it waits for the next call
        if (result == QUEUED::ENDED) return false;
        conn.pong_waiting = false;
    }
}

bool pushOutPatiently(noPollConn &conn)
{
    int64_t end = 0; // most often the socket takes all at once, and the clock is not asked
    while (pushOut(conn)) {
        if (bytesOf(conn.wire.tx).empty()) return true;
        const int64_t now = monotonicMs();
        if (end == 0) end = now + PATIENCE_MS;
        const int64_t deadline = std::min(end, now + STALL_MS);
        if (pollUntil(conn.wire.socket.get(), POLLOUT, deadline) == 0) return true;
    }
    return false;
}

void advanceUpgrade(noPollConn &conn)
{
    conn.wire.reads_left = READS_PER_CALL;
    while (!conn.ready && !conn.ended) {
        const auto bytes = bytesOf(conn.rx);
        const std::string_view text{reinterpret_cast<const char *>(bytes.data()), bytes.size()};
        const std::size_t end = text.find(HTTP_HEAD_END);
        if (std::min(end, text.size()) > MAX_UPGRADE_ANSWER) {
            endConnection(conn, NOPOLL_LEVEL_WARNING,
                          "the server's answer to the upgrade is too long");
            return;
        }
        if (end == std::string_view::npos) {
            if (!fillRx(conn)) return;
            continue;
        }
        FAILURE_T failure{};
        conn.ready = checkUpgradeAnswer(text.substr(0, end), conn.accept, conn.protocols, failure);
        if (!conn.ready) endConnection(conn, NOPOLL_LEVEL_WARNING, failure.text);
        consumeBytes(conn.rx, end + HTTP_HEAD_END.size());
    }
}

noPollMsg *nextPiece(noPollConn &conn)
{
    for (;;) {
        const STEP step = takeStep(conn);
        if (step == STEP_PIECE) return &conn.message;
        if (step == STEP_ENDED || (step == STEP_NEED_BYTES && !fillRx(conn))) return nullptr;
    }
}

} // namespace ws
