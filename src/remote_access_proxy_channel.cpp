#include "src/remote_access_proxy_channel.h"

#include "common/log.h"
#include "src/resolver.h"
#include "src/traceBack.h"
#include "utility/data_buffer.h"
#include "utility/monotonic_clock.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

#ifdef USE_SYSTEM_NOPOLL
#include <nopoll.h>
#else
#include "platform/nopoll/nopoll.h"
#endif

namespace {

// Operations whose lines are written by helpers here.
constexpr char OPEN[] = "openCloudProxyChannel";

constexpr int READY_WAITS = 3;
constexpr int READY_WAIT_S = 1;
constexpr int FLUSH_ATTEMPTS = 3;
constexpr int ATTEMPT_MS = 50;
constexpr int WOULD_BLOCK = -2; // of the library
constexpr int MIN_TIMEOUT_MS = 50;
constexpr int MAX_TIMEOUT_MS = 10000;

bool message_ended = true; // by the last piece read; there is one connection at a time

noPollConn *toLibrary(CLOUD_CHANNEL_T *conn)
{
    return reinterpret_cast<noPollConn *>(conn);
}

CLOUD_CHANNEL_T *fromLibrary(noPollConn *conn)
{
    return reinterpret_cast<CLOUD_CHANNEL_T *>(conn);
}

extern "C" void websocketLog(noPollCtx * /*ctx*/, noPollDebugLevel level, const char *log_msg,
                             noPollPtr /*user_data*/)
{
    log_print(level == NOPOLL_LEVEL_DEBUG ? LOG_LEVEL_DEBUG : LOG_LEVEL_WARN, "color", "tag",
              __FILE__, __func__, __LINE__, "%s", log_msg);
}

void reReadResolverConfiguration()
{
    const int result = refreshResolver();
    if (result != 0)
        RA_WARN_FOR(OPEN, "getaddrinfo res_init, ret is %d, errno is %d\n", result, errno);
}

// Starts a TLS connection; what is returned may be null or unusable.
noPollConn *startTls(noPollCtx *ctx, const char *host, const char *port, const char *cert_path)
{
    noPollConnOpts *const opts = nopoll_conn_opts_new();
    if (opts == nullptr) {
        RA_WARN_FOR(OPEN, "nopoll_conn_opts_new failed");
        return nullptr;
    }
    // Verification is set on every path: what a library does by itself differs from build to build.
    if (cert_path != nullptr) {
        // An unreadable file shows as a connection that is not usable.
        (void)nopoll_conn_opts_set_ssl_certs(opts, nullptr, nullptr, nullptr, cert_path);
        nopoll_conn_opts_ssl_peer_verify(opts, nopoll_true);
    } else {
        RA_DEBUG_FOR(OPEN, "set peer verify false ");
        nopoll_conn_opts_ssl_peer_verify(opts, nopoll_false);
    }
    reReadResolverConfiguration();
    noPollConn *const conn =
        nopoll_conn_tls_new(ctx, opts, host, port, nullptr, nullptr, nullptr, nullptr);
    if (conn == nullptr || nopoll_conn_is_ok(conn) == nopoll_false) {
        RA_WARN_FOR(OPEN, "Expected to find proper client connection status, but found error.. ");
    } else if (nopoll_conn_is_tls_on(conn) == nopoll_false) {
        RA_WARN_FOR(OPEN,
                    "ERROR: expected to find TLS enabled on the connection but found it isn't.. ");
        nopoll_conn_close(conn);
        return nullptr;
    }
    return conn;
}

noPollConn *startPlain(noPollCtx *ctx, const char *host, const char *port)
{
    reReadResolverConfiguration();
    noPollConn *const conn = nopoll_conn_new(ctx, host, port, nullptr, nullptr, nullptr, nullptr);
    if (conn == nullptr || nopoll_conn_is_ok(conn) == nopoll_false)
        RA_WARN_FOR(OPEN,
                    "ERROR: Expected to find proper client connection status, but found error.. ");
    return conn;
}

void logFailedOpening(noPollCtx *ctx, const char *host, const char *port, bool told_by_library)
{
#ifdef USE_SYSTEM_NOPOLL
    (void)ctx, (void)host, (void)port, (void)told_by_library; // that library keeps no reason
#else
    const char *const reason = nopoll_ctx_failure(ctx);
    if (!told_by_library && reason[0] != '\0')
        RA_WARN_FOR(OPEN, "no channel to %s port %s: %s", host, port, reason);
#endif
}

bool waitUntilReady(noPollConn *conn)
{
    for (int waited = 0; waited < READY_WAITS; ++waited) {
        if (nopoll_conn_wait_until_connection_ready(conn, READY_WAIT_S) != nopoll_false)
            return true;
    }
    RA_WARN_FOR(OPEN, "ERROR: connection not ready ");
    return false;
}

std::int64_t nowMilliseconds()
{
    return milliseconds_of(monotonic_now());
}

// Attempts are 50 ms apart whatever the library itself has waited for room meanwhile.
void sleepUntil(std::int64_t time_ms)
{
    flushLogLines();
    const std::int64_t left_ms = time_ms - nowMilliseconds();
    if (left_ms > 0) ::usleep(static_cast<useconds_t>(left_ms) * 1000);
}

bool isAlive(noPollConn *conn)
{
    return nopoll_conn_is_ok(conn) != nopoll_false;
}

// False when bytes of an earlier message are still pending: a new one must not be handed over
// behind them.
bool flushPendingWrite(noPollConn *conn)
{
    if (nopoll_conn_pending_write_bytes(conn) == 0) return true;
    std::int64_t attempt_end = nowMilliseconds();
    const std::int64_t end = attempt_end + std::int64_t{FLUSH_ATTEMPTS} * ATTEMPT_MS;
    do {
        // Libraries differ in what a completed write returns; that nothing is pending afterwards
        // says it in all.
        (void)nopoll_conn_complete_pending_write(conn);
        if (nopoll_conn_pending_write_bytes(conn) == 0) return true;
        if (!isAlive(conn)) return false;
        sleepUntil(attempt_end += ATTEMPT_MS);
    } while (nowMilliseconds() < end);
    return nopoll_conn_pending_write_bytes(conn) == 0;
}

// A whole number of attempts.
int waitOf(int timeout_ms)
{
    return std::clamp(timeout_ms, MIN_TIMEOUT_MS, MAX_TIMEOUT_MS) / ATTEMPT_MS * ATTEMPT_MS;
}

// The library could not take the message just now, and holds nothing of it.
bool isUntaken(noPollConn *conn, int result)
{
    return result == WOULD_BLOCK && isAlive(conn) && nopoll_conn_pending_write_bytes(conn) == 0;
}

// Waits for the rest of a message of which `sent` bytes have left.
int completeWrite(noPollConn *conn, int length, int sent, std::int64_t end)
{
    std::int64_t attempt_end = nowMilliseconds();
    do {
        if (!isAlive(conn)) return sent;
        if (nopoll_conn_pending_write_bytes(conn) == 0) return length;
        const int result = nopoll_conn_complete_pending_write(conn);
        if (result == 0 || nopoll_conn_pending_write_bytes(conn) == 0)
            return isAlive(conn) ? length : sent;
        if (result > 0) sent = std::max(length - result, 0);
        sleepUntil(attempt_end += ATTEMPT_MS);
    } while (nowMilliseconds() < end);
    return sent;
}

} // namespace

CLOUD_CHANNEL_T *openCloudProxyChannel(const char *host, const char *port, const char *cert_path,
                                       int debug_switch, int tls_type)
{
    noPollCtx *const ctx = nopoll_ctx_new();
    if (ctx == nullptr) {
        RA_WARN("nopoll new failed");
        return nullptr;
    }
    installSignalHandlers(); // a library may have put its own SIGPIPE handler in place
    if (debug_switch != 0) nopoll_log_set_handler(ctx, websocketLog, nullptr);
    noPollConn *const conn =
        tls_type != 0 ? startTls(ctx, host, port, cert_path) : startPlain(ctx, host, port);
    if (conn != nullptr && isAlive(conn) && waitUntilReady(conn)) return fromLibrary(conn);
    // With the debug switch on, the library has already logged why a connection ended, but not that
    // an open one has not become ready.
    const bool has_ended = conn == nullptr || !isAlive(conn);
    logFailedOpening(ctx, host, port, debug_switch != 0 && has_ended);
    if (conn != nullptr) nopoll_conn_close(conn);
    nopoll_ctx_unref(ctx);
    return nullptr;
}

void closeCloudProxyChannel(CLOUD_CHANNEL_T *conn)
{
    RA_INFO("close cloud channel!");
    if (conn == nullptr) return;
    noPollCtx *const ctx = nopoll_conn_ctx(toLibrary(conn));
    nopoll_conn_close(toLibrary(conn));
    if (ctx != nullptr) {
        nopoll_loop_stop(ctx);
        nopoll_ctx_unref(ctx);
    }
    nopoll_cleanup_library();
}

int readCloudProxyChannel(CLOUD_CHANNEL_T *conn, DATA_BUFFER_T *buffer, int *fin)
{
    noPollMsg *const message = nopoll_conn_get_msg(toLibrary(conn));
    if (message == nullptr) {
        RA_DEBUG("not receive full package of websocket! OR receive PONG package from cloud.");
        return CHANNEL_READ_NOTHING;
    }
    message_ended = nopoll_msg_is_final(message) != nopoll_false;
    const auto size = static_cast<int>(nopoll_msg_get_payload_size(message));
    if (size <= 0) {
        nopoll_msg_unref(message);
        RA_WARN("can not get cloud message size!");
        return CHANNEL_READ_NO_PAYLOAD;
    }
    const unsigned char *const payload = nopoll_msg_get_payload(message);
    if (payload == nullptr) {
        nopoll_msg_unref(message);
        RA_WARN("can not get cloud message payload!");
        return CHANNEL_READ_NO_PAYLOAD;
    }
    if (appendDataBuffer(buffer, payload, size) != 0) {
        nopoll_msg_unref(message);
        RA_WARN("write the cloud channel buffer error!");
        return CHANNEL_READ_NO_ROOM;
    }
    *fin = message_ended ? 1 : 0;
    nopoll_msg_unref(message);
    return size;
}

bool hasCloudProxyChannelMessageEnded(const CLOUD_CHANNEL_T *conn)
{
    return conn != nullptr && message_ended;
}

int writeCloudProxyChannel(CLOUD_CHANNEL_T *conn, const char *bytes, int length, int timeout_ms)
{
    noPollConn *const connection = toLibrary(conn);
    if (!flushPendingWrite(connection)) return 0;
    const std::int64_t start = nowMilliseconds();
    const std::int64_t end = start + waitOf(timeout_ms);
    std::int64_t attempt_end = start;
    int result = nopoll_conn_send_binary(connection, bytes, length);
    while (isUntaken(connection, result) && nowMilliseconds() < end) {
        sleepUntil(attempt_end += ATTEMPT_MS);
        result = nopoll_conn_send_binary(connection, bytes, length);
    }
    if (result == length || result == -1) return result;
    if (isUntaken(connection, result)) return 0;
    return completeWrite(connection, length, std::max(result, 0), end);
}

void setCloudProxyChannelDebug(CLOUD_CHANNEL_T *conn, int debug_switch)
{
    if (conn == nullptr) return;
    noPollCtx *const ctx = nopoll_conn_ctx(toLibrary(conn));
    if (ctx != nullptr)
        nopoll_log_set_handler(ctx, debug_switch != 0 ? websocketLog : nullptr, nullptr);
}

int getCloudProxyChannelSocket(CLOUD_CHANNEL_T *conn)
{
    return conn != nullptr ? nopoll_conn_socket(toLibrary(conn)) : -1;
}

bool hasCloudProxyChannelPendingInput(CLOUD_CHANNEL_T *conn)
{
    return conn != nullptr && nopoll_conn_read_pending(toLibrary(conn)) > 0;
}
