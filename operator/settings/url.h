// URLs of back ends and of proxies.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct URL_T {
    std::string scheme; // "https" or "http"
    std::string user;   // decoded, as is the password
    std::string password;
    std::string host; // a name in lower case, or an address without brackets
    std::uint16_t port = 0;
    std::string path; // "" or "/..." without a slash at the end
};

// A text without a scheme gets the one given. None for what is no URL.
std::optional<URL_T> parseUrl(std::string_view text, std::string_view scheme);

// HOST:PORT; an IPv6 address in brackets.
std::string hostAndPort(const URL_T &url);

// The one way to write the URL of a back end, so that it is found among those saved. Throws
// std::invalid_argument for what is no URL of HTTPS.
std::string serverUrl(std::string_view text);

// For one part of a path or a value of a query.
std::string percentEncoded(std::string_view text);
