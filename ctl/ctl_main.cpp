// remote-access-ctl: the command line of the gateway's remote access.
#include "common/bus_names.h"
#include "ctl/commands.h"
#include "utility/standard_output.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

namespace {

constexpr char USAGE[] =
    "Usage: remote-access-ctl [--bus ADDRESS] COMMAND [OPTION...]\n"
    "\n"
    "  status [--json] [--thread]         show the channel, the services, the sessions used and "
    "free;\n"
    "                                     --thread also checks the channel's thread, which blocks\n"
    "                                     the daemon's bus methods for one to three seconds\n"
    "  sessions [--json]                  list the open sessions\n"
    "  services [--json]                  list the services that are offered to the back end\n"
    "  open                               switch remote access on\n"
    "  close                              switch remote access off, which ends every session\n"
    "  wait --connected [--timeout S]     wait until the channel is up, 60 s by default; 0: no "
    "limit\n"
    "  doctor                             find what keeps the channel or the services from "
    "working,\n"
    "                                     and say what to do\n"
    "\n"
    "Exit status: 0 success, channel up, or no check failed; 1 channel down, or a check failed;\n"
    "2 invalid command line; 3 the bus or the daemon cannot be reached.\n";

enum ACCEPTED_OPTION : unsigned {
    ACCEPT_NOTHING = 0,
    ACCEPT_JSON = 1,
    ACCEPT_THREAD = 2,
    ACCEPT_WAIT = 4,
};

struct COMMAND_T {
    const char *name;
    int (*run)(BUS_CLIENT_T &, const CTL_OPTIONS_T &);
    unsigned accepted;
};

constexpr auto COMMANDS = std::to_array<COMMAND_T>({
    {"status", showStatus, ACCEPT_JSON | ACCEPT_THREAD},
    {"sessions", showSessions, ACCEPT_JSON},
    {"services", showServices, ACCEPT_JSON},
    {"open", openAccess, ACCEPT_NOTHING},
    {"close", closeAccess, ACCEPT_NOTHING},
    {"wait", waitConnected, ACCEPT_WAIT},
    {"doctor", examine, ACCEPT_NOTHING},
});

constexpr auto OPTIONS = std::to_array<option>({
    {"bus", required_argument, nullptr, 'b'},
    {"json", no_argument, nullptr, 'j'},
    {"thread", no_argument, nullptr, 't'},
    {"connected", no_argument, nullptr, 'c'},
    {"timeout", required_argument, nullptr, 's'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
});

int refuse(const char *what, const char *which)
{
    (void)std::fprintf(stderr, "remote-access-ctl: %s%s\nRun with --help for more information.\n",
                       what, which);
    return CTL_USAGE;
}

bool readSeconds(const char *text, double &seconds)
{
    char *end = nullptr;
    seconds = std::strtod(text, &end);
    return end != text && *end == '\0' && std::isfinite(seconds) && seconds >= 0 &&
           seconds <= 86400.0 * 365;
}

int runCommand(int argc, char **argv)
{
    BUS_CLIENT_T bus;
    bus.address = BUS_ADDRESS;
    CTL_OPTIONS_T options;
    unsigned used = ACCEPT_NOTHING;
    for (int found = 0; (found = ::getopt_long(argc, argv, "", OPTIONS.data(), nullptr)) != -1;) {
        switch (found) {
        case 'b':
            bus.address = optarg;
            break;
        case 'j':
            options.json = true;
            used |= ACCEPT_JSON;
            break;
        case 't':
            options.thread = true;
            used |= ACCEPT_THREAD;
            break;
        case 'c':
            options.connected = true;
            used |= ACCEPT_WAIT;
            break;
        case 's':
            if (!readSeconds(optarg, options.timeout_s))
                return refuse("not a number of seconds: ", optarg);
            used |= ACCEPT_WAIT;
            break;
        case 'h':
            (void)std::fputs(USAGE, stdout);
            return CTL_YES;
        case 'v':
            std::puts("remote-access-ctl " RA_VERSION);
            return CTL_YES;
        default:
            return CTL_USAGE; // getopt has said what is wrong
        }
    }
    if (optind + 1 != argc)
        return refuse(optind == argc ? "a command is needed" : "one command, no more: ",
                      optind == argc ? "" : argv[optind + 1]);
    for (const COMMAND_T &row : COMMANDS) {
        if (std::strcmp(row.name, argv[optind]) != 0) continue;
        if ((used & ~row.accepted) != 0)
            return refuse("an option that does not belong to ", row.name);
        if (row.accepted == ACCEPT_WAIT && !options.connected)
            return refuse("wait needs --connected", "");
        return row.run(bus, options);
    }
    return refuse("unknown command ", argv[optind]);
}

} // namespace

int main(int argc, char **argv)
{
    const int status = runCommand(argc, argv);
    if (flush_output("remote-access-ctl")) return status;
    return status == CTL_YES ? CTL_NO : status;
}
