#include "platform/nopoll/nopoll.h"

#include "platform/nopoll/connection.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <openssl/rand.h>
#include <poll.h>
#include <unistd.h>

struct noPollConnOpts {
    ws::TLS_SETTINGS_T tls;
};

namespace {

using OptionsPtr = std::unique_ptr<noPollConnOpts>;

constexpr int64_t CONNECT_TIMEOUT_MS = 10000; // resolving, connecting, TLS and the request together
constexpr long WOULD_BLOCK = -2;

struct TARGET_T {
    const char *host;
    const char *port;
    const char *host_name;
    const char *path;
    const char *protocols;
    const char *origin;
};

HeapText copyOf(const char *text)
{
    return HeapText{text ? strdup(text) : nullptr};
}

// A text that goes into a line of the request: no byte of it may end that line.
template <std::size_t N> bool copyRequestText(char (&dst)[N], const char *text)
{
    const std::string_view source{text};
    const bool clean =
        std::all_of(source.begin(), source.end(), [](char c) { return c > ' ' && c < 0x7f; });
    if (!clean || source.size() >= N) return false;
    source.copy(dst, N - 1);
    return true;
}

bool isPort(const char *text)
{
    const std::size_t digits = strspn(text, "0123456789");
    if (digits == 0 || digits >= ws::PORT_TEXT_SIZE || text[digits] != '\0') return false;
    const long port = strtol(text, nullptr, 10);
    return port >= 1 && port <= 65535;
}

bool describeTarget(noPollConn &conn, const TARGET_T &target, ws::FAILURE_T &failure)
{
    if (!target.host || target.host[0] == '\0' || !copyRequestText(conn.host, target.host))
        return ws::fail(failure,
                        "the server's host name is empty, too long or has bytes that no name has");
    if (!target.port || !isPort(target.port) || !copyRequestText(conn.port, target.port))
        return ws::fail(failure, "the server's port is not a number from 1 to 65535");
    if (!copyRequestText(conn.host_name, target.host_name ? target.host_name : target.host))
        return ws::fail(failure,
                        "the host name for the request is too long or has bytes that no name has");
    const bool bare_ipv6 = strchr(conn.host_name, ':') != nullptr && ws::isAddress(conn.host_name);
    (void)snprintf(conn.host_header, sizeof conn.host_header, bare_ipv6 ? "[%s]" : "%s",
                   conn.host_name);
    char origin[sizeof conn.origin];
    (void)snprintf(origin, sizeof origin, "http://%s", conn.host_header);
    if (!copyRequestText(conn.path, target.path ? target.path : "/") || conn.path[0] != '/' ||
        !copyRequestText(conn.origin, target.origin ? target.origin : origin) ||
        !copyRequestText(conn.protocols, target.protocols ? target.protocols : ""))
        return ws::fail(
            failure, "the request's path, origin or sub-protocols are too long or not clean text");
    return true;
}

bool writeTlsUntil(noPollConn &conn, std::span<const uint8_t> bytes, int64_t deadline_ms,
                   ws::FAILURE_T &failure)
{
    for (;;) {
        conn.wire.reads_left = ws::READS_PER_CALL;
        const ws::TLS_WRITE result = ws::writeTls(conn.tls, conn.wire, bytes, failure);
        if (result != ws::TLS_WRITE::NOT_TAKEN) return result == ws::TLS_WRITE::DONE;
        if (ws::pollUntil(conn.wire.socket.get(), POLLIN, deadline_ms) == 0)
            return ws::fail(failure, "TLS write failed: no rest of the server's message in time");
    }
}

bool sendUpgradeRequest(noPollConn &conn, int64_t deadline_ms, ws::FAILURE_T &failure)
{
    uint8_t nonce[ws::NONCE_SIZE];
    char key[ws::KEY_TEXT_SIZE];
    if (RAND_bytes(nonce, sizeof nonce) != 1) return ws::fail(failure, "no random bytes");
    ws::makeKeyText(nonce, key);
    if (!ws::makeAcceptText(key, conn.accept)) return ws::fail(failure, "SHA-1 is not available");
    char text[ws::MAX_UPGRADE_REQUEST];
    const std::size_t length = ws::formatUpgradeRequest(
        {conn.host_header, conn.path, conn.origin, conn.protocols, key}, text);
    const std::span bytes{reinterpret_cast<const uint8_t *>(text), length};
    if (length == 0) return ws::fail(failure, "the upgrade request is too long");
    if (conn.tls_on && !writeTlsUntil(conn, bytes, deadline_ms, failure)) return false;
    if (!conn.tls_on && !ws::appendBytes(conn.wire.tx, bytes))
        return ws::fail(failure, "out of memory");
    if (!ws::flushWireUntil(conn.wire, deadline_ms))
        return ws::fail(failure, "cannot send the upgrade request: %s", ws::wireFault(conn.wire));
    return true;
}

// False with `unresolved` set when the host has no address, which the callers report differently.
bool establish(noPollConn &conn, const noPollConnOpts *options, ws::FAILURE_T &failure,
               bool &unresolved)
{
    const int64_t deadline_ms = ws::monotonicMs() + CONNECT_TIMEOUT_MS;
    const ws::TLS_SETTINGS_T defaults{};
    const ws::TLS_SETTINGS_T &settings = options ? options->tls : defaults;
    if (conn.tls_on && !ws::prepareTls(conn.tls, settings, conn.host_name, conn.wire, failure))
        return false;
    const ws::AddressListPtr addresses =
        ws::resolveHost(conn.host, conn.port, deadline_ms, failure);
    unresolved = !addresses;
    if (unresolved) return false;
    conn.wire.socket = ws::connectToAny(addresses.get(), deadline_ms, failure);
    if (!conn.wire.socket) return false;
    if (conn.tls_on && !ws::shakeHands(conn.tls, conn.wire, deadline_ms, failure)) return false;
    return sendUpgradeRequest(conn, deadline_ms, failure);
}

noPollConn *openConnection(noPollCtx *context, const TARGET_T &target, bool tls_on,
                           const noPollConnOpts *options)
{
    if (!context) return nullptr;
    auto *conn = new (std::nothrow) noPollConn();
    if (!conn) return nullptr;
    conn->context = context;
    ++context->references;
    conn->tls_on = tls_on;
    conn->rx.headroom = conn->rx.start = conn->rx.end = 1; // for the byte held back
    conn->masks_used = sizeof conn->masks;
    ws::FAILURE_T failure{};
    bool unresolved = false;
    if (describeTarget(*conn, target, failure) && establish(*conn, options, failure, unresolved)) {
        ws::logLine(context, NOPOLL_LEVEL_DEBUG, "connected to %s port %s%s%s", conn->host,
                    conn->port, tls_on ? " with " : "",
                    tls_on ? SSL_get_version(conn->tls.ssl.get()) : "");
        return conn;
    }
    ws::logLine(context, NOPOLL_LEVEL_CRITICAL, "no channel to %s port %s: %s", conn->host,
                conn->port, failure.text);
    context->failure = failure;
    conn->ended = true;
    ws::closeSocket(*conn);
    if (!unresolved) return conn;
    nopoll_conn_close(conn);
    return nullptr;
}

} // namespace

noPollCtx *nopoll_ctx_new(void)
{
    return new (std::nothrow) noPollCtx{1, nullptr, nullptr, {}};
}

void nopoll_ctx_unref(noPollCtx *ctx)
{
    if (ctx && --ctx->references == 0) delete ctx;
}

void nopoll_log_set_handler(noPollCtx *ctx, noPollLogHandler handler, noPollPtr user_data)
{
    if (!ctx) return;
    ctx->handler = handler;
    ctx->user_data = user_data;
}

const char *nopoll_ctx_failure(noPollCtx *ctx)
{
    return ctx ? ctx->failure.text : "";
}

void nopoll_loop_stop(noPollCtx *) {} // there is no loop inside

void nopoll_cleanup_library(void) {} // nothing outlives its connection

noPollConnOpts *nopoll_conn_opts_new(void)
{
    return new (std::nothrow) noPollConnOpts();
}

nopoll_bool nopoll_conn_opts_set_ssl_certs(noPollConnOpts *opts, const char *client_certificate,
                                           const char *private_key, const char *chain_certificate,
                                           const char *ca_certificate)
{
    if (!opts) return nopoll_false;
    opts->tls.client_certificate = copyOf(client_certificate);
    opts->tls.private_key = copyOf(private_key);
    opts->tls.chain_certificate = copyOf(chain_certificate);
    opts->tls.ca_certificate = copyOf(ca_certificate);
    for (const char *path : {client_certificate, private_key, chain_certificate, ca_certificate})
        if (path && access(path, R_OK) != 0) return nopoll_false;
    return nopoll_true;
}

void nopoll_conn_opts_ssl_peer_verify(noPollConnOpts *opts, nopoll_bool verify)
{
    if (opts) opts->tls.verify = verify != nopoll_false;
}

noPollConn *nopoll_conn_new(noPollCtx *ctx, const char *host_ip, const char *host_port,
                            const char *host_name, const char *get_url, const char *protocols,
                            const char *origin)
{
    return openConnection(ctx, {host_ip, host_port, host_name, get_url, protocols, origin}, false,
                          nullptr);
}

noPollConn *nopoll_conn_tls_new(noPollCtx *ctx, noPollConnOpts *options, const char *host_ip,
                                const char *host_port, const char *host_name, const char *get_url,
                                const char *protocols, const char *origin)
{
    const OptionsPtr consumed{options};
    return openConnection(ctx, {host_ip, host_port, host_name, get_url, protocols, origin}, true,
                          options);
}

nopoll_bool nopoll_conn_is_ok(noPollConn *conn)
{
    return conn && !conn->ended ? nopoll_true : nopoll_false;
}

nopoll_bool nopoll_conn_is_tls_on(noPollConn *conn)
{
    return conn && conn->tls_on && !conn->ended ? nopoll_true : nopoll_false;
}

nopoll_bool nopoll_conn_wait_until_connection_ready(noPollConn *conn, int timeout)
{
    if (!conn) return nopoll_false;
    const int64_t deadline_ms = ws::monotonicMs() + static_cast<int64_t>(timeout) * 1000;
    while (!conn->ended) {
        ws::advanceUpgrade(*conn);
        if (conn->ended) break;
        if (!ws::pushOut(*conn)) break;
        if (conn->ready) return nopoll_true;
        if (ws::pollUntil(conn->wire.socket.get(), POLLIN, deadline_ms) == 0) {
            ws::fail(conn->context->failure, "no answer to the upgrade request in time");
            break;
        }
    }
    return nopoll_false;
}

void nopoll_conn_close(noPollConn *conn)
{
    if (!conn) return;
    conn->wire.reads_left = ws::READS_PER_CALL;
    ws::sayGoodbye(*conn, ws::CLOSE_NORMAL);
    noPollCtx *const context = conn->context;
    delete conn;
    nopoll_ctx_unref(context);
}

noPollCtx *nopoll_conn_ctx(noPollConn *conn)
{
    return conn ? conn->context : nullptr;
}

const char *nopoll_conn_get_origin(noPollConn *conn)
{
    return conn ? conn->origin : nullptr;
}

const char *nopoll_conn_get_requested_url(noPollConn *conn)
{
    return conn ? conn->path : nullptr;
}

NOPOLL_SOCKET nopoll_conn_socket(noPollConn *conn)
{
    return conn && !conn->ended ? conn->wire.socket.get() : -1;
}

noPollMsg *nopoll_conn_get_msg(noPollConn *conn)
{
    if (!conn) return nullptr;
    noPollMsg *message = nullptr;
    if (!conn->ended && !conn->ready) ws::advanceUpgrade(*conn);
    if (!conn->ended && conn->ready) {
        conn->wire.reads_left = ws::READS_PER_CALL;
        message = ws::nextPiece(*conn);
    }
    if (!conn->ended) (void)ws::pushOut(*conn); // TLS may have written records of its own
    if (conn->ended && !message) ws::closeSocket(*conn);
    return message;
}

int nopoll_msg_get_payload_size(noPollMsg *msg)
{
    return msg ? msg->size : 0;
}

const unsigned char *nopoll_msg_get_payload(noPollMsg *msg)
{
    return msg ? msg->payload : nullptr;
}

nopoll_bool nopoll_msg_is_final(noPollMsg *msg)
{
    return msg && msg->final ? nopoll_true : nopoll_false;
}

void nopoll_msg_unref(noPollMsg *msg)
{
    if (msg) *msg = {};
}

int nopoll_conn_read_pending(noPollConn *conn)
{
    if (!conn || conn->ended || conn->starved) return 0;
    const int in_tls = conn->tls_on ? ws::pendingTls(conn->tls) : 0;
    return static_cast<int>(ws::bytesOf(conn->rx).size()) + in_tls;
}

int nopoll_conn_send_binary(noPollConn *conn, const char *content, long length)
{
    if (!conn || conn->ended || !conn->ready || length < 0 || (!content && length > 0)) return -1;
    if (static_cast<std::size_t>(length) > ws::MAX_MESSAGE) {
        ws::logLine(conn->context, NOPOLL_LEVEL_WARNING, "message of %ld bytes not sent: too long",
                    length);
        return -1;
    }
    conn->wire.reads_left = ws::READS_PER_CALL;
    if (!ws::pushOut(*conn)) return -1;
    if (!ws::bytesOf(conn->wire.tx).empty()) return WOULD_BLOCK;
    const auto size = static_cast<std::size_t>(length);
    const std::span payload{reinterpret_cast<const uint8_t *>(content), size};
    const ws::QUEUED result = ws::queueFrame(*conn, ws::OPCODE_BINARY, payload);
    if (result == ws::QUEUED::NOT_TAKEN) return WOULD_BLOCK;
    if (result == ws::QUEUED::ENDED || !ws::pushOutPatiently(*conn)) return -1;
    if (ws::bytesOf(conn->wire.tx).empty()) return static_cast<int>(length);
    const std::size_t sent = size - conn->payload_unsent;
    return sent > 0 ? static_cast<int>(sent) : static_cast<int>(WOULD_BLOCK);
}

int nopoll_conn_pending_write_bytes(noPollConn *conn)
{
    return conn && !conn->ended ? static_cast<int>(ws::bytesOf(conn->wire.tx).size()) : 0;
}

int nopoll_conn_complete_pending_write(noPollConn *conn)
{
    if (!conn || conn->ended) return -1;
    conn->wire.reads_left = ws::READS_PER_CALL;
    const std::size_t before = conn->payload_unsent;
    if (!ws::pushOutPatiently(*conn)) return -1;
    const std::size_t sent = before - conn->payload_unsent;
    const bool pending = !ws::bytesOf(conn->wire.tx).empty();
    return sent == 0 && pending ? static_cast<int>(WOULD_BLOCK) : static_cast<int>(sent);
}
