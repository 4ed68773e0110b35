// The command that copies bytes: a session whose ends are standard input and output.
#include "operator/carrier/carrier.h"
#include "operator/commands/commands.h"
#include "operator/commands/requests.h"
#include "operator/terminal.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;

namespace {

[[noreturn]] void showProgress(const SESSION_COUNTS_T &counts)
{
    std::uint64_t up = 0;
    std::uint64_t down = 0;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const std::uint64_t now_up = counts.up;
        const std::uint64_t now_down = counts.down;
        (void)std::fprintf(stderr, "\rup %s (%s/s), down %s (%s/s)   ",
                           sizeText(static_cast<double>(now_up)).c_str(),
                           sizeText(static_cast<double>(now_up - up)).c_str(),
                           sizeText(static_cast<double>(now_down)).c_str(),
                           sizeText(static_cast<double>(now_down - down)).c_str());
        up = now_up;
        down = now_down;
    }
}

// Starts threads that use the session and the counts for as long as the process lives.
OPERATOR_STATUS carryStreams(Session &session, SESSION_COUNTS_T &counts, bool has_progress)
{
    if (has_progress) std::thread([&counts] { showProgress(counts); }).detach();
    const SESSION_END_T end = session.carry(counts);
    if (has_progress) (void)std::fputc('\n', stderr);
    if (end.is_whole) return OPERATOR_DONE;
    if (end.output_fault == EPIPE) return OPERATOR_REFUSED; // the reader wants no more
    if (end.output_fault != 0)
        (void)std::fprintf(stderr, "remote-access: standard output: %s\n",
                           std::strerror(end.output_fault));
    else
        (void)std::fprintf(stderr, "remote-access: cut off: %s\n", shown(end.reason).c_str());
    return OPERATOR_REFUSED;
}

UniqueFd copyOf(int fd)
{
    return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

} // namespace

int connectStreams(const OPERATOR_OPTIONS_T &options)
{
    const auto time = waitOf(options, DEVICE_ANSWER_TIME);
    const json request = connectRequest(options, time);
    // ssh ends its ProxyCommand with SIGHUP right behind its last bytes to the service. These must
    // arrive: they make the service end the session.
    (void)std::signal(SIGHUP, SIG_IGN);
    SESSION_ENDS_T ends{copyOf(STDIN_FILENO), copyOf(STDOUT_FILENO)};
    if (!ends.in || !ends.out) throw std::runtime_error("standard input or output is closed");
    const auto session = openUsualSession(options, request, ends, time);

    SESSION_COUNTS_T counts;
    OPERATOR_STATUS status = OPERATOR_REFUSED;
    try {
        status = carryStreams(*session, counts, options.progress);
    } catch (const std::exception &fault) {
        (void)std::fprintf(stderr, "remote-access: %s\n", shown(fault.what()).c_str());
    }
    // Neither exit() nor a return: the other threads still use what these would tear down.
    ::_exit(status);
}
