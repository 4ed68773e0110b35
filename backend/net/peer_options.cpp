#include "backend/net/peer_options.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace backend {

using tcp = boost::asio::ip::tcp;

constexpr int PROBES_MAX = 3; // the kernel sends them at growing intervals, up to two minutes

static void set(tcp::socket &socket, int level, int name, int value)
{
    (void)setsockopt(socket.native_handle(), level, name, &value, sizeof value);
}

void setPeerOptions(tcp::socket &socket)
{
    set(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    set(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    set(socket, IPPROTO_TCP, TCP_KEEPIDLE, 30);
    set(socket, IPPROTO_TCP, TCP_KEEPINTVL, 10);
    set(socket, IPPROTO_TCP, TCP_KEEPCNT, 3);
    set(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, 64 * 1024);
}

void setUserTimeout(tcp::socket &socket)
{
    set(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, 60000);
}

bool isUnanswered(tcp::socket &socket, std::chrono::milliseconds at_least)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(socket.native_handle(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return true;
    if (info.tcpi_probes > PROBES_MAX) return true;
    return info.tcpi_unacked > 0 && std::chrono::milliseconds(info.tcpi_last_ack_recv) >= at_least;
}

} // namespace backend
