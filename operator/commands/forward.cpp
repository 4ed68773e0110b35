// The command that forwards a local port: each connection is a session of its own. One that is cut
// off ends as it does for a client of the back end's own ports, with a reset.
#include "operator/carrier/socket_access.h"
#include "operator/commands/commands.h"
#include "operator/commands/local_port.h"
#include "operator/commands/requests.h"
#include "operator/terminal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using nlohmann::json;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr auto ACCEPT_PAUSE = std::chrono::milliseconds(100);
constexpr auto REFUSAL_PAUSE = seconds(1);

volatile std::sig_atomic_t g_ending = 0;

// Signals that end the process come through only while it waits for a connection, so that the
// socket's file is removed before they take effect. Threads that are started meanwhile block them.
class EndSignals {
public:
    EndSignals()
    {
        sigset_t noted;
        sigemptyset(&noted);
        struct sigaction noting {};
        noting.sa_handler = [](int number) { g_ending = number; };
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction usual {};
            (void)::sigaction(number, nullptr, &usual);
            if (usual.sa_handler == SIG_IGN) continue; // as nohup(1) wants it
            sigaddset(&noted, number);
            (void)::sigaction(number, &noting, nullptr);
        }
        (void)::pthread_sigmask(SIG_BLOCK, &noted, &waiting_mask_);
    }

    // False when one has come.
    bool waitForInput(int fd) const
    {
        pollfd input{fd, POLLIN, 0};
        return ::ppoll(&input, 1, nullptr, &waiting_mask_) >= 0 || g_ending == 0;
    }

    // Ends the process as the signal would have.
    void takeEffect() const
    {
        (void)std::signal(g_ending, SIG_DFL);
        (void)std::raise(g_ending);
        (void)::pthread_sigmask(SIG_SETMASK, &waiting_mask_, nullptr);
    }

private:
    sigset_t waiting_mask_{};
};

void tellTurnedAway(const std::string &reason)
{
    (void)std::fprintf(stderr, "remote-access: a connection was turned away: %s\n",
                       shown(reason).c_str());
}

// One line when a session begins and one when it has ended.
void forwardOne(const OPERATOR_OPTIONS_T &options, const json &request, UniqueFd client)
{
    SESSION_ENDS_T ends{std::move(client), {}};
    try {
        const auto start = steady_clock::now();
        const auto time = waitOf(options, DEVICE_ANSWER_TIME);
        const auto session = openUsualSession(options, request, ends, time);
        const std::string id = shown(session->id());
        std::printf("%s opened\n", id.c_str());
        (void)std::fflush(stdout);
        SESSION_COUNTS_T counts;
        const SESSION_END_T end = session->carry(counts);
        const double lasted = std::chrono::duration<double>(steady_clock::now() - start).count();
        std::printf("%s ended after %.1f s: %s%s; up %s (%s/s), down %s (%s/s)\n", id.c_str(),
                    lasted, shown(end.reason).c_str(), end.is_whole ? "" : ", CUT OFF",
                    sizeText(end.bytes_up).c_str(), sizeText(end.bytes_up / lasted).c_str(),
                    sizeText(end.bytes_down).c_str(), sizeText(end.bytes_down / lasted).c_str());
        (void)std::fflush(stdout);
    } catch (const std::exception &fault) {
        if (ends.in) turnAway(std::move(ends.in)); // it never reached the service
        tellTurnedAway(fault.what());
    }
}

struct FORWARD_T {
    const OPERATOR_OPTIONS_T &options;
    json request;
    LOCAL_PORT_T port;
    steady_clock::time_point last_refusal{};
    unsigned untold_refusals = 0;
};

// Other accounts can cause these lines as fast as they like: at most one a second, with the number
// of those between.
void refuseAccount(FORWARD_T &forward, UniqueFd client, std::optional<uid_t> account)
{
    turnAway(std::move(client));
    const auto now = steady_clock::now();
    if (forward.last_refusal != steady_clock::time_point{} &&
        now - forward.last_refusal < REFUSAL_PAUSE) {
        ++forward.untold_refusals;
        return;
    }
    std::string text = account ? "it is " + accountName(*account) + "'s, and this port serves " +
                                     accountName(::geteuid()) + " only (see --shared)"
                               : std::string("its account cannot be told, or it has gone already");
    if (forward.untold_refusals > 0)
        text += "; so were " + std::to_string(forward.untold_refusals) + " since the last line";
    forward.untold_refusals = 0;
    forward.last_refusal = now;
    tellTurnedAway(text);
}

void takeClient(FORWARD_T &forward, UniqueFd client)
{
    const auto account = clientAccount(forward.port, client.get());
    json request = forward.request;
    if (forward.options.shared) {
        request["shared"] = true;
        request["client"] = account ? accountName(*account) : "unknown account";
    } else if (!account || *account != ::geteuid()) {
        return refuseAccount(forward, std::move(client), account);
    }
    try {
        std::thread(forwardOne, std::cref(forward.options), std::move(request), std::move(client))
            .detach();
    } catch (const std::exception &fault) { // no thread available; the other sessions continue
        tellTurnedAway(fault.what());
    }
}

void serve(FORWARD_T &forward, const EndSignals &signals)
{
    while (signals.waitForInput(forward.port.listener.get())) {
        // cppcheck-suppress nullPointer // accept(2) allows null for an address that is not wanted
        UniqueFd client{::accept4(forward.port.listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
        if (client)
            takeClient(forward, std::move(client));
        else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
            std::this_thread::sleep_for(ACCEPT_PAUSE); // out of descriptors: some will come back
    }
}

void checkService(const OPERATOR_OPTIONS_T &options, const json &request)
{
    const json answer =
        ask(options.back_end, {{"do", "services"}, {"device", request.at("device")}},
            waitOf(options, ANSWER_TIME));
    const json &services = answer.at("services");
    const std::string name = request.value("service", "");
    if (std::none_of(services.begin(), services.end(),
                     [&name](const json &service) { return service.value("name", "") == name; }))
        throw RequestError(request.value("device", "") + " does not offer " + name, false);
}

} // namespace

int forwardPort(const OPERATOR_OPTIONS_T &options)
{
    json request = connectRequest(options, waitOf(options, ANSWER_TIME));
    checkService(options, request);
    const EndSignals signals;
    {
        FORWARD_T forward{options, std::move(request),
                          options.socket.empty() ? openLocalPort(options.port)
                                                 : openLocalSocket(options.socket, options.shared)};
        std::printf("%s leads to %s%s; Ctrl-C ends it\n", shown(forward.port.text).c_str(),
                    shown(options.target).c_str(),
                    options.shared ? ", for every account of this machine" : "");
        (void)std::fflush(stdout);
        serve(forward, signals);
    }
    signals.takeEffect();
    return OPERATOR_DONE;
}
