#include "operator/commands/local_port.h"

#include "utility/socket_owner.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

[[noreturn]] void fail(const std::string &where)
{
    throw std::runtime_error("cannot listen on " + where + ": " + std::strerror(errno));
}

// A file that is left of a tool that was killed must not keep the next one from starting.
void removeStaleSocket(const std::string &path, const sockaddr_un &address)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode))
        throw std::runtime_error(path + " is there already, and is no socket");
    const UniqueFd probe{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno == EAGAIN)
        throw std::runtime_error(path + ": another process listens there");
    if (errno != ECONNREFUSED) fail(path);
    (void)::unlink(path.c_str());
}

} // namespace

SocketFile::SocketFile(std::string path) : path_(std::move(path))
{
    struct stat status {};
    if (::lstat(path_.c_str(), &status) != 0) return;
    device_ = status.st_dev;
    inode_ = status.st_ino;
}

SocketFile::SocketFile(SocketFile &&other) noexcept
    : path_(std::exchange(other.path_, {})), device_(other.device_), inode_(other.inode_)
{
}

SocketFile &SocketFile::operator=(SocketFile &&other) noexcept
{
    std::swap(path_, other.path_);
    std::swap(device_, other.device_);
    std::swap(inode_, other.inode_);
    return *this;
}

SocketFile::~SocketFile()
{
    struct stat status {};
    if (path_.empty() || ::lstat(path_.c_str(), &status) != 0) return;
    if (status.st_dev == device_ && status.st_ino == inode_) (void)::unlink(path_.c_str());
}

LOCAL_PORT_T openLocalPort(std::uint16_t port)
{
    LOCAL_PORT_T local;
    UniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    const int on = 1;
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), SOMAXCONN) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr *>(&address), &size) != 0)
        fail("127.0.0.1:" + std::to_string(port));
    local.listener = std::move(fd);
    local.text = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    return local;
}

LOCAL_PORT_T openLocalSocket(const std::string &path, bool is_shared)
{
    LOCAL_PORT_T local;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": the path of a socket has 1 to " +
                                 std::to_string(sizeof address.sun_path - 1) + " bytes");
    path.copy(address.sun_path, path.size());
    removeStaleSocket(path, address);
    UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    // From the first moment on, not only after a chmod.
    const mode_t usual = ::umask(is_shared ? 0111 : 0177);
    const bool is_bound =
        fd && ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    ::umask(usual);
    if (!is_bound) fail(path);
    local.file = SocketFile(path);
    if (::listen(fd.get(), SOMAXCONN) != 0) fail(path);
    local.listener = std::move(fd);
    local.text = path;
    local.is_unix = true;
    return local;
}

std::optional<uid_t> clientAccount(const LOCAL_PORT_T &port, int client)
{
    if (!port.is_unix) return loopback_peer_owner(client);
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
    return peer.uid;
}

void turnAway(UniqueFd client)
{
    const linger reset{1, 0};
    (void)::setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
}
