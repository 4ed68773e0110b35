// The WebSocket adapter behind a scripted socket. The input's first line is the schedule, the rest
// is what the server sends. Each system call on the socket uses the schedule's next character, over
// and over: a digit n moves at most 2^n bytes, "-" would block, "!" is interrupted, "x" breaks the
// connection, any other moves all there is. The clock is the script's own, so nothing waits; the
// random bytes are always the same, so that an upgrade answer can be right.
// Under test: platform/nopoll/connection.cpp platform/nopoll/nopoll.cpp platform/nopoll/upgrade.cpp
// Under test: platform/nopoll/websocket_codec.cpp platform/nopoll/wire.cpp
#include "platform/nopoll/connection.h"

#include "tests/fuzz/fuzz.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace {

struct SCRIPT_T {
    int fd = -1;
    std::string_view schedule;
    std::size_t step = 0;
    std::string_view bytes; // of the server, not received yet
    bool hung_up = false;   // nothing comes behind them
    bool blocked = false;   // the last receive found nothing
    bool interrupted = false;
    bool broken = false;
    std::string sent; // by the client
    std::int64_t now_ms = 1;
    std::uint8_t random = 0;
};
SCRIPT_T g_script;

char nextStep()
{
    if (g_script.schedule.empty()) return 'a';
    return g_script.schedule[g_script.step++ % g_script.schedule.size()];
}

ssize_t failWith(int error)
{
    errno = error;
    return -1;
}

// What a step lets through of `size` bytes, or -1 with errno set.
ssize_t allowed(char step, std::size_t size)
{
    if (step == 'x') g_script.broken = true;
    if (g_script.broken) return failWith(ECONNRESET);
    if (step == '-') return failWith(EAGAIN);
    g_script.interrupted = step == '!' && !g_script.interrupted;
    if (g_script.interrupted) return failWith(EINTR);
    const std::size_t most = step >= '0' && step <= '9' ? std::size_t{1} << (step - '0') : size;
    return static_cast<ssize_t>(std::min(most, size));
}

} // namespace

// The linker puts these in the places of the libraries' functions (--wrap).
extern "C" {
ssize_t __real_recv(int fd, void *bytes, std::size_t size, int flags);
ssize_t __real_send(int fd, const void *bytes, std::size_t size, int flags);
int __real_poll(pollfd *entries, nfds_t count, int timeout_ms);
int __real_clock_gettime(clockid_t clock, timespec *now);

int __wrap_connect(int fd, const sockaddr *, socklen_t)
{
    g_script.fd = fd;
    return 0;
}

ssize_t __wrap_recv(int fd, void *bytes, std::size_t size, int flags)
{
    if (fd != g_script.fd) return __real_recv(fd, bytes, size, flags);
    if (g_script.bytes.empty()) return g_script.hung_up ? 0 : failWith(EAGAIN);
    char step = nextStep();
    // Not twice in a row, so that every turn of the caller gets on.
    g_script.blocked = step == '-' && !g_script.blocked;
    if (step == '-' && !g_script.blocked) step = 'a';
    const ssize_t count = allowed(step, std::min(size, g_script.bytes.size()));
    if (count <= 0) return count;
    g_script.bytes.copy(static_cast<char *>(bytes), static_cast<std::size_t>(count));
    g_script.bytes.remove_prefix(static_cast<std::size_t>(count));
    return count;
}

ssize_t __wrap_send(int fd, const void *bytes, std::size_t size, int flags)
{
    if (fd != g_script.fd) return __real_send(fd, bytes, size, flags);
    const ssize_t count = allowed(nextStep(), size);
    if (count > 0)
        g_script.sent.append(static_cast<const char *>(bytes), static_cast<std::size_t>(count));
    return count;
}

int __wrap_poll(pollfd *entries, nfds_t count, int timeout_ms)
{
    if (count != 1 || entries->fd != g_script.fd) return __real_poll(entries, count, timeout_ms);
    const bool readable = !g_script.bytes.empty() || g_script.hung_up;
    const bool writable = (entries->events & POLLOUT) != 0 && nextStep() != '-';
    entries->revents = static_cast<short>(
        ((entries->events & POLLIN) != 0 && readable ? POLLIN : 0) | (writable ? POLLOUT : 0));
    if (entries->revents != 0) return 1;
    g_script.now_ms += timeout_ms;
    return 0;
}

int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    if (clock != CLOCK_MONOTONIC) return __real_clock_gettime(clock, now);
    ++g_script.now_ms; // so that a wait for what never comes ends
    *now = {g_script.now_ms / 1000, static_cast<long>(g_script.now_ms % 1000 * 1000000)};
    return 0;
}

int __wrap_RAND_bytes(unsigned char *bytes, int count)
{
    for (int i = 0; i < count; ++i)
        bytes[i] = g_script.random++;
    return 1;
}
}

namespace {

using ContextPtr = std::unique_ptr<noPollCtx, Releaser<nopoll_ctx_unref>>;
using ConnPtr = std::unique_ptr<noPollConn, Releaser<nopoll_conn_close>>;

// One frame: nothing is queued behind one that the socket has not taken.
constexpr int MAX_PENDING = ws::MAX_FRAME_HEADER + ws::MAX_CONTROL_PAYLOAD;
// The answer to the request that the fixed random bytes make.
constexpr std::string_view STATUS = "HTTP/1.1 101";
constexpr std::string_view ACCEPT = "Bz3qJYTGdOe8gUSpLosEdiLKDrk=";
constexpr std::string_view PROPER_ANSWER =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Accept: Bz3qJYTGdOe8gUSpLosEdiLKDrk=";
constexpr char DATA[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

void readLog(noPollCtx *, noPollDebugLevel, const char *line, noPollPtr)
{
    REQUIRE(std::strlen(line) > 0);
    for (; *line != '\0'; ++line)
        REQUIRE(*line >= ' ' && *line <= '~');
}

// Now and then the caller has something to send itself.
void sendSomething(noPollConn *conn)
{
    const auto length = static_cast<long>(sizeof DATA - 1);
    const int result = nopoll_conn_send_binary(conn, DATA, length);
    REQUIRE(result == -1 || result == -2 || (result > 0 && result <= length));
    const int pending = nopoll_conn_pending_write_bytes(conn);
    REQUIRE(pending >= 0 && pending <= MAX_PENDING && (result != length || pending == 0));
    if (pending > 0) REQUIRE(nopoll_conn_complete_pending_write(conn) <= length);
}

// All that arrives until the connection ends, as whole messages.
std::vector<std::string> receiveAll(noPollConn *conn)
{
    std::vector<std::string> messages(1);
    for (int turn = 0; nopoll_conn_socket(conn) != -1; ++turn) {
        g_script.hung_up = turn > 6;
        noPollMsg *const piece = nopoll_conn_get_msg(conn);
        REQUIRE(nopoll_conn_read_pending(conn) >= 0);
        if (turn % 2 == 1) sendSomething(conn);
        if (piece == nullptr) continue;
        const int size = nopoll_msg_get_payload_size(piece);
        const bool final = nopoll_msg_is_final(piece) != nopoll_false;
        REQUIRE(size > 0 || (size == 0 && final && messages.back().empty()));
        REQUIRE(static_cast<std::size_t>(size) <= ws::RX_SIZE + 1);
        const auto *const payload = nopoll_msg_get_payload(piece);
        messages.back().append(reinterpret_cast<const char *>(payload),
                               static_cast<std::size_t>(size));
        if (final) messages.emplace_back();
        nopoll_msg_unref(piece);
    }
    messages.pop_back(); // the unfinished one
    return messages;
}

std::uint64_t takeNumber(std::string_view &bytes, std::size_t count)
{
    std::uint64_t value = 0;
    for (const char byte : bytes.substr(0, count))
        value = value << 8 | static_cast<std::uint8_t>(byte);
    bytes.remove_prefix(count);
    return value;
}

// One frame off the front, in either direction. False when it is not there whole.
bool takeFrame(std::string_view &bytes, std::uint8_t &first, bool &masked, std::string &payload)
{
    if (bytes.size() < 2) return false;
    first = static_cast<std::uint8_t>(takeNumber(bytes, 1));
    std::uint64_t length = takeNumber(bytes, 1);
    masked = (length & 0x80) != 0;
    length &= 0x7f;
    const std::size_t extra = length == 127 ? 8 : length == 126 ? 2 : 0;
    if (bytes.size() < extra + (masked ? 4 : 0)) return false;
    if (extra > 0) length = takeNumber(bytes, extra);
    const std::string_view mask = bytes.substr(0, masked ? 4 : 0);
    bytes.remove_prefix(mask.size());
    if (bytes.size() < length) return false;
    payload = bytes.substr(0, static_cast<std::size_t>(length));
    bytes.remove_prefix(payload.size());
    for (std::size_t i = 0; masked && i < payload.size(); ++i)
        payload[i] = static_cast<char>(payload[i] ^ mask[i % 4]);
    return true;
}

// The whole messages in a server's frames, up to the first thing that ends the connection.
std::vector<std::string> messagesIn(std::string_view bytes)
{
    std::vector<std::string> messages;
    std::string message, payload;
    std::uint8_t first = 0;
    bool masked = false, open = false;
    while (bytes.size() >= 2) {
        const bool one_byte_length = (bytes[1] & 0x7f) <= 125;
        if (!takeFrame(bytes, first, masked, payload)) break;
        const unsigned opcode = first & 0x0f;
        const bool final = (first & 0x80) != 0;
        const bool control = opcode >= 8;
        if (masked || (first & 0x70) != 0 || opcode == 8 || opcode > 10 ||
            (opcode > 2 && opcode < 8) || (control && (!final || !one_byte_length)) ||
            (!control && (opcode == 0) != open))
            break;
        if (control) continue;
        message += payload;
        open = !final;
        if (final) messages.push_back(std::exchange(message, {}));
    }
    return messages;
}

// What the client has sent: masked, unfragmented frames, none behind one that is cut.
void requireSoundOutput(std::string_view sent, bool upgraded)
{
    const std::size_t end = sent.find("\r\n\r\n");
    REQUIRE(end != std::string_view::npos || !upgraded);
    if (end == std::string_view::npos) return;
    std::string_view frames = sent.substr(end + 4);
    REQUIRE(upgraded || frames.empty());
    std::string payload;
    std::uint8_t first = 0;
    bool masked = false;
    while (takeFrame(frames, first, masked, payload)) {
        REQUIRE(masked && (first == 0x82 || first == 0x88 || first == 0x8a));
        REQUIRE(first != 0x82 || payload == DATA);
        REQUIRE(first != 0x88 || frames.empty());
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view input = viewOf(data, size);
    const std::size_t line = std::min(input.find('\n'), input.size());
    const std::string_view stream = input.substr(std::min(line + 1, input.size()));
    g_script = {};
    g_script.schedule = input.substr(0, line);
    g_script.bytes = stream;

    const ContextPtr context{nopoll_ctx_new()};
    nopoll_log_set_handler(context.get(), readLog, nullptr);
    ConnPtr conn{nopoll_conn_new(context.get(), "127.0.0.1", "80", "gateway.example", nullptr,
                                 nullptr, nullptr)};
    REQUIRE(conn);
    const bool connected = nopoll_conn_is_ok(conn.get()) != nopoll_false;
    (void)nopoll_conn_wait_until_connection_ready(conn.get(), 1);
    const std::vector<std::string> messages = receiveAll(conn.get());
    const bool upgraded = conn->ready;
    conn.reset();
    requireSoundOutput(g_script.sent, upgraded);
    if (!connected || g_script.broken) return 0; // where it broke off, the script alone knows

    const std::size_t end = stream.find(ws::HTTP_HEAD_END);
    const std::string_view head = stream.substr(0, end);
    ws::FAILURE_T failure{};
    REQUIRE(upgraded ==
            (end <= ws::MAX_UPGRADE_ANSWER && ws::checkUpgradeAnswer(head, ACCEPT, "", failure)));
    REQUIRE(upgraded || head != PROPER_ANSWER || end == std::string_view::npos);
    REQUIRE(!upgraded || (head.starts_with(STATUS) && head.find(ACCEPT) != std::string_view::npos));
    if (upgraded) REQUIRE(messages == messagesIn(stream.substr(end + ws::HTTP_HEAD_END.size())));
    return 0;
}
