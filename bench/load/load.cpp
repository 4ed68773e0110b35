// The load of the benchmark: one process plays the service on the gateway and the operator, at the
// two ends of a way that may be a tunnel, a relay or nothing at all, for one window of one kind. It
// prints one "name value" line for each figure.
//
//   bench_load way KIND WINDOW_MS COST SERVICE_PORT OPERATOR_PORT GATEWAY_PIDS FAR_PIDS
//   bench_load tls KIND WINDOW_MS CPU CIPHER_SUITE CERTIFICATE KEY
//
// KIND  open, rtt, down1, up1, down8, up8, rtt_down or rtt_up; with tls down1 or up1.
// COST  of the load's own bulk flows: "usual", or "cheap" so that the way is what limits.
// PIDS  PID,PID,...; 0 is not measured.
// CPU   the processor of the thread that plays the gateway, -1 for any.
//
// "down" is from the service to the operator. What the load itself costs is kept low: bulk data is
// thrown away in the kernel, and one thread plays both ends of a round trip, so that no wake-up in
// it is the load's own.
// Failure  a line on standard error and status 1, also when a socket makes no progress for 10 s.
#include "bench/load/bare_tls.h"
#include "bench/load/flows.h"
#include "utility/text.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace {

constexpr double WARM_UP_S = 0.1;
constexpr std::size_t EXCHANGE = 64;
constexpr std::size_t MANY = 8;
constexpr std::size_t OPENS_MAX = 1000;

void measureBulk(const WAY_T &way, std::size_t count, bool down)
{
    std::vector<SESSION_T> sessions = openSessions(way, count);
    Flows flows = startFlows(sessions, down, way.cheap);
    sleepFor(WARM_UP_S);
    const std::vector<std::uint64_t> before = receivedBy(flows);
    const double start = now();
    const double gateway = sumOf(way.gateway);
    const double far = sumOf(way.far);
    const double own = readClock(CLOCK_PROCESS_CPUTIME_ID);
    sleepFor(way.window_s);
    const std::vector<std::uint64_t> after = receivedBy(flows);
    const double gateway_cpu = sumOf(way.gateway) - gateway;
    const double far_cpu = sumOf(way.far) - far;
    const double own_cpu = readClock(CLOCK_PROCESS_CPUTIME_ID) - own;
    const double seconds = now() - start;
    const std::uint64_t lost = endFlows(flows);
    double moved = 0;
    for (const std::uint64_t bytes : receivedBy(flows))
        moved += static_cast<double>(bytes);
    for (SESSION_T &session : sessions)
        closeSession(session);

    double total = 0;
    double slowest = 1e18;
    for (std::size_t i = 0; i < count; ++i) {
        const auto bytes = static_cast<double>(after[i] - before[i]);
        total += bytes;
        slowest = std::min(slowest, bytes);
    }
    require(total > 0, "no bulk data came through");
    const std::string name = (down ? "down" : "up") + std::to_string(count);
    report("mbs_" + name, total / seconds / 1e6);
    if (count > 1) report("share_" + name, 100 * slowest * static_cast<double>(count) / total);
    if (!way.gateway.empty()) report("cpu_" + name, gateway_cpu / total * 1e9);
    if (!way.far.empty()) report("far_" + name, far_cpu / total * 1e9);
    report("load_" + name, own_cpu / total * 1e9);
    report("moved_" + name, moved); // by the whole flow, what came before and after the window too
    report("lost", static_cast<double>(lost));
}

void measureRoundTrips(const WAY_T &way, const std::string &name)
{
    SESSION_T session = openSession(way);
    std::vector<double> samples;
    for (const double end = now() + way.window_s; now() < end;) {
        const double start = now();
        carry(session.client, session.service, EXCHANGE);
        carry(session.service, session.client, EXCHANGE);
        samples.push_back((now() - start) * 1e6);
    }
    reportPercentiles(name, samples);
    closeSession(session);
}

void measureRoundTripsBeside(const WAY_T &way, bool down)
{
    std::vector<SESSION_T> bulk = openSessions(way, 1);
    Flows flows = startFlows(bulk, down, way.cheap);
    sleepFor(WARM_UP_S);
    measureRoundTrips(way, down ? "rtt_down" : "rtt_up");
    report("lost", static_cast<double>(endFlows(flows)));
    closeSession(bulk.front());
}

void measureOpening(const WAY_T &way)
{
    std::vector<double> samples;
    for (const double end = now() + way.window_s; now() < end && samples.size() < OPENS_MAX;) {
        const double start = now();
        SESSION_T session = openSession(way);
        samples.push_back((now() - start) * 1e3);
        closeSession(session);
    }
    reportPercentiles("open", samples);
}

struct KIND_T {
    std::string_view name;
    void (*measure)(const WAY_T &way);
};
constexpr KIND_T KINDS[] = {
    {"open", measureOpening},
    {"rtt", [](const WAY_T &way) { measureRoundTrips(way, "rtt"); }},
    {"down1", [](const WAY_T &way) { measureBulk(way, 1, true); }},
    {"up1", [](const WAY_T &way) { measureBulk(way, 1, false); }},
    {"down8", [](const WAY_T &way) { measureBulk(way, MANY, true); }},
    {"up8", [](const WAY_T &way) { measureBulk(way, MANY, false); }},
    {"rtt_down", [](const WAY_T &way) { measureRoundTripsBeside(way, true); }},
    {"rtt_up", [](const WAY_T &way) { measureRoundTripsBeside(way, false); }},
};

int refuse()
{
    (void)std::fprintf(stderr, "bench_load: see the head of bench/load/load.cpp\n");
    return 2;
}

int measureWay(char **words)
{
    const auto *const kind = std::ranges::find(KINDS, std::string_view(words[0]), &KIND_T::name);
    if (kind == std::end(KINDS)) return refuse();
    kind->measure({listenOn(words[3]), loopback(words[4]), clocksOf(words[5]), clocksOf(words[6]),
                   parse_int32(words[1]) / 1000.0, std::string_view(words[2]) == "cheap"});
    return 0;
}

int measureTls(char **words)
{
    const std::string_view kind = words[0];
    if (kind != "down1" && kind != "up1") return refuse();
    measureBareTls({words[3], words[4], words[5], kind == "down1", parse_int32(words[1]) / 1000.0,
                    parse_int32(words[2])});
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "way" && argc == 9) return measureWay(argv + 2);
    if (what == "tls" && argc == 8) return measureTls(argv + 2);
    return refuse();
}
