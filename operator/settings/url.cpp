#include "operator/settings/url.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <stdexcept>

namespace {

constexpr std::uint16_t HTTPS_PORT = 443;
constexpr std::uint16_t HTTP_PORT = 80;

bool isUnreserved(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' || c == '_' ||
           c == '~';
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string percentDecoded(std::string_view text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool is_code = text[i] == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 &&
                             hexDigit(text[i + 2]) >= 0;
        if (!is_code) {
            result += text[i];
            continue;
        }
        result += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
        i += 2;
    }
    return result;
}

std::string lowerCase(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](char c) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    return result;
}

// Takes the scheme and "://" off the text.
std::string takeScheme(std::string_view &text, std::string_view usual)
{
    const std::size_t end = text.find("://");
    if (end == std::string_view::npos) return std::string(usual);
    std::string scheme = lowerCase(text.substr(0, end));
    text.remove_prefix(end + 3);
    return scheme;
}

bool parsePort(std::string_view text, std::uint16_t &port)
{
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), port);
    return fault == std::errc() && end == text.data() + text.size() && port != 0;
}

bool isHost(std::string_view host, bool is_bracketed)
{
    return !host.empty() && std::all_of(host.begin(), host.end(), [is_bracketed](char c) {
        return is_bracketed ? hexDigit(c) >= 0 || c == ':' || c == '.' : isUnreserved(c);
    });
}

// HOST, HOST:PORT, [ADDRESS] or [ADDRESS]:PORT.
bool parseAuthority(std::string_view text, URL_T &url)
{
    const bool is_bracketed = !text.empty() && text.front() == '[';
    std::size_t end = is_bracketed ? text.find(']') : text.find(':');
    if (end == std::string_view::npos && is_bracketed) return false;
    end = std::min(end, text.size());
    const std::string_view host = is_bracketed ? text.substr(1, end - 1) : text.substr(0, end);
    if (!isHost(host, is_bracketed)) return false;
    url.host = lowerCase(host);
    std::string_view rest = text.substr(is_bracketed ? end + 1 : end);
    if (rest.empty()) return true;
    if (rest.front() != ':') return false;
    rest.remove_prefix(1);
    return parsePort(rest, url.port);
}

} // namespace

std::optional<URL_T> parseUrl(std::string_view text, std::string_view scheme)
{
    URL_T url;
    url.scheme = takeScheme(text, scheme);
    if (url.scheme != "https" && url.scheme != "http") return std::nullopt;
    url.port = url.scheme == "https" ? HTTPS_PORT : HTTP_PORT;
    const std::size_t slash = std::min(text.find('/'), text.size());
    std::string_view path = text.substr(slash);
    while (!path.empty() && path.back() == '/')
        path.remove_suffix(1);
    // It goes into a request line.
    if (!std::all_of(path.begin(), path.end(), [](char c) {
            return isUnreserved(c) || c == '/' || c == '%' || c == '+' || c == ':' || c == '@';
        }))
        return std::nullopt;
    url.path = path;
    std::string_view authority = text.substr(0, slash);
    if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
        const std::string_view account = authority.substr(0, at);
        const std::size_t colon = std::min(account.find(':'), account.size());
        url.user = percentDecoded(account.substr(0, colon));
        if (colon < account.size()) url.password = percentDecoded(account.substr(colon + 1));
        authority.remove_prefix(at + 1);
    }
    if (!parseAuthority(authority, url)) return std::nullopt;
    return url;
}

std::string hostAndPort(const URL_T &url)
{
    const bool is_ipv6 = url.host.find(':') != std::string::npos;
    return (is_ipv6 ? "[" + url.host + "]" : url.host) + ":" + std::to_string(url.port);
}

std::string serverUrl(std::string_view text)
{
    const auto url = parseUrl(text, "https");
    if (!url || !url->user.empty())
        throw std::invalid_argument("\"" + std::string(text) + "\" is no URL of a back end, as " +
                                    "https://HOST or https://HOST:PORT");
    if (url->scheme != "https")
        throw std::invalid_argument("\"" + std::string(text) +
                                    "\": only https:// is possible, since a token travels with "
                                    "every request");
    std::string host = hostAndPort(*url);
    const std::string usual_port = ":" + std::to_string(HTTPS_PORT);
    if (url->port == HTTPS_PORT) host.resize(host.size() - usual_port.size());
    return "https://" + host + url->path;
}

std::string percentEncoded(std::string_view text)
{
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        if (isUnreserved(c)) {
            result += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        result += '%';
        result += DIGITS[byte >> 4];
        result += DIGITS[byte & 15];
    }
    return result;
}
