// The commands that carry bytes: connect and forward. The client's end of a session is a socket
// that goes to the back end with the request, so a forwarded connection is not copied here, and a
// session that is cut off ends as it does for a client of the back end's own ports.
#include "operator/commands.h"
#include "operator/control_client.h"
#include "operator/terminal.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;

namespace {

constexpr std::size_t COPY_SIZE = 65536;
constexpr auto ACCEPT_PAUSE = std::chrono::milliseconds(100);

json connectRequest(const std::string &target)
{
    const std::size_t slash = target.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == target.size())
        throw std::invalid_argument("\"" + target + "\" is no DEVICE/SERVICE");
    return {{"do", "connect"},
            {"device", target.substr(0, slash)},
            {"service", target.substr(slash + 1)}};
}

struct RELAY_T {
    std::atomic<std::uint64_t> up = 0; // from the device
    std::atomic<std::uint64_t> down = 0;
};

bool writeWhole(int fd, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = ::write(fd, bytes, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

// False when something could not be written.
bool copyStream(int from, int to, std::atomic<std::uint64_t> &count)
{
    std::array<char, COPY_SIZE> bytes;
    for (;;) {
        const ssize_t got = ::read(from, bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        if (!writeWhole(to, bytes.data(), static_cast<std::size_t>(got))) return false;
        count += static_cast<std::uint64_t>(got);
    }
}

[[noreturn]] void showProgress(const RELAY_T &relay)
{
    std::uint64_t up = 0;
    std::uint64_t down = 0;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const std::uint64_t now_up = relay.up;
        const std::uint64_t now_down = relay.down;
        (void)std::fprintf(stderr, "\rup %s (%s/s), down %s (%s/s)   ",
                           sizeText(static_cast<double>(now_up)).c_str(),
                           sizeText(static_cast<double>(now_up - up)).c_str(),
                           sizeText(static_cast<double>(now_down)).c_str(),
                           sizeText(static_cast<double>(now_down - down)).c_str());
        up = now_up;
        down = now_down;
    }
}

// The last answer of a session: how it ended. Without one the back end has gone.
json endOf(CONTROL_CLIENT_T &client)
{
    const auto end = nextAnswer(client);
    if (end) return *end;
    return {{"ended", "the back end went away"}, {"whole", false}};
}

UniqueFd listenOn(std::uint16_t port)
{
    UniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), SOMAXCONN) != 0)
        throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port) + ": " +
                                 std::strerror(errno));
    return fd;
}

std::uint16_t portOf(int fd)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    (void)::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

void tellTurnedAway(const std::exception &fault)
{
    (void)std::fprintf(stderr, "remote-access: a connection was turned away: %s\n",
                       shown(fault.what()).c_str());
}

// One line when a session begins and one when it has ended.
void forwardOne(const std::string &control, const json &request, UniqueFd client)
{
    try {
        const auto start = std::chrono::steady_clock::now();
        CONTROL_CLIENT_T answers = openRequest(control, request, client.get());
        client.reset(); // the back end has its own now
        const auto opened = nextAnswer(answers);
        if (!opened) throw ControlError("the back end went away", true);
        const std::string id = shown(opened->value("session", "?"));
        std::printf("%s opened\n", id.c_str());
        (void)std::fflush(stdout);
        const json end = endOf(answers);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double up = end.value("bytes_up", 0.0);
        const double down = end.value("bytes_down", 0.0);
        std::printf("%s ended after %.1f s: %s%s; up %s (%s/s), down %s (%s/s)\n", id.c_str(),
                    seconds, shown(end.value("ended", "")).c_str(),
                    end.value("whole", false) ? "" : ", CUT OFF", sizeText(up).c_str(),
                    sizeText(up / seconds).c_str(), sizeText(down).c_str(),
                    sizeText(down / seconds).c_str());
        (void)std::fflush(stdout);
    } catch (const std::exception &fault) {
        tellTurnedAway(fault);
    }
}

// Starts threads that use the socket and the relay for as long as the process lives.
OPERATOR_STATUS carryStreams(int own, RELAY_T &relay, CONTROL_CLIENT_T &answers, bool has_progress)
{
    std::thread([own, &relay] {
        (void)copyStream(STDIN_FILENO, own, relay.down);
        (void)::shutdown(own, SHUT_WR);
    }).detach();
    if (has_progress) std::thread([&relay] { showProgress(relay); }).detach();
    if (!copyStream(own, STDOUT_FILENO, relay.up)) {
        if (errno != EPIPE) // the reader wants no more
            (void)std::fprintf(stderr, "remote-access: standard output: %s\n",
                               std::strerror(errno));
        return OPERATOR_REFUSED;
    }
    // The service's end is the session's; the writer of standard input notices it by the end of
    // this process.
    (void)::shutdown(own, SHUT_RDWR);
    const json end = endOf(answers);
    if (has_progress) (void)std::fputc('\n', stderr);
    if (end.value("whole", false)) return OPERATOR_DONE;
    (void)std::fprintf(stderr, "remote-access: cut off: %s\n",
                       shown(end.value("ended", "")).c_str());
    return OPERATOR_REFUSED;
}

} // namespace

int connectStreams(const OPERATOR_OPTIONS_T &options)
{
    const json request = connectRequest(options.target);
    // ssh ends its ProxyCommand with SIGHUP right behind its last bytes to the service. These must
    // arrive: they make the service end the session.
    (void)std::signal(SIGHUP, SIG_IGN);
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::runtime_error(std::strerror(errno));
    const UniqueFd own{ends[0]};
    UniqueFd theirs{ends[1]};
    CONTROL_CLIENT_T answers = openRequest(options.control, request, theirs.get());
    theirs.reset();
    if (!nextAnswer(answers)) throw ControlError("the back end went away", true);

    RELAY_T relay;
    OPERATOR_STATUS status = OPERATOR_REFUSED;
    try {
        status = carryStreams(own.get(), relay, answers, options.progress);
    } catch (const std::exception &fault) {
        (void)std::fprintf(stderr, "remote-access: %s\n", shown(fault.what()).c_str());
    }
    // Neither exit() nor a return: the other threads still use what these would tear down.
    ::_exit(status);
}

int forwardPort(const OPERATOR_OPTIONS_T &options)
{
    const json request = connectRequest(options.target);
    const json answer =
        ask(options.control, {{"do", "services"}, {"device", request.at("device")}});
    const json &services = answer.at("services");
    if (std::none_of(services.begin(), services.end(), [&request](const json &service) {
            return service.value("name", "") == request.at("service");
        }))
        throw ControlError(
            request.value("device", "") + " does not offer " + request.value("service", ""), false);
    const UniqueFd listener = listenOn(options.port);
    std::printf("127.0.0.1:%u leads to %s; Ctrl-C ends it\n", portOf(listener.get()),
                options.target.c_str());
    (void)std::fflush(stdout);
    for (;;) {
        UniqueFd client{::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
        if (!client) {
            std::this_thread::sleep_for(ACCEPT_PAUSE); // out of descriptors: some will come back
            continue;
        }
        try {
            std::thread(forwardOne, options.control, request, std::move(client)).detach();
        } catch (const std::exception &fault) { // no thread available; the other sessions continue
            tellTurnedAway(fault);
        }
    }
}
