// TCP connections to local services, made within a bound so that a dead port does not hold up the
// sessions that run. Sources: connect(2), getaddrinfo(3).
#pragma once

#include <sys/socket.h>

constexpr int LOCAL_CONNECT_TIMEOUT_MS = 1000;

// Connects sockfd, which stays the caller's; it is non-blocking and has TCP_NODELAY afterwards,
// whatever the result. 0 when connected, -1 otherwise.
[[nodiscard]] int connectWithUnblock(int sockfd, const sockaddr *address, socklen_t length,
                                     int timeout_ms);

// Resolves host (a dotted address or a name) and connects to the first address that answers,
// LOCAL_CONNECT_TIMEOUT_MS for each. A connected, non-blocking socket below FD_SETSIZE that the
// caller owns, or -1.
[[nodiscard]] int connect2LocalService(const char *host, int port);
