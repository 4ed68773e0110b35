// What a port needs for TLS: certificate and key, and the authority of its clients where they may
// show certificates of their own. TLS 1.2 or later; sessions are not resumed.
// Ownership  a connection keeps the context it was made with; a port may have another one by then.
// Threads    the thread of the io_context.
// Failure    makeTlsContext throws std::runtime_error with the file's name.
#pragma once

#include <memory>
#include <string>
#include <vector>

struct ssl_ctx_st;
struct ssl_st;

namespace backend {

struct TLS_CONTEXT_T;

// client_ca_file: PEM, for clients that may show a certificate. One that it has not signed ends the
// handshake; a client without one gets in all the same. Empty: none is asked for.
std::shared_ptr<TLS_CONTEXT_T> makeTlsContext(const std::string &cert_file,
                                              const std::string &key_file,
                                              const std::string &client_ca_file = {});
ssl_ctx_st *nativeContext(const TLS_CONTEXT_T &tls);

// The subject alternative names (DNS, email, URI) of the certificate that the peer has shown and
// the authority has signed. Empty without one.
std::vector<std::string> peerNames(const ssl_st *ssl);

} // namespace backend
