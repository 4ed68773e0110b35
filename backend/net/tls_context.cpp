#include "backend/net/tls_context.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <boost/asio/ssl/context.hpp>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;

struct TLS_CONTEXT_T {
    asio::ssl::context context{asio::ssl::context::tls_server};
};

// The library has no words of its own for a file that is not there.
static void requireReadable(const std::string &file)
{
    if (access(file.c_str(), R_OK) != 0) throw std::runtime_error(file + ": " + strerror(errno));
}

static void acceptClients(SSL_CTX *context, const std::string &ca_file)
{
    requireReadable(ca_file);
    STACK_OF(X509_NAME) *const names = SSL_load_client_CA_file(ca_file.c_str());
    if (names == nullptr || SSL_CTX_load_verify_file(context, ca_file.c_str()) != 1) {
        sk_X509_NAME_pop_free(names, X509_NAME_free);
        throw std::runtime_error(ca_file + ": no usable certificate of an authority");
    }
    SSL_CTX_set_client_CA_list(context, names); // which it owns then
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    constexpr std::array<unsigned char, 3> NAME{'a', 'p', 'i'}; // asked for, though nothing resumes
    (void)SSL_CTX_set_session_id_context(context, NAME.data(), NAME.size());
}

std::shared_ptr<TLS_CONTEXT_T> makeTlsContext(const std::string &cert_file,
                                              const std::string &key_file,
                                              const std::string &client_ca_file)
{
    requireReadable(cert_file);
    requireReadable(key_file);
    auto tls = std::make_shared<TLS_CONTEXT_T>();
    SSL_CTX *const context = tls->context.native_handle();
    // Devices do not resume sessions: neither tickets are made nor is anything kept for them.
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(context, 0);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    if (SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1)
        throw std::runtime_error("TLS 1.2 is not available");
    error_code error;
    tls->context.use_certificate_chain_file(cert_file, error);
    if (error) throw std::runtime_error(cert_file + ": no usable certificate: " + error.message());
    tls->context.use_private_key_file(key_file, asio::ssl::context::pem, error);
    if (error)
        throw std::runtime_error(key_file +
                                 ": no usable key for the certificate: " + error.message());
    if (!client_ca_file.empty()) acceptClients(context, client_ca_file);
    return tls;
}

ssl_ctx_st *nativeContext(const TLS_CONTEXT_T &tls)
{
    return const_cast<TLS_CONTEXT_T &>(tls).context.native_handle();
}

// A name with a NUL within is none: others would read it as a shorter one.
static void addName(std::vector<std::string> &names, const GENERAL_NAME &name)
{
    if (name.type != GEN_DNS && name.type != GEN_EMAIL && name.type != GEN_URI) return;
    const ASN1_IA5STRING *const text = name.d.ia5;
    std::string value(reinterpret_cast<const char *>(ASN1_STRING_get0_data(text)),
                      static_cast<std::size_t>(ASN1_STRING_length(text)));
    if (!value.empty() && value.find('\0') == std::string::npos) names.push_back(std::move(value));
}

std::vector<std::string> peerNames(const ssl_st *ssl)
{
    const X509 *const certificate = SSL_get0_peer_certificate(ssl);
    std::vector<std::string> names;
    if (certificate == nullptr || (SSL_get_verify_mode(ssl) & SSL_VERIFY_PEER) == 0 ||
        SSL_get_verify_result(ssl) != X509_V_OK)
        return names;
    const std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> found(
        static_cast<GENERAL_NAMES *>(
            X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)),
        &GENERAL_NAMES_free);
    for (int i = 0; i < sk_GENERAL_NAME_num(found.get()); i++)
        addName(names, *sk_GENERAL_NAME_value(found.get(), i));
    return names;
}

} // namespace backend
