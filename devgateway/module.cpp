#include "devgateway/module.h"
#include "devgateway/bus_library.h"

#include "common/log.h"
#include "utility/bus_address.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <vector>

namespace {

constexpr std::size_t BUS_NAME_MAX = 255;
constexpr int HANDLED_AT_ONCE = 4096; // a flood of messages must not delay the module's timers

int earlier(int a_ms, int b_ms)
{
    if (a_ms < 0) return b_ms;
    return b_ms < 0 ? a_ms : std::min(a_ms, b_ms);
}

} // namespace

int read_module_options(int argc, char **argv, const char *usage,
                        std::span<const MODULE_OPTION_T> options)
{
    std::vector<option> known;
    for (const MODULE_OPTION_T &row : options) {
        known.push_back({row.name, required_argument, nullptr, 0});
    }
    known.push_back({"help", no_argument, nullptr, 0});
    known.push_back({});
    for (int found = 0, row = 0;
         (found = ::getopt_long(argc, argv, "", known.data(), &row)) != -1;) {
        if (found != 0) {
            (void)std::fputs(usage, stderr);
            return EXIT_WRONG_ARGUMENTS;
        }
        const auto index = static_cast<std::size_t>(row);
        if (index == options.size()) {
            (void)std::fputs(usage, stdout);
            return EXIT_SUCCESS;
        }
        *options[index].value = optarg;
    }
    const bool complete = std::none_of(options.begin(), options.end(), [](const auto &row) {
        return row.needed == OPTION_NEEDED && *row.value == nullptr;
    });
    if (complete && optind == argc) return -1;
    (void)std::fputs(usage, stderr);
    return EXIT_WRONG_ARGUMENTS;
}

int start_module(const char *name)
{
    log_init(name, 1, LOG_LEVEL_INFO, 2);
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader of the log, or a peer, may go away
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    const int fd = ::sigprocmask(SIG_BLOCK, &stop, nullptr) == 0
                       ? ::signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK)
                       : -1;
    if (fd < 0) RA_ERROR("signals cannot be received: %s", std::strerror(errno));
    return fd;
}

bool is_module_name(std::string_view name) noexcept
{
    if (name.size() > BUS_NAME_MAX || name.find('.') == std::string_view::npos) return false;
    char before = '.';
    for (const char c : name) {
        const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
        const bool digit = c >= '0' && c <= '9';
        if (before == '.' ? !letter : !letter && !digit && c != '.') return false;
        before = c;
    }
    return before != '.';
}

std::unique_ptr<sdbus::IConnection> connect_bus(const std::string &address)
{
    if (const std::string fault = bus_address_fault(address); !fault.empty()) {
        throw std::runtime_error(fault);
    }
    return sdbus::createSessionBusConnectionWithAddress(address);
}

bool wait_for_work(sdbus::IConnection &bus, int stop_fd, int timeout_ms, pollfd *own)
{
    const auto wanted = bus.getEventLoopPollData();
    pollfd sources[] = {{wanted.fd, wanted.events, 0},
                        {stop_fd, POLLIN, 0},
                        own != nullptr ? *own : pollfd{-1, 0, 0}};
    if (::poll(sources, std::size(sources), earlier(wanted.getPollTimeout(), timeout_ms)) < 0 &&
        errno != EINTR) {
        throw sdbus::createError(errno, "waiting failed");
    }
    if (own != nullptr) own->revents = sources[2].revents;
    for (int i = 0; i < HANDLED_AT_ONCE && bus_library::handle_one(bus); ++i) {
    }
    return sources[1].revents == 0;
}
