#include "src/service_connect.h"

#include "common/log.h"
#include "src/resolver.h"
#include "src/watchdog_feed.h"
#include "utility/handles.h"
#include "utility/socket_option.h"
#include "utility/text.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>

namespace {

// The dotted (or IPv6) form and the port of an address, for the log.
struct ADDRESS_TEXT_T {
    char host[INET6_ADDRSTRLEN];
    int port;
};

ADDRESS_TEXT_T textOfAddress(const sockaddr *address)
{
    ADDRESS_TEXT_T text{};
    if (address->sa_family == AF_INET6) {
        sockaddr_in6 ip6{};
        std::memcpy(&ip6, address, sizeof ip6);
        (void)::inet_ntop(AF_INET6, &ip6.sin6_addr, text.host, sizeof text.host);
        text.port = ntohs(ip6.sin6_port);
    } else {
        sockaddr_in ip4{};
        std::memcpy(&ip4, address, sizeof ip4);
        (void)::inet_ntop(AF_INET, &ip4.sin_addr, text.host, sizeof text.host);
        text.port = ntohs(ip4.sin_port);
    }
    return text;
}

// The select of the proxy's passes cannot hold a descriptor of FD_SETSIZE or more.
UniqueFd createSocket(const addrinfo &target)
{
    UniqueFd socket{
        ::socket(target.ai_family, target.ai_socktype | SOCK_CLOEXEC, target.ai_protocol)};
    if (socket && socket.get() >= FD_SETSIZE) socket.reset();
    return socket;
}

} // namespace

int connectWithUnblock(int sockfd, const sockaddr *address, socklen_t length, int timeout_ms)
{
    (void)setSocketNonBlock(sockfd);
    (void)setSocketNoDelay(sockfd);
    if (::connect(sockfd, address, length) == 0) return 0;
    if (errno != EINPROGRESS) {
        RA_WARN("sockfd connect failed: %s", std::strerror(errno));
        return -1;
    }
    RA_INFO("unblock mode sockfd is connecting...");
    pollfd writable{sockfd, POLLOUT,
                    0}; // not select: the descriptor may be past what an fd_set holds
    if (::poll(&writable, 1, timeout_ms) <= 0) {
        RA_WARN("connection time out: Service Unavailable or destination port disabled");
        return -1;
    }
    if ((writable.revents & (POLLOUT | POLLERR | POLLHUP)) == 0) {
        RA_WARN("no events on sockfd found");
        return -1;
    }
    int error = 0;
    socklen_t error_size = sizeof error;
    if (::getsockopt(sockfd, SOL_SOCKET, SO_ERROR, &error, &error_size) != 0) {
        RA_WARN("get sockfd option failed: %s", std::strerror(errno));
        return -1;
    }
    if (error != 0) {
        RA_WARN("connection failed after select with the error: %d", error);
        return -1;
    }
    RA_INFO("connection ready after select with the sockfd: %d", sockfd);
    return 0;
}

int connect2LocalService(const char *host, int port)
{
    char port_text[16];
    format_text(port_text, "%d", port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *resolved = nullptr;
    (void)refreshResolver(); // a changed name server counts at once, not with the next channel
    if (::getaddrinfo(host, port_text, &hints, &resolved) != 0) {
        RA_WARN("unknown hostAddr: %s", host);
        return -1;
    }
    const std::unique_ptr<addrinfo, Releaser<::freeaddrinfo>> results{resolved};
    for (const addrinfo *target = resolved; target != nullptr; target = target->ai_next) {
        UniqueFd socket = createSocket(*target);
        if (!socket) {
            RA_WARN("socket create failed");
            continue;
        }
        feedProxyWatchdog(); // a name may have many addresses, each worth a second
        const ADDRESS_TEXT_T text = textOfAddress(target->ai_addr);
        RA_INFO("Servier Ip: %s, port: %d", text.host, text.port);
        if (connectWithUnblock(socket.get(), target->ai_addr, target->ai_addrlen,
                               LOCAL_CONNECT_TIMEOUT_MS) == 0) {
            RA_INFO("local socket connect successfully");
            return socket.release();
        }
    }
    return -1;
}
