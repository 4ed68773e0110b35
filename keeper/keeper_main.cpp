// remote_access_keeper: keeps sessions of the gateway's services while their line is lost.
#include "keeper/keeper.h"

#include "src/service_catalogue.h"
#include "utility/route_table.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <malloc.h>
#include <netinet/in.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

namespace {

using namespace keeper;

constexpr char USAGE[] =
    R"(Usage: remote_access_keeper [OPTION]...
Keeps sessions of this gateway's services while their line is lost.

  --services FILE   list of services, as the daemon has it; its entry of type KEEPER says where to
                    listen (default %s)
  --account NAME    the daemon's account; nobody else is let in (default: the keeper's own)
  --away SECONDS    hold a session without a line for this long, 1 to 86400 (default 900)
  --sessions N      sessions at a time, 1 to 1024 (default 64)
  --memory MIB      for bytes that wait, over all sessions, 1 to 1024 (default 4)
  --help, --version
SIGHUP reads the list of services again.
)";

struct OPTIONS_T {
    std::string services = SERVICE_LIST_FILE;
    KEEPER_SETTINGS_T settings;
};

unsigned numberOf(const char *name, const char *text, unsigned most)
{
    unsigned number = 0;
    const char *const end = text + std::strlen(text);
    const auto [stop, fault] = std::from_chars(text, end, number);
    if (fault != std::errc() || stop != end || number < 1 || number > most)
        throw std::invalid_argument(std::string(name) + " must be 1 to " + std::to_string(most) +
                                    ", not \"" + text + "\"");
    return number;
}

uid_t accountOf(const char *name)
{
    errno = 0;
    const passwd *const entry = ::getpwnam(name);
    if (entry != nullptr) return entry->pw_uid;
    throw std::invalid_argument(std::string("--account: ") +
                                (errno != 0 ? std::strerror(errno) : "there is no such account") +
                                ": " + name);
}

// False when the program is done: its text was asked for.
bool readOptions(int argc, char **argv, OPTIONS_T &options)
{
    enum { SERVICES = 1, ACCOUNT, AWAY, SESSIONS, MEMORY, HELP, VERSION };
    static const option LONG[] = {{"services", required_argument, nullptr, SERVICES},
                                  {"account", required_argument, nullptr, ACCOUNT},
                                  {"away", required_argument, nullptr, AWAY},
                                  {"sessions", required_argument, nullptr, SESSIONS},
                                  {"memory", required_argument, nullptr, MEMORY},
                                  {"help", no_argument, nullptr, HELP},
                                  {"version", no_argument, nullptr, VERSION},
                                  {nullptr, 0, nullptr, 0}};
    KEEPER_SETTINGS_T &settings = options.settings;
    for (int found = 0; (found = ::getopt_long(argc, argv, "", LONG, nullptr)) != -1;) {
        switch (found) {
        case SERVICES:
            options.services = optarg;
            break;
        case ACCOUNT:
            settings.account = accountOf(optarg);
            break;
        case AWAY:
            settings.away_time = std::chrono::seconds(numberOf("--away", optarg, 86400));
            break;
        case SESSIONS:
            settings.sessions_max = numberOf("--sessions", optarg, 1024);
            break;
        case MEMORY:
            settings.budget = std::size_t{numberOf("--memory", optarg, 1024)} << 20;
            break;
        case HELP:
            std::printf(USAGE, SERVICE_LIST_FILE);
            return false;
        case VERSION:
            std::puts("remote_access_keeper " RA_VERSION);
            return false;
        default:
            throw std::invalid_argument("see --help");
        }
    }
    if (optind < argc) throw std::invalid_argument(std::string("unknown argument ") + argv[optind]);
    return true;
}

// The address of the machine that hosts the gateway, which the daemon announces for its services.
std::string hostAddress()
{
    const std::unique_ptr<std::FILE, Releaser<std::fclose>> table{
        std::fopen("/proc/net/route", "re")};
    in_addr address{};
    if (!table || !findDefaultRoute(table.get(), &address.s_addr)) return "";
    char dotted[INET_ADDRSTRLEN] = "";
    return ::inet_ntop(AF_INET, &address, dotted, sizeof dotted);
}

UniqueFd listenAt(const KEPT_SERVICE_T &own)
{
    const std::string text = own.ip + ":" + std::to_string(own.port);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(own.port);
    if (::inet_pton(AF_INET, own.ip.c_str(), &address.sin_addr) != 1 ||
        ntohl(address.sin_addr.s_addr) >> 24 != IN_LOOPBACKNET || own.port == 0)
        throw std::runtime_error("the keeper's own entry must have an address of this machine "
                                 "alone, as 127.0.0.1, and a port; it has " +
                                 text);
    UniqueFd fd{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    const int on = 1;
    if (!fd || ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), SOMAXCONN) != 0)
        throw std::runtime_error(text + ": " + std::strerror(errno));
    (void)std::fprintf(stderr, "listening at %s\n", text.c_str());
    return fd;
}

UniqueFd takeSignals()
{
    (void)std::signal(SIGPIPE, SIG_IGN);
    sigset_t taken;
    sigemptyset(&taken);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&taken, number);
    UniqueFd fd{::signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC)};
    if (!fd || ::sigprocmask(SIG_BLOCK, &taken, nullptr) != 0)
        throw std::runtime_error(std::strerror(errno));
    return fd;
}

void reload(Keeper &keeper, const std::string &path)
{
    try {
        keeper.replaceServices(readServices(path), hostAddress());
        (void)std::fprintf(stderr, "%s read again\n", path.c_str());
    } catch (const std::exception &fault) {
        (void)std::fprintf(stderr, "the list of services stays as it was: %s\n", fault.what());
    }
}

void run(OPTIONS_T options)
{
    KEEPER_SETTINGS_T &settings = options.settings;
    settings.services = readServices(options.services);
    settings.host = hostAddress();
    const auto own = ownEntry(settings.services);
    if (!own)
        throw std::runtime_error(options.services +
                                 ": has no entry of type KEEPER, so nobody would find the keeper");
    const UniqueFd signals = takeSignals();
    Keeper keeper(settings, listenAt(*own));
    for (;;) {
        if (!keeper.pass(signals.get())) continue;
        signalfd_siginfo taken{};
        if (::read(signals.get(), &taken, sizeof taken) != sizeof taken) continue;
        if (taken.ssi_signo != SIGHUP) return;
        reload(keeper, options.services);
    }
}

} // namespace

int main(int argc, char **argv)
{
    // Buffers go back to the system when a burst is over, and what is held is not to be found in a
    // core file.
    (void)::mallopt(M_MMAP_THRESHOLD, 32768);
    (void)::mallopt(M_TRIM_THRESHOLD, 65536);
    (void)::prctl(PR_SET_DUMPABLE, 0);
    try {
        OPTIONS_T options;
        options.settings.account = ::geteuid();
        if (!readOptions(argc, argv, options)) return 0;
        run(std::move(options));
        return 0;
    } catch (const std::invalid_argument &fault) {
        (void)std::fprintf(stderr, "remote_access_keeper: %s\n", fault.what());
        return 2;
    } catch (const std::exception &fault) {
        (void)std::fprintf(stderr, "remote_access_keeper: %s\n", fault.what());
        return 1;
    }
}
