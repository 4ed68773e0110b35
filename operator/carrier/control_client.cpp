#include "operator/carrier/control_client.h"

#include "operator/carrier/socket_access.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

[[noreturn]] void tellLate(const std::string &path, const char *what, seconds time)
{
    throw RequestError(path + ": the back end has not " + what + " for " +
                           std::to_string(time.count()) + " s",
                       true);
}

std::string connectFault(const std::string &path, int error)
{
    switch (error) {
    case ENOENT:
        return path + ": there is no such socket (is the back end running?)";
    case ECONNREFUSED:
        return path + ": nobody listens there (is the back end running?)";
    case EACCES:
        return path + ": " + whyDenied(path);
    default:
        return path + ": " + std::strerror(error);
    }
}

// connect and sendmsg give up after this time, with EAGAIN (unix(7), socket(7)).
void limitSending(int fd, seconds time)
{
    const timeval limit{time.count(), 0};
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

UniqueFd connectTo(const std::string &path, seconds time)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw RequestError(path + ": too long for the path of a socket", true);
    path.copy(address.sun_path, path.size());
    UniqueFd fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (!fd) throw RequestError(path + ": " + std::strerror(errno), true);
    limitSending(fd.get(), time);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if (errno == EAGAIN) tellLate(path, "taken the connection", time);
        throw RequestError(connectFault(path, errno), true);
    }
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
        if (count < 0 && errno == EPIPE) return; // its answer may be there already
        if (count <= 0)
            throw RequestError(std::string("the back end went away: ") + std::strerror(errno),
                               true);
        sent += static_cast<std::size_t>(count);
    }
}

// False when the time is over before there is something to read.
bool waitForBytes(int fd, steady_clock::time_point end, bool has_end)
{
    for (;;) {
        // Rounded up, so that what is left of a millisecond is no busy wait.
        const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
        if (has_end && left.count() <= 0) return false;
        pollfd input{fd, POLLIN, 0};
        const int ready = ::poll(&input, 1, has_end ? static_cast<int>(left.count()) : -1);
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR)
            throw RequestError(std::string("poll: ") + std::strerror(errno), false);
    }
}

} // namespace

CONTROL_CLIENT_T openRequest(const std::string &path, const json &request, seconds time, int fd)
{
    CONTROL_CLIENT_T client{connectTo(path, time), path, ""};
    std::string line = request.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
    sendWhole(client.socket.get(), line, fd);
    ::explicit_bzero(line.data(), line.size()); // it may hold a password
    return client;
}

std::optional<json> nextAnswer(CONTROL_CLIENT_T &client, seconds time)
{
    const auto end = steady_clock::now() + time;
    std::size_t searched = 0;
    std::size_t line = 0;
    while ((line = client.received.find('\n', searched)) == std::string::npos) {
        searched = client.received.size();
        if (searched > ANSWER_MAX) throw RequestError("the back end's answer is too long", true);
        if (!waitForBytes(client.socket.get(), end, time != NO_LIMIT))
            tellLate(client.path, "answered", time);
        std::array<char, 65536> bytes;
        const ssize_t got = ::recv(client.socket.get(), bytes.data(), bytes.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return std::nullopt;
        client.received.append(bytes.data(), static_cast<std::size_t>(got));
    }
    const json answer = json::parse(client.received.substr(0, line), nullptr, false);
    client.received.erase(0, line + 1);
    if (!answer.is_object()) throw RequestError("the back end's answer is no JSON object", true);
    if (!answer.value("ok", true)) {
        const std::string kind = answer.value("kind", "");
        throw RequestError(answer.value("error", "refused"), false, kind == "not-implemented",
                           seconds(0), kind);
    }
    return answer;
}

json onlyAnswer(CONTROL_CLIENT_T &client, seconds time)
{
    auto answer = nextAnswer(client, time);
    if (!answer) throw RequestError("the back end ended the request without an answer", true);
    return *answer;
}
