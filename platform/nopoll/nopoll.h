// WebSocket client (RFC 6455) over TCP or TLS: the functions that the cloud channel calls, no
// others.
//
// Ownership  a context is counted: the caller holds one reference from nopoll_ctx_new, each
//            connection another. Connection options are consumed by nopoll_conn_tls_new on every
//            path. A message is valid until its unref, or until the next nopoll_conn_get_msg or the
//            close of its connection.
// Threads    one thread at a time for a context and its connections; no locks inside.
// Blocking   nopoll_conn_new and _tls_new: at most 10 s for resolving, connecting, TLS and the
//            request together. nopoll_conn_wait_until_connection_ready: its own timeout.
//            nopoll_conn_send_binary and nopoll_conn_complete_pending_write: up to 60 ms for room
//            in the socket, 30 ms of it without the peer taking anything. Nothing else.
// Limits     a message sent has at most 16 MiB; a frame received may have any length. Nothing is
//            allocated for a message that is no longer than an earlier one.
// Identity   TLS 1.2 or later; with verification on, the peer is checked against the given CA file
//            alone, chain and name (see tls_link.h).
// Failure    a connection that fails says why through the context's log handler, once, and in
//            nopoll_ctx_failure. It is then not ok and has no socket; the descriptor itself stays
//            open until the next nopoll_conn_get_msg or the close, so that its number is no other
//            socket's meanwhile.
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

typedef enum {
    NOPOLL_LEVEL_DEBUG = 0,
    NOPOLL_LEVEL_INFO = 1,
    NOPOLL_LEVEL_WARNING = 2,
    NOPOLL_LEVEL_CRITICAL = 3
} noPollDebugLevel;
typedef void (*noPollLogHandler)(noPollCtx *ctx, noPollDebugLevel level, const char *log_msg,
                                 noPollPtr user_data);

// Context. A NULL handler ends the logging.
noPollCtx *nopoll_ctx_new(void);
void nopoll_ctx_unref(noPollCtx *ctx);
void nopoll_log_set_handler(noPollCtx *ctx, noPollLogHandler handler, noPollPtr user_data);
// Why the last connection of this context that failed did so, "" when none has. What a peer sent is
// quoted as printable ASCII. Valid until the next failure; an addition of this library.
const char *nopoll_ctx_failure(noPollCtx *ctx);
void nopoll_loop_stop(noPollCtx *ctx);
// Releases what is global to the library; a new context may be made afterwards.
void nopoll_cleanup_library(void);

// Connection options; verification is on. Each path may be NULL; the texts are copied. False when a
// named file cannot be read, and the connection made with these options then fails.
noPollConnOpts *nopoll_conn_opts_new(void);
nopoll_bool nopoll_conn_opts_set_ssl_certs(noPollConnOpts *opts, const char *client_certificate,
                                           const char *private_key, const char *chain_certificate,
                                           const char *ca_certificate);
void nopoll_conn_opts_ssl_peer_verify(noPollConnOpts *opts, nopoll_bool verify);

// Client connections. NULL when the host does not resolve; any other failure gives a connection
// that is not ok and has socket -1. nopoll_conn_tls_new returns after the TLS handshake, both
// return after the upgrade request was sent. What may be NULL: host_name (then host_ip; it goes
// into the Host header and is the name that the certificate must carry), get_url ("/"), protocols
// (none; no blanks), origin ("http://" and the host).
noPollConn *nopoll_conn_new(noPollCtx *ctx, const char *host_ip, const char *host_port,
                            const char *host_name, const char *get_url, const char *protocols,
                            const char *origin);
noPollConn *nopoll_conn_tls_new(noPollCtx *ctx, noPollConnOpts *options, const char *host_ip,
                                const char *host_port, const char *host_name, const char *get_url,
                                const char *protocols, const char *origin);
nopoll_bool nopoll_conn_is_ok(noPollConn *conn);
nopoll_bool nopoll_conn_is_tls_on(noPollConn *conn);
// True once the upgrade has been answered; waits at most `timeout` seconds. False at once when the
// socket is gone.
nopoll_bool nopoll_conn_wait_until_connection_ready(noPollConn *conn, int timeout);
// Sends a close frame if nothing is pending, closes the socket and frees the connection.
void nopoll_conn_close(noPollConn *conn);
noPollCtx *nopoll_conn_ctx(noPollConn *conn);
const char *nopoll_conn_get_origin(noPollConn *conn);
const char *nopoll_conn_get_requested_url(noPollConn *conn);
// The descriptor, the same until the connection ends; -1 from then on.
NOPOLL_SOCKET nopoll_conn_socket(noPollConn *conn);

// Receiving; text messages are handed out like binary ones. NULL when nothing is there yet and when
// the connection has ended (then nopoll_conn_socket is -1). A frame that is not there whole comes
// in pieces, none of them empty unless the whole message is; is_final is true for the piece that
// ends a message. The last byte of a fragment comes with the piece after it.
noPollMsg *nopoll_conn_get_msg(noPollConn *conn);
int nopoll_msg_get_payload_size(noPollMsg *msg);
const unsigned char *nopoll_msg_get_payload(noPollMsg *msg);
nopoll_bool nopoll_msg_is_final(noPollMsg *msg);
void nopoll_msg_unref(noPollMsg *msg);
// More than 0 while bytes already taken from the socket may let the next nopoll_conn_get_msg make
// progress: select does not see them.
int nopoll_conn_read_pending(noPollConn *conn);

// Sending, one binary frame each. The length when all went to the socket; the payload bytes that
// left when part of a plain frame left; -2 when nothing useful left (over TLS: whenever something
// is pending); -1 on a failure. Also -2 when the frame was not taken: while an earlier one is
// pending, and, with nothing pending, while only a part of a message of the server's TLS has come.
int nopoll_conn_send_binary(noPollConn *conn, const char *content, long length);
// Bytes of frames, with their headers and TLS records, that are not in the socket yet.
int nopoll_conn_pending_write_bytes(noPollConn *conn);
// Payload bytes that this call wrote (over TLS: all at once, when the last of the frame has left);
// 0 when nothing was pending; -2 when it would block, -1 on a failure. Ask
// nopoll_conn_pending_write_bytes afterwards to learn whether all is out.
int nopoll_conn_complete_pending_write(noPollConn *conn);

#ifdef __cplusplus
}
#endif
