#include "platform/nopoll/tls_link.h"

#include "platform/nopoll/cipher_order.h"
#include "platform/nopoll/net_connect.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <unistd.h>

namespace ws {
namespace {

WIRE_T &wireOf(BIO *bio)
{
    return *static_cast<WIRE_T *>(BIO_get_data(bio));
}

int writeToQueue(BIO *bio, const char *src, int size)
{
    BIO_clear_retry_flags(bio);
    const std::span bytes{reinterpret_cast<const uint8_t *>(src), static_cast<std::size_t>(size)};
    if (appendBytes(wireOf(bio).tx, bytes)) return size;
    wireOf(bio).error = ENOMEM;
    return -1;
}

int readFromSocket(BIO *bio, char *dst, int size)
{
    BIO_clear_retry_flags(bio);
    WIRE_T &wire = wireOf(bio);
    // The peer may be waiting for what we have to say first, in the handshake and at a change of
    // keys.
    if (!flushWire(wire)) return -1;
    const int got =
        receiveFromWire(wire, {reinterpret_cast<uint8_t *>(dst), static_cast<std::size_t>(size)});
    if (got == 0) BIO_set_retry_read(bio);
    if (got > 0) return got;
    return wire.ended_by_peer ? 0 : -1;
}

// Before each call of TLS: what an earlier one left there would pass for its reason. Looking costs
// less than clearing, which visits every entry.
void forgetErrors()
{
    if (ERR_peek_error() != 0) ERR_clear_error();
}

long controlQueue(BIO *bio, int command, long /*number*/, void * /*pointer*/)
{
    if (command == BIO_CTRL_FLUSH) return 1; // what is queued counts as written
    if (command == BIO_CTRL_EOF) return wireOf(bio).ended_by_peer ? 1 : 0;
    return 0;
}

// The reason OpenSSL gives for the last failure, or what happened to the socket.
const char *tlsFault(const WIRE_T &wire)
{
    if (wire.ended_by_peer || wire.error != 0) return wireFault(wire);
    const char *reason = ERR_reason_error_string(ERR_peek_last_error());
    return reason ? reason : "unknown error";
}

bool isTrustedItself(X509_STORE_CTX *store, X509 *certificate)
{
    STACK_OF(X509) *candidates =
        X509_STORE_CTX_get1_certs(store, X509_get_subject_name(certificate));
    bool found = false;
    for (int i = 0; !found && i < sk_X509_num(candidates); ++i)
        found = X509_cmp(sk_X509_value(candidates, i), certificate) == 0;
    sk_X509_pop_free(candidates, X509_free);
    return found;
}

// Called for each fault that the verification finds. Every other fault of a pinned certificate
// still refuses it.
int acceptPinnedCertificate(int accepted, X509_STORE_CTX *store)
{
    const int error = X509_STORE_CTX_get_error(store);
    if (error != X509_V_ERR_HOSTNAME_MISMATCH && error != X509_V_ERR_IP_ADDRESS_MISMATCH)
        return accepted;
    X509 *leaf = X509_STORE_CTX_get0_cert(store);
    const bool self_signed = (X509_get_extension_flags(leaf) & EXFLAG_SS) != 0;
    if (!self_signed || !isTrustedItself(store, leaf)) return accepted;
    X509_STORE_CTX_set_error(store, X509_V_OK);
    return 1;
}

// The system's error comes first. Otherwise the last error is the most precise, unless it only
// names the library that the first one comes from.
const char *fileFault()
{
    const unsigned long first = ERR_peek_error();
    const unsigned long last = ERR_peek_last_error();
    if (ERR_SYSTEM_ERROR(first)) return strerrordesc_np(ERR_GET_REASON(first));
    const bool names_library = (ERR_GET_REASON(last) & ERR_RFLAG_COMMON) != 0;
    return ERR_reason_error_string(names_library ? first : last);
}

bool failOnFile(FAILURE_T &failure, const char *what, const char *path)
{
    const char *reason = access(path, R_OK) != 0 ? strerrordesc_np(errno) : fileFault();
    return fail(failure, "cannot use the %s file %s: %s", what, path,
                reason ? reason : "not readable");
}

bool loadFiles(SSL_CTX *context, const TLS_SETTINGS_T &settings, FAILURE_T &failure)
{
    const char *const ca = settings.ca_certificate.get();
    const char *const chain = settings.chain_certificate.get();
    const char *const certificate = settings.client_certificate.get();
    const char *const key = settings.private_key.get();
    if (ca && SSL_CTX_load_verify_file(context, ca) != 1) return failOnFile(failure, "CA", ca);
    if (chain && SSL_CTX_use_certificate_chain_file(context, chain) != 1)
        return failOnFile(failure, "certificate chain", chain);
    if (certificate && SSL_CTX_use_certificate_file(context, certificate, SSL_FILETYPE_PEM) != 1)
        return failOnFile(failure, "client certificate", certificate);
    if (key && SSL_CTX_use_PrivateKey_file(context, key, SSL_FILETYPE_PEM) != 1)
        return failOnFile(failure, "private key", key);
    if (settings.verify && !ca)
        return fail(failure, "no CA file is set, so no server can be trusted");
    SSL_CTX_set_verify(context, settings.verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE,
                       acceptPinnedCertificate);
    return true;
}

bool expectServer(SSL *ssl, const char *name)
{
    X509_VERIFY_PARAM *parameters = SSL_get0_param(ssl);
    X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (isAddress(name)) return X509_VERIFY_PARAM_set1_ip_asc(parameters, name) == 1;
    return X509_VERIFY_PARAM_set1_host(parameters, name, 0) == 1 &&
           SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                    const_cast<char *>(name)) == 1;
}

bool attachWire(TLS_LINK_T &link, WIRE_T &wire)
{
    link.method.reset(BIO_meth_new(BIO_TYPE_SOURCE_SINK, "wire"));
    BIO_METHOD *const method = link.method.get();
    if (!method || BIO_meth_set_write(method, writeToQueue) != 1 ||
        BIO_meth_set_read(method, readFromSocket) != 1 ||
        BIO_meth_set_ctrl(method, controlQueue) != 1)
        return false;
    BIO *bio = BIO_new(method);
    if (!bio) return false;
    BIO_set_data(bio, &wire);
    BIO_set_init(bio, 1);
    SSL_set_bio(link.ssl.get(), bio, bio); // the connection owns it now
    return true;
}

bool failHandshake(const TLS_LINK_T &link, const WIRE_T &wire, FAILURE_T &failure)
{
    const long verdict = SSL_get_verify_result(link.ssl.get());
    if (verdict != X509_V_OK && SSL_get_verify_mode(link.ssl.get()) != SSL_VERIFY_NONE)
        return fail(failure, "the server's certificate is not accepted: %s",
                    X509_verify_cert_error_string(verdict));
    return fail(failure, "TLS handshake failed: %s", tlsFault(wire));
}

} // namespace

bool prepareTls(TLS_LINK_T &link, const TLS_SETTINGS_T &settings, const char *server_name,
                WIRE_T &wire, FAILURE_T &failure)
{
    forgetErrors();
    link.context.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX *const context = link.context.get();
    if (!context || SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1)
        return fail(failure, "TLS cannot be set up: %s", tlsFault(wire));
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_read_ahead(context, 1); // a system call for 64 KB instead of two for a record
    SSL_CTX_set_default_read_buffer_len(context, INPUT_SIZE);
    orderCiphers(context);
    if (!loadFiles(context, settings, failure)) return false;
    link.ssl.reset(SSL_new(context));
    if (!link.ssl || !expectServer(link.ssl.get(), server_name) || !attachWire(link, wire))
        return fail(failure, "TLS cannot be set up: %s", tlsFault(wire));
    return true;
}

bool shakeHands(TLS_LINK_T &link, WIRE_T &wire, int64_t deadline_ms, FAILURE_T &failure)
{
    for (;;) {
        wire.reads_left = READS_PER_CALL;
        forgetErrors();
        const int result = SSL_connect(link.ssl.get());
        if (result == 1) {
            link.established = true;
            return true;
        }
        const int error = SSL_get_error(link.ssl.get(), result);
        const bool unfinished = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
        if (!unfinished) (void)failHandshake(link, wire, failure);
        const bool flushed = flushWire(wire); // also the alert that gives the server the reason
        if (!unfinished) return false;
        if (!flushed) return failHandshake(link, wire, failure);
        const short events = bytesOf(wire.tx).empty() ? POLLIN : POLLIN | POLLOUT;
        if (pollUntil(wire.socket.get(), events, deadline_ms) == 0)
            return fail(failure, "TLS handshake failed: no answer from the server in time");
    }
}

TLS_WRITE writeTls(TLS_LINK_T &link, const WIRE_T &wire, std::span<const uint8_t> bytes,
                   FAILURE_T &failure)
{
    forgetErrors();
    std::size_t written = 0;
    if (SSL_write_ex(link.ssl.get(), bytes.data(), bytes.size(), &written) == 1)
        return TLS_WRITE::DONE;
    const int error = SSL_get_error(link.ssl.get(), 0);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return TLS_WRITE::NOT_TAKEN;
    link.established = false;
    fail(failure, "TLS write failed: %s", tlsFault(wire));
    return TLS_WRITE::FAILED;
}

int readTls(TLS_LINK_T &link, const WIRE_T &wire, std::span<uint8_t> dst, FAILURE_T &failure)
{
    forgetErrors();
    std::size_t got = 0;
    if (SSL_read_ex(link.ssl.get(), dst.data(), dst.size(), &got) == 1)
        return static_cast<int>(got);
    const int error = SSL_get_error(link.ssl.get(), 0);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) return 0;
    if (error == SSL_ERROR_ZERO_RETURN) {
        fail(failure, "the server ended the TLS connection");
    } else {
        link.established = false;
        fail(failure, "TLS read failed: %s", tlsFault(wire));
    }
    return -1;
}

int pendingTls(const TLS_LINK_T &link)
{
    const int decrypted = SSL_pending(link.ssl.get());
    return decrypted > 0 ? decrypted : SSL_has_pending(link.ssl.get());
}

void shutDownTls(TLS_LINK_T &link)
{
    if (!link.established) return;
    forgetErrors();
    SSL_shutdown(link.ssl.get());
    link.established = false;
}

} // namespace ws
