// gateway_config_manager: keeps the gateway's settings and hands them out over the private bus.
// Exit status 0 after SIGTERM or SIGINT, 1 when the file or the bus fails or the bus is lost (a
// supervisor starts it again), 2 for wrong arguments.
#include "gateway/config_manager/config_service.h"

#include "common/log.h"
#include "utility/handles.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <sys/signalfd.h>

namespace {

constexpr char USAGE[] =
    "Usage: gateway_config_manager --bus ADDRESS --file PATH\n"
    "Keeps the gateway's settings in PATH and offers them on the bus at ADDRESS.\n";
constexpr int EXIT_USAGE = 2;

struct OPTIONS_T {
    const char *bus = nullptr;
    const char *file = nullptr;
    bool help = false;
};

// 0, or -1 when the arguments are not understood (getopt says which).
int parse_options(int argc, char **argv, OPTIONS_T &options)
{
    constexpr option KNOWN[] = {{"bus", required_argument, nullptr, 'b'},
                                {"file", required_argument, nullptr, 'f'},
                                {"help", no_argument, nullptr, 'h'},
                                {nullptr, 0, nullptr, 0}};
    for (int found = 0; (found = ::getopt_long(argc, argv, "", KNOWN, nullptr)) != -1;) {
        switch (found) {
        case 'b':
            options.bus = optarg;
            break;
        case 'f':
            options.file = optarg;
            break;
        case 'h':
            options.help = true;
            break;
        default:
            return -1;
        }
    }
    const bool complete = options.bus != nullptr && options.file != nullptr;
    return optind == argc && (options.help || complete) ? 0 : -1;
}

// A descriptor that becomes readable when the program is to end.
int open_stop_signals()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    if (::sigprocmask(SIG_BLOCK, &stop, nullptr) != 0) return -1;
    return ::signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

int main(int argc, char **argv)
{
    OPTIONS_T options;
    if (parse_options(argc, argv, options) != 0) {
        std::fputs(USAGE, stderr);
        return EXIT_USAGE;
    }
    if (options.help) {
        std::fputs(USAGE, stdout);
        return EXIT_SUCCESS;
    }
    log_init("gateway_config_manager", 1, LOG_LEVEL_INFO, 2);
    std::signal(SIGPIPE, SIG_IGN); // a reader of the log may go away
    const UniqueFd stop{open_stop_signals()};
    if (!stop) {
        RA_ERROR("signals cannot be received: %s", std::strerror(errno));
        return EXIT_FAILURE;
    }
    CONFIG_STORE_T store;
    if (load_config_store(store, options.file) != 0) return EXIT_FAILURE;
    return serve_config(options.bus, store, stop.get()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
