#include "operator/carrier/https_connection.h"

#include "operator/carrier/proxy.h"
#include "operator/carrier/request_error.h"
#include "operator/carrier/resolver.h"
#include "utility/handles.h"

#include <vector>

#include <boost/asio/ssl/error.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace http = boost::beast::http;
namespace ssl = boost::asio::ssl;
using boost::asio::ip::tcp;
using boost::system::error_code;
using std::chrono::steady_clock;

namespace {

constexpr std::size_t PROXY_HEADER_MAX = 16384;
constexpr std::size_t NAMES_SHOWN_MAX = 4;

using CertificatePtr = std::unique_ptr<X509, Releaser<X509_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, Releaser<GENERAL_NAMES_free>>;

std::string opensslFault()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char *const reason = ERR_reason_error_string(code);
    return reason == nullptr ? "unknown fault" : reason;
}

[[noreturn]] void failFile(const std::string &path, const char *what)
{
    throw RequestError(path + ": " + what + " (" + opensslFault() + ")", false);
}

// ---- TCP

void setOptions(tcp::socket &socket)
{
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    socket.set_option(boost::asio::socket_base::keep_alive(true), ignored);
}

// Each address gets its share of the time, so that a dead one does not take it all.
void connectAny(HTTPS_CONNECTION_T &connection, const std::vector<tcp::endpoint> &endpoints,
                steady_clock::time_point end, const std::string &name)
{
    auto &stream = boost::beast::get_lowest_layer(*connection.stream);
    error_code first_fault; // of the address that the system prefers
    for (std::size_t i = 0; i < endpoints.size(); ++i) {
        const auto now = steady_clock::now();
        stream.expires_at(now + (end - now) / static_cast<int>(endpoints.size() - i));
        const error_code fault = waitFor(connection.io, [&](auto handler) {
            stream.async_connect(endpoints[i], std::move(handler));
        });
        if (!fault) return setOptions(stream.socket());
        if (!first_fault) first_fault = fault;
        stream.close();
    }
    const std::string reason =
        first_fault == boost::beast::error::timeout ? "no answer in time" : first_fault.message();
    throw RequestError(name + ": cannot be reached: " + reason, true);
}

// ---- the proxy

std::string statusText(unsigned status, boost::beast::string_view reason)
{
    return std::to_string(status) + " " + std::string(reason);
}

std::string refusalOf(const URL_T &proxy, const http::response_header<> &header)
{
    const std::string name = proxyName(proxy);
    std::string text = name + " has refused: " + statusText(header.result_int(), header.reason());
    if (header.result() != http::status::proxy_authentication_required) return text;
    return text + (proxy.user.empty() ? "; it wants an account: https_proxy=http://USER:PASSWORD@" +
                                            hostAndPort(proxy)
                                      : "; check the user and the password in https_proxy");
}

void askProxy(HTTPS_CONNECTION_T &connection, const URL_T &proxy, const URL_T &server)
{
    auto &stream = boost::beast::get_lowest_layer(*connection.stream);
    const std::string target = hostAndPort(server);
    http::request<http::empty_body> request{http::verb::connect, target, 11};
    request.set(http::field::host, target);
    if (const std::string account = proxyAuthorization(proxy); !account.empty())
        request.set(http::field::proxy_authorization, account);
    error_code fault = waitFor(connection.io, [&](auto handler) {
        http::async_write(stream, request, std::move(handler));
    });
    http::response_parser<http::empty_body> parser;
    parser.skip(true); // what follows is the tunnel
    parser.header_limit(PROXY_HEADER_MAX);
    if (!fault)
        fault = waitFor(connection.io, [&](auto handler) {
            http::async_read_header(stream, connection.received, parser, std::move(handler));
        });
    if (fault)
        throw RequestError(proxyName(proxy) + ": has not answered: " + fault.message(), true);
    if (http::to_status_class(parser.get().result()) != http::status_class::successful)
        throw RequestError(refusalOf(proxy, parser.get()), true);
    // Nothing can have come through the tunnel yet.
    connection.received.clear();
}

// ---- TLS

bool isAddress(const std::string &host)
{
    error_code fault;
    (void)boost::asio::ip::make_address(host, fault);
    return !fault;
}

void expectName(SSL *tls, const URL_T &url)
{
    if (isAddress(url.host)) {
        (void)X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(tls), url.host.c_str());
        return;
    }
    SSL_set_hostflags(tls, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    (void)SSL_set1_host(tls, url.host.c_str());
    // What SSL_set_tlsext_host_name() is, without its cast.
    (void)SSL_ctrl(tls, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                   const_cast<char *>(url.host.c_str()));
}

std::string nameText(const GENERAL_NAME &name)
{
    if (name.type != GEN_DNS) return "";
    return {reinterpret_cast<const char *>(ASN1_STRING_get0_data(name.d.dNSName)),
            static_cast<std::size_t>(ASN1_STRING_length(name.d.dNSName))};
}

// ": it names a, b"
std::string namesOf(SSL *tls)
{
    const CertificatePtr certificate{SSL_get_peer_certificate(tls)};
    if (!certificate) return "";
    const NamesPtr names{static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(certificate.get(), NID_subject_alt_name, nullptr, nullptr))};
    std::string text;
    const int count = names ? sk_GENERAL_NAME_num(names.get()) : 0;
    for (int i = 0, shown = 0; i < count && shown < static_cast<int>(NAMES_SHOWN_MAX); ++i) {
        const std::string name = nameText(*sk_GENERAL_NAME_value(names.get(), i));
        if (name.empty()) continue;
        text += (text.empty() ? "; it is for " : ", ") + name;
        ++shown;
    }
    return text;
}

std::string verifyFault(SSL *tls, long result, const URL_T &url)
{
    switch (result) {
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return "its certificate is not for the name " + url.host + namesOf(tls);
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        return "its certificate is signed by an authority that is not trusted here; get the "
               "authority's certificate from the administrator, and give it with \"remote-access "
               "login https://" +
               hostAndPort(url) + url.path + " --ca FILE\"";
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "its certificate has expired (or the clock here is wrong)";
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "its certificate is not valid yet (or the clock here is wrong)";
    default:
        return std::string("its certificate is refused: ") + X509_verify_cert_error_string(result);
    }
}

std::string handshakeFault(SSL *tls, const error_code &fault, const URL_T &url)
{
    const long verified = SSL_get_verify_result(tls);
    if (verified != X509_V_OK) return verifyFault(tls, verified, url);
    if (fault == boost::beast::error::timeout) return "no answer in time";
    if (fault == boost::asio::error::eof || fault == ssl::error::stream_truncated ||
        fault == boost::asio::error::connection_reset)
        return "the connection was closed during the TLS handshake (does the server speak HTTPS "
               "there?)";
    return "TLS failed: " + fault.message();
}

void startTls(HTTPS_CONNECTION_T &connection, const URL_T &url)
{
    TlsStream &stream = *connection.stream;
    expectName(stream.native_handle(), url);
    const error_code fault = waitFor(connection.io, [&](auto handler) {
        stream.async_handshake(ssl::stream_base::client, std::move(handler));
    });
    if (!fault) return;
    const bool is_certificate = SSL_get_verify_result(stream.native_handle()) != X509_V_OK;
    throw RequestError("https://" + hostAndPort(url) + ": " +
                           handshakeFault(stream.native_handle(), fault, url),
                       !is_certificate);
}

} // namespace

TlsContextPtr makeTlsContext(const SERVER_T &server)
{
    auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
    SSL_CTX *const tls = context->native_handle();
    ERR_clear_error();
    (void)SSL_CTX_set_min_proto_version(tls, TLS1_2_VERSION);
    SSL_CTX_set_verify(tls, SSL_VERIFY_PEER, nullptr);
    if (server.ca.empty())
        (void)SSL_CTX_set_default_verify_paths(tls);
    else if (SSL_CTX_load_verify_locations(tls, server.ca.c_str(), nullptr) != 1)
        failFile(server.ca, "cannot be used as the certificate of an authority");
    if (server.certificate.empty()) return context;
    if (SSL_CTX_use_certificate_chain_file(tls, server.certificate.c_str()) != 1)
        failFile(server.certificate, "cannot be used as a certificate");
    if (SSL_CTX_use_PrivateKey_file(tls, server.key.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_check_private_key(tls) != 1)
        failFile(server.key, "cannot be used as the certificate's key");
    return context;
}

std::unique_ptr<HTTPS_CONNECTION_T> openConnection(const TlsContextPtr &context, const URL_T &url,
                                                   steady_clock::time_point end)
{
    const auto proxy = proxyFor(url);
    const URL_T &next = proxy ? *proxy : url;
    const std::string name = proxy ? proxyName(next) : "https://" + hostAndPort(next);
    auto connection = std::make_unique<HTTPS_CONNECTION_T>();
    connection->context = context;
    const auto endpoints = resolve(next.host, next.port, end);
    connection->stream.emplace(connection->io, *context);
    connectAny(*connection, endpoints, end, name);
    boost::beast::get_lowest_layer(*connection->stream).expires_at(end);
    if (proxy) askProxy(*connection, *proxy, url);
    startTls(*connection, url);
    return connection;
}
