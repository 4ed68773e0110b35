#include "utility/socket_owner.h"

#include "utility/handles.h"

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

using FilePtr = std::unique_ptr<std::FILE, Releaser<std::fclose>>;

// A connection's addresses.
struct PAIR_T {
    sockaddr_in own{};
    sockaddr_in peer{};
};

std::optional<PAIR_T> pairOf(int fd) noexcept
{
    PAIR_T pair;
    socklen_t own_size = sizeof pair.own;
    socklen_t peer_size = sizeof pair.peer;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&pair.own), &own_size) != 0 ||
        ::getpeername(fd, reinterpret_cast<sockaddr *>(&pair.peer), &peer_size) != 0 ||
        pair.own.sin_family != AF_INET || pair.peer.sin_family != AF_INET)
        return std::nullopt;
    return pair;
}

// ---- sock_diag(7)

struct QUESTION_T {
    nlmsghdr header;
    inet_diag_req_v2 request;
};

QUESTION_T questionFor(const PAIR_T &pair) noexcept
{
    QUESTION_T question{};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    question.request.sdiag_family = AF_INET;
    question.request.sdiag_protocol = IPPROTO_TCP;
    question.request.idiag_states = ~0U;
    inet_diag_sockid &id = question.request.id;
    id.idiag_sport = pair.peer.sin_port;
    id.idiag_dport = pair.own.sin_port;
    id.idiag_src[0] = pair.peer.sin_addr.s_addr;
    id.idiag_dst[0] = pair.own.sin_addr.s_addr;
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return question;
}

enum class FOUND { YES, NO, NO_ANSWER };

// The kernel answers with a listening socket when there is no such pair. Without an inode no
// process holds the socket any more, and the uid may be 0 for that.
FOUND askKernel(const PAIR_T &pair, uid_t &owner) noexcept
{
    const UniqueFd link{::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)};
    const QUESTION_T question = questionFor(pair);
    if (!link || ::send(link.get(), &question, sizeof question, 0) != sizeof question)
        return FOUND::NO_ANSWER;
    alignas(nlmsghdr) std::array<char, 4096> bytes{};
    const ssize_t got = ::recv(link.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    nlmsghdr header{};
    if (got < static_cast<ssize_t>(sizeof header)) return FOUND::NO_ANSWER;
    std::memcpy(&header, bytes.data(), sizeof header);
    inet_diag_msg answer{};
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        got < static_cast<ssize_t>(NLMSG_LENGTH(sizeof answer)))
        return FOUND::NO_ANSWER;
    std::memcpy(&answer, bytes.data() + NLMSG_HDRLEN, sizeof answer);
    if (answer.id.idiag_sport != pair.peer.sin_port || answer.id.idiag_dport != pair.own.sin_port ||
        answer.idiag_inode == 0)
        return FOUND::NO;
    owner = answer.idiag_uid;
    return FOUND::YES;
}

// ---- proc(5), for a kernel that has no sock_diag, or a sandbox that does not let it be used

// The connection in the words of the kernel's tables: addresses as they lie in memory, ports in the
// host's order.
struct ENTRY_T {
    std::array<char, 48> tcp{};
    std::array<char, 96> tcp6{};
};

ENTRY_T entryOf(const PAIR_T &pair) noexcept
{
    ENTRY_T entry;
    const std::uint32_t mapped = htonl(0xFFFF);
    const std::uint32_t peer = pair.peer.sin_addr.s_addr;
    const std::uint32_t own = pair.own.sin_addr.s_addr;
    const unsigned from = ntohs(pair.peer.sin_port);
    const unsigned to = ntohs(pair.own.sin_port);
    (void)std::snprintf(entry.tcp.data(), entry.tcp.size(),
                        " %08" PRIX32 ":%04X %08" PRIX32 ":%04X ", peer, from, own, to);
    (void)std::snprintf(entry.tcp6.data(), entry.tcp6.size(),
                        " %016X%08" PRIX32 "%08" PRIX32 ":%04X %016X%08" PRIX32 "%08" PRIX32
                        ":%04X ",
                        0U, mapped, peer, from, 0U, mapped, own, to);
    return entry;
}

std::optional<uid_t> ownerIn(const char *path, const char *pair) noexcept
{
    const FilePtr file{std::fopen(path, "re")};
    if (!file) return std::nullopt;
    std::array<char, 512> line{};
    while (std::fgets(line.data(), line.size(), file.get()) != nullptr) {
        const char *const found = std::strstr(line.data(), pair);
        if (found == nullptr) continue;
        unsigned uid = 0;
        unsigned long inode = 0;
        // Behind the pair: state, queues, timer, retransmissions, uid, timeout, inode.
        // NOLINTNEXTLINE(cert-err34-c): the kernel writes no number that is too long
        if (std::sscanf(found + std::strlen(pair), "%*x %*x:%*x %*x:%*x %*x %u %*d %lu", &uid,
                        &inode) == 2 &&
            inode != 0)
            return uid;
    }
    return std::nullopt;
}

// While this end is not closed or reset, nobody else can have got the same pair of ports.
bool isStillConnected(int fd) noexcept
{
    tcp_info info{};
    socklen_t size = sizeof info;
    return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           (info.tcpi_state == TCP_ESTABLISHED || info.tcpi_state == TCP_CLOSE_WAIT);
}

} // namespace

std::optional<uid_t> loopback_peer_owner(int fd) noexcept
{
    const auto pair = pairOf(fd);
    if (!pair || !isStillConnected(fd)) return std::nullopt;
    uid_t uid = 0;
    FOUND found = askKernel(*pair, uid);
    // "No such entry" is also what a kernel without such a table says. It is one that has this end.
    if (found == FOUND::NO_ANSWER) {
        uid_t own = 0;
        if (askKernel({pair->peer, pair->own}, own) != FOUND::NO_ANSWER) found = FOUND::NO;
    }
    std::optional<uid_t> owner;
    if (found == FOUND::YES) {
        owner = uid;
    } else if (found == FOUND::NO_ANSWER) {
        const ENTRY_T entry = entryOf(*pair);
        owner = ownerIn("/proc/net/tcp", entry.tcp.data());
        if (!owner) owner = ownerIn("/proc/net/tcp6", entry.tcp6.data());
    }
    return owner && isStillConnected(fd) ? owner : std::nullopt;
}
