#include "operator/carrier/proxy.h"

#include <cstdlib>
#include <openssl/evp.h>
#include <stdexcept>
#include <vector>

namespace {

const char *fromEnvironment(const char *name, const char *other)
{
    const char *value = std::getenv(name);
    return value != nullptr ? value : std::getenv(other);
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

// "example.com" and ".example.com" are the host of that name and all below it.
bool isCovered(const URL_T &server, std::string_view entry)
{
    if (entry == "*") return true;
    if (!entry.empty() && entry.front() == '.') entry.remove_prefix(1);
    const auto rule = parseUrl(entry, "https");
    if (!rule) return false;
    const bool has_port = entry.find(':') != std::string_view::npos && entry.back() != ']';
    if (has_port && rule->port != server.port) return false;
    if (server.host == rule->host) return true;
    const std::string below = "." + rule->host;
    return server.host.size() > below.size() &&
           server.host.compare(server.host.size() - below.size(), below.size(), below) == 0;
}

} // namespace

bool isExcepted(const URL_T &server, std::string_view no_proxy)
{
    while (!no_proxy.empty()) {
        const std::size_t comma = std::min(no_proxy.find(','), no_proxy.size());
        if (isCovered(server, trimmed(no_proxy.substr(0, comma)))) return true;
        no_proxy.remove_prefix(std::min(comma + 1, no_proxy.size()));
    }
    return false;
}

std::optional<URL_T> proxyFor(const URL_T &server)
{
    const char *const text = fromEnvironment("https_proxy", "HTTPS_PROXY");
    if (text == nullptr || *text == '\0') return std::nullopt;
    const char *const exceptions = fromEnvironment("no_proxy", "NO_PROXY");
    if (exceptions != nullptr && isExcepted(server, exceptions)) return std::nullopt;
    auto proxy = parseUrl(text, "http");
    // The text may hold a password.
    if (!proxy) throw std::runtime_error("https_proxy is no URL as http://HOST:PORT");
    if (proxy->scheme != "http")
        throw std::runtime_error("https_proxy: only a proxy with http:// can be used");
    return proxy;
}

std::string proxyName(const URL_T &proxy)
{
    return "proxy http://" + hostAndPort(proxy);
}

std::string proxyAuthorization(const URL_T &proxy)
{
    if (proxy.user.empty()) return "";
    const std::string account = proxy.user + ":" + proxy.password;
    std::vector<unsigned char> encoded(account.size() / 3 * 4 + 5);
    const int size =
        EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char *>(account.data()),
                        static_cast<int>(account.size()));
    return "Basic " + std::string(encoded.begin(), encoded.begin() + size);
}
