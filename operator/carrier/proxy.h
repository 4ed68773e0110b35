// The HTTP proxy on the way to a back end, from the environment: https_proxy or HTTPS_PROXY, and
// no_proxy or NO_PROXY.
#pragma once

#include "operator/settings/url.h"

#include <optional>
#include <string>
#include <string_view>

// None when the host is reached directly. Throws std::runtime_error for a proxy that cannot be
// used.
std::optional<URL_T> proxyFor(const URL_T &server);

// "proxy http://HOST:PORT": without the password.
std::string proxyName(const URL_T &proxy);

// Value of the header Proxy-Authorization; empty when the URL names no user.
std::string proxyAuthorization(const URL_T &proxy);

// no_proxy: hosts and domains between commas, with a port if only that one is meant; "*" for all.
bool isExcepted(const URL_T &server, std::string_view no_proxy);
