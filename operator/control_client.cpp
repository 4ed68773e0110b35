#include "operator/control_client.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using nlohmann::json;

namespace {

UniqueFd connectTo(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw ControlError(path + ": too long for the path of a socket", true);
    path.copy(address.sun_path, path.size());
    UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (!fd ||
        ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw ControlError(path + ": " + std::strerror(errno) + " (is the back end running?)",
                           true);
    return fd;
}

// The first byte takes the descriptor along (unix(7)).
void sendWhole(int socket, const std::string &text, int fd)
{
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> rights{};
    for (std::size_t sent = 0; sent < text.size();) {
        iovec part{const_cast<char *>(text.data()) + sent, text.size() - sent};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (sent == 0 && fd >= 0) {
            message.msg_control = rights.data();
            message.msg_controllen = rights.size();
            cmsghdr *const header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(sizeof fd);
            std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
        }
        const ssize_t count = ::sendmsg(socket, &message, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0)
            throw ControlError(std::string("the back end went away: ") + std::strerror(errno),
                               true);
        sent += static_cast<std::size_t>(count);
    }
}

} // namespace

CONTROL_CLIENT_T openRequest(const std::string &path, const json &request, int fd)
{
    CONTROL_CLIENT_T client{connectTo(path), ""};
    std::string line = request.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
    sendWhole(client.socket.get(), line, fd);
    ::explicit_bzero(line.data(), line.size()); // it may hold a password
    return client;
}

std::optional<json> nextAnswer(CONTROL_CLIENT_T &client)
{
    std::size_t end = 0;
    while ((end = client.received.find('\n')) == std::string::npos) {
        std::array<char, 65536> bytes;
        const ssize_t got = ::recv(client.socket.get(), bytes.data(), bytes.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        client.received.append(bytes.data(), static_cast<std::size_t>(got));
    }
    const json answer = json::parse(client.received.substr(0, end), nullptr, false);
    client.received.erase(0, end + 1);
    if (!answer.is_object()) throw ControlError("the back end's answer is no JSON object", true);
    if (!answer.value("ok", true)) throw ControlError(answer.value("error", "refused"), false);
    return answer;
}

json ask(const std::string &path, const json &request)
{
    CONTROL_CLIENT_T client = openRequest(path, request);
    return onlyAnswer(client);
}

json onlyAnswer(CONTROL_CLIENT_T &client)
{
    auto answer = nextAnswer(client);
    if (!answer) throw ControlError("the back end ended the request without an answer", true);
    return *answer;
}
