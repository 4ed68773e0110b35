// WebSocket client (RFC 6455) over TCP or TLS: the functions that the cloud channel calls, and no others.
//
// Ownership  a context is counted: the caller holds one reference from nopoll_ctx_new, each connection another.
//            Connection options are consumed by nopoll_conn_tls_new on every path.
//            A message is valid until its unref, or until the next nopoll_conn_get_msg or close of its connection.
// Threads    one thread at a time for a context and its connections; no locks inside.
// Blocking   nopoll_conn_new and _tls_new: at most CONNECT_TIMEOUT_MS for resolving, connecting and TLS together.
//            nopoll_conn_wait_until_connection_ready: its own timeout. nopoll_conn_send_binary and
//            nopoll_conn_complete_pending_write: a bounded wait for room while the peer is taking bytes. Nothing else.
// Identity   with a CA file the peer's chain and name are verified against that file alone (see nopoll_tls.h).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef int nopoll_bool;
#define nopoll_true 1
#define nopoll_false 0

typedef void *noPollPtr;
typedef int NOPOLL_SOCKET;

typedef struct noPollCtx noPollCtx;
typedef struct noPollConn noPollConn;
typedef struct noPollConnOpts noPollConnOpts;
typedef struct noPollMsg noPollMsg;

typedef enum { NOPOLL_LEVEL_DEBUG = 0, NOPOLL_LEVEL_INFO = 1, NOPOLL_LEVEL_WARNING = 2, NOPOLL_LEVEL_CRITICAL = 3 } noPollDebugLevel;
typedef void (*noPollLogHandler)(noPollCtx *ctx, noPollDebugLevel level, const char *log_msg, noPollPtr user_data);

// Context. A NULL handler ends the logging.
noPollCtx *nopoll_ctx_new(void);
void nopoll_ctx_unref(noPollCtx *ctx);
void nopoll_log_set_handler(noPollCtx *ctx, noPollLogHandler handler, noPollPtr user_data);
void nopoll_loop_stop(noPollCtx *ctx);
// Releases what is global to the library; a new context may be made afterwards.
void nopoll_cleanup_library(void);

// Connection options. Each path may be NULL; the texts are copied. False when a named file cannot be read.
noPollConnOpts *nopoll_conn_opts_new(void);
nopoll_bool nopoll_conn_opts_set_ssl_certs(noPollConnOpts *opts, const char *client_certificate, const char *private_key,
                                           const char *chain_certificate, const char *ca_certificate);
void nopoll_conn_opts_ssl_peer_verify(noPollConnOpts *opts, nopoll_bool verify);

// Client connections. host_name (Host header), get_url ("/"), protocols (none) and origin ("http://<host>") may be NULL.
// NULL when the host does not resolve; any other failure gives a connection that is not ok and has socket -1.
// nopoll_conn_tls_new returns after the TLS handshake, both return after the upgrade request was sent.
noPollConn *nopoll_conn_new(noPollCtx *ctx, const char *host_ip, const char *host_port, const char *host_name,
                            const char *get_url, const char *protocols, const char *origin);
noPollConn *nopoll_conn_tls_new(noPollCtx *ctx, noPollConnOpts *options, const char *host_ip, const char *host_port,
                                const char *host_name, const char *get_url, const char *protocols, const char *origin);
nopoll_bool nopoll_conn_is_ok(noPollConn *conn);
nopoll_bool nopoll_conn_is_tls_on(noPollConn *conn);
// True once the upgrade has been answered; waits at most `timeout` seconds. False at once when the socket is gone.
nopoll_bool nopoll_conn_wait_until_connection_ready(noPollConn *conn, int timeout);
// Sends a close frame if nothing is pending, closes the socket and frees the connection.
void nopoll_conn_close(noPollConn *conn);
noPollCtx *nopoll_conn_ctx(noPollConn *conn);
const char *nopoll_conn_get_origin(noPollConn *conn);
const char *nopoll_conn_get_requested_url(noPollConn *conn);
// The descriptor, the same until the connection ends; -1 from then on.
NOPOLL_SOCKET nopoll_conn_socket(noPollConn *conn);

// Receiving. NULL when nothing is there yet and when the connection has ended (then nopoll_conn_socket is -1).
// A frame that is not there whole is handed out in pieces; is_final is true for the piece that ends a message.
noPollMsg *nopoll_conn_get_msg(noPollConn *conn);
int nopoll_msg_get_payload_size(noPollMsg *msg);
const unsigned char *nopoll_msg_get_payload(noPollMsg *msg);
nopoll_bool nopoll_msg_is_final(noPollMsg *msg);
void nopoll_msg_unref(noPollMsg *msg);
// Bytes already taken from the socket that the next nopoll_conn_get_msg can make progress on: select does not see them.
int nopoll_conn_read_pending(noPollConn *conn);

// Sending, one binary frame each. length when all went to the socket; the payload bytes that left when part of a plain
// frame left; -2 when nothing left (over TLS: whenever something is pending); -1 on a failure. A frame is not taken
// (-2) while an earlier one is pending.
int nopoll_conn_send_binary(noPollConn *conn, const char *content, long length);
// Bytes of frames, headers included, that are not in the socket yet.
int nopoll_conn_pending_write_bytes(noPollConn *conn);
// Payload bytes that this call wrote; 0 when nothing was pending; negative when it would block or failed.
// Ask nopoll_conn_pending_write_bytes afterwards to learn whether all is out.
int nopoll_conn_complete_pending_write(noPollConn *conn);

#ifdef __cplusplus
}
#endif
