// The command that copies bytes: standard input and output to a socket pair whose other end goes to
// the back end with the request.
#include "operator/commands.h"
#include "operator/requests.h"
#include "operator/terminal.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;

namespace {

constexpr std::size_t COPY_SIZE = 65536;

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

// Starts threads that use the socket and the relay for as long as the process lives.
OPERATOR_STATUS carryStreams(int own, RELAY_T &relay, CONTROL_CLIENT_T &answers,
                             const OPERATOR_OPTIONS_T &options)
{
    const bool has_progress = options.progress;
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
    const json end = endOf(answers, waitOf(options, ANSWER_TIME));
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
    const auto time = waitOf(options, DEVICE_ANSWER_TIME);
    CONTROL_CLIENT_T answers = openRequest(options.control, request, time, theirs.get());
    theirs.reset();
    if (!nextAnswer(answers, time)) throw ControlError("the back end went away", true);

    RELAY_T relay;
    OPERATOR_STATUS status = OPERATOR_REFUSED;
    try {
        status = carryStreams(own.get(), relay, answers, options);
    } catch (const std::exception &fault) {
        (void)std::fprintf(stderr, "remote-access: %s\n", shown(fault.what()).c_str());
    }
    // Neither exit() nor a return: the other threads still use what these would tear down.
    ::_exit(status);
}
