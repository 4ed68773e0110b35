#include "backend/admin/reload_request.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace backend {

constexpr time_t ANSWER_S = 60; // a large file on a slow disk
constexpr std::string_view REQUEST = "{\"do\":\"reload\"}\n";
constexpr std::size_t ANSWER_MAX = std::size_t{64} * 1024;

struct SOCKET_T {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    SOCKET_T() = default;
    SOCKET_T(const SOCKET_T &) = delete;
    SOCKET_T &operator=(const SOCKET_T &) = delete;
    ~SOCKET_T()
    {
        close(fd);
    }
};

[[noreturn]] static void fail(const std::string &control, const std::string &why)
{
    throw std::runtime_error("the file is changed, but the running back end was not told (" +
                             control + ": " + why + ")");
}

[[noreturn]] static void failOnErrno(const std::string &control)
{
    const bool is_late = errno == EAGAIN;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's is per thread
    fail(control, is_late ? "no answer within 60 s" : strerror(errno));
}

static std::string readLine(int fd, const std::string &control)
{
    std::string line;
    std::array<char, 4096> part{};
    while (line.find('\n') == std::string::npos && line.size() < ANSWER_MAX) {
        const ssize_t count = recv(fd, part.data(), part.size(), 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) failOnErrno(control);
        if (count == 0) break;
        line.append(part.data(), static_cast<std::size_t>(count));
    }
    return line;
}

std::string requestReload(const std::string &control)
{
    if (control.empty())
        return "no control socket is named: a running back end has to be told by SIGHUP";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (control.size() >= sizeof(address.sun_path)) fail(control, "its path is too long");
    control.copy(address.sun_path, control.size());
    const SOCKET_T socket;
    const timeval patience{ANSWER_S, 0};
    (void)setsockopt(socket.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    (void)setsockopt(socket.fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (connect(socket.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if (errno == ENOENT || errno == ECONNREFUSED)
            return "no back end listens on " + control + ": it reads the file when it starts";
        failOnErrno(control);
    }
    if (send(socket.fd, REQUEST.data(), REQUEST.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(REQUEST.size()))
        failOnErrno(control);
    const auto answer = nlohmann::json::parse(readLine(socket.fd, control), nullptr, false);
    if (!answer.is_object()) fail(control, "no answer");
    if (answer.value("ok", false)) return "the running back end has read it";
    fail(control, answer.value("error", "refused"));
}

} // namespace backend
