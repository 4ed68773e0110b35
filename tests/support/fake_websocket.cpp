#include "tests/support/fake_websocket.h"

#include "src/resolver.h"

#include <cerrno>
#include <utility>

FAKE_WEBSOCKET_T fake_websocket;

struct noPollCtx {
    int references = 1;
};
struct noPollConn {
    noPollCtx *ctx;
};
struct noPollConnOpts {
    int verify = 2; // what the library does by itself must not matter
};
struct noPollMsg {
    PIECE_T piece;
};

namespace {

void record(const std::string &call, std::initializer_list<const char *> texts = {})
{
    fake_websocket.calls += call;
    for (const char *text : texts)
        fake_websocket.calls += std::string{" "} + (text != nullptr ? text : "-");
    fake_websocket.calls += "|";
}

void release(noPollCtx *ctx)
{
    if (--ctx->references == 0) delete ctx;
}

noPollConn *connectOn(noPollCtx *ctx)
{
    if (!fake_websocket.has_conn) return nullptr;
    ++ctx->references;
    return new noPollConn{ctx};
}

int step(std::deque<WRITE_STEP_T> &script, WRITE_STEP_T next)
{
    if (!script.empty()) {
        next = script.front();
        script.pop_front();
    }
    fake_websocket.pending = next.pending;
    fake_websocket.ok = fake_websocket.ok && next.ok;
    return next.result;
}

} // namespace

int refreshResolver() noexcept
{
    record("res_init");
    errno = fake_websocket.resolver_result != 0 ? EIO : 0;
    return fake_websocket.resolver_result;
}
noPollCtx *nopoll_ctx_new()
{
    record("ctx_new");
    return fake_websocket.has_ctx ? new noPollCtx{} : nullptr;
}
void nopoll_ctx_unref(noPollCtx *ctx)
{
    record("ctx_unref");
    release(ctx);
}
void nopoll_log_set_handler(noPollCtx *ctx, noPollLogHandler handler, noPollPtr)
{
    record(ctx->references > 0 && handler != nullptr ? "handler on" : "handler off");
    fake_websocket.handler = handler;
}
const char *nopoll_ctx_failure(noPollCtx *ctx)
{
    return ctx->references > 0 ? fake_websocket.failure : "of a dead context";
}
void nopoll_loop_stop(noPollCtx *ctx)
{
    record(ctx->references > 0 ? "loop_stop" : "loop_stop of a dead context");
}
void nopoll_cleanup_library()
{
    record("cleanup");
}
noPollConnOpts *nopoll_conn_opts_new()
{
    record("opts_new");
    return fake_websocket.has_opts ? new noPollConnOpts{} : nullptr;
}
nopoll_bool nopoll_conn_opts_set_ssl_certs(noPollConnOpts *, const char *certificate,
                                           const char *key, const char *chain, const char *ca)
{
    record("certs", {certificate, key, chain, ca});
    return nopoll_false;
}
void nopoll_conn_opts_ssl_peer_verify(noPollConnOpts *opts, nopoll_bool verify)
{
    opts->verify = verify;
}
noPollConn *nopoll_conn_new(noPollCtx *ctx, const char *host, const char *port, const char *name,
                            const char *url, const char *protocols, const char *origin)
{
    record("new", {host, port, name, url, protocols, origin});
    return connectOn(ctx);
}
noPollConn *nopoll_conn_tls_new(noPollCtx *ctx, noPollConnOpts *options, const char *host,
                                const char *port, const char *name, const char *url,
                                const char *protocols, const char *origin)
{
    record("tls_new verify " + std::to_string(options->verify),
           {host, port, name, url, protocols, origin});
    delete options;
    return connectOn(ctx);
}
nopoll_bool nopoll_conn_is_ok(noPollConn *conn)
{
    return conn->ctx->references > 0 && fake_websocket.ok ? nopoll_true : nopoll_false;
}
nopoll_bool nopoll_conn_is_tls_on(noPollConn *)
{
    return fake_websocket.tls_on ? nopoll_true : nopoll_false;
}
nopoll_bool nopoll_conn_wait_until_connection_ready(noPollConn *, int timeout)
{
    record("wait " + std::to_string(timeout));
    return --fake_websocket.ready_on_wait == 0 ? nopoll_true : nopoll_false;
}
void nopoll_conn_close(noPollConn *conn)
{
    record("close");
    release(conn->ctx);
    delete conn;
}
noPollCtx *nopoll_conn_ctx(noPollConn *conn)
{
    return conn->ctx;
}
NOPOLL_SOCKET nopoll_conn_socket(noPollConn *conn)
{
    return conn->ctx != nullptr ? fake_websocket.socket_fd : -1;
}
noPollMsg *nopoll_conn_get_msg(noPollConn *)
{
    if (fake_websocket.incoming.empty()) return nullptr;
    auto *const message = new noPollMsg{std::move(fake_websocket.incoming.front())};
    fake_websocket.incoming.pop_front();
    return message;
}
int nopoll_msg_get_payload_size(noPollMsg *msg)
{
    return static_cast<int>(msg->piece.bytes.size());
}
const unsigned char *nopoll_msg_get_payload(noPollMsg *msg)
{
    const auto *const bytes = reinterpret_cast<const unsigned char *>(msg->piece.bytes.data());
    return msg->piece.has_payload ? bytes : nullptr;
}
nopoll_bool nopoll_msg_is_final(noPollMsg *msg)
{
    return msg->piece.fin ? nopoll_true : nopoll_false;
}
void nopoll_msg_unref(noPollMsg *msg)
{
    delete msg;
}
int nopoll_conn_read_pending(noPollConn *)
{
    return fake_websocket.read_pending;
}
int nopoll_conn_send_binary(noPollConn *, const char *content, long length)
{
    fake_websocket.sent.emplace_back(content, static_cast<std::size_t>(length));
    return step(fake_websocket.sends, {static_cast<int>(length)});
}
int nopoll_conn_pending_write_bytes(noPollConn *)
{
    return fake_websocket.pending;
}
int nopoll_conn_complete_pending_write(noPollConn *)
{
    return step(fake_websocket.completions, {-2, fake_websocket.pending});
}
