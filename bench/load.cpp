// The load of the benchmark: one process plays the service on the gateway and the operator, at the
// two ends of a way that may be a tunnel, a relay or nothing at all. It prints one "name value"
// line for each figure.
//
//   bench_load way SERVICE_PORT OPERATOR_PORT GATEWAY_PID FAR_PID WINDOW_MS
//   bench_load tls CIPHER_SUITE CERTIFICATE KEY WINDOW_MS
//
// "down" is from the service to the operator. A PID of 0 is not measured; else the process's CPU
// time is read with the clock of its own, which counts nanoseconds and threads that have ended.
// What the load itself costs is kept low: bulk data is thrown away in the kernel, and one thread
// plays both ends of a round trip, so that no wake-up in it is the load's own.
// Failure  a line on standard error and status 1, also when a socket makes no progress for 10 s.
#include "utility/handles.h"
#include "utility/text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

constexpr int PROGRESS_MS = 10000;
constexpr int NAP_MS = 100; // how late the end of a flow may be noticed
constexpr std::size_t CHUNK = 65536;
constexpr std::size_t MESSAGE = 50172; // what the daemon sends up at most at a time
constexpr std::size_t EXCHANGE = 64;
constexpr std::size_t MANY = 8;
constexpr std::size_t OPENS_MAX = 1000;
constexpr clockid_t NO_CLOCK = CLOCK_REALTIME; // of a process that is not measured

[[noreturn]] void die(const char *what)
{
    (void)std::fprintf(stderr, "bench_load: %s: %s\n", what, std::strerror(errno));
    std::_Exit(1);
}

void require(bool good, const char *what)
{
    if (!good) die(what);
}

double readClock(clockid_t clock)
{
    timespec time{};
    require(::clock_gettime(clock, &time) == 0, "clock");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double now()
{
    return readClock(CLOCK_MONOTONIC);
}

double cpuTime(clockid_t clock)
{
    return clock == NO_CLOCK ? 0 : readClock(clock);
}

clockid_t clockOfProcess(const char *pid)
{
    clockid_t clock = NO_CLOCK;
    if (parse_int32(pid) > 0)
        require(::clock_getcpuclockid(parse_int32(pid), &clock) == 0, "no such process");
    return clock;
}

void sleepFor(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

void report(const std::string &name, double value)
{
    (void)std::printf("%s %.9g\n", name.c_str(), value);
}

void reportPercentiles(const std::string &name, std::vector<double> &samples)
{
    require(!samples.empty(), "nothing was measured");
    std::sort(samples.begin(), samples.end());
    report(name + "_p50", samples[samples.size() / 2]);
    report(name + "_p99", samples[samples.size() * 99 / 100]);
}

// ---- sockets

void setTimeout(int fd, int option, long milliseconds)
{
    const timeval time{milliseconds / 1000, milliseconds % 1000 * 1000};
    require(::setsockopt(fd, SOL_SOCKET, option, &time, sizeof time) == 0, "socket time-out");
}

UniqueFd prepared(int fd)
{
    require(fd >= 0, "socket");
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setTimeout(fd, SO_RCVTIMEO, PROGRESS_MS);
    setTimeout(fd, SO_SNDTIMEO, PROGRESS_MS);
    return UniqueFd{fd};
}

sockaddr_in loopback(const char *port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(parse_int32(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

UniqueFd listenOn(const char *port)
{
    UniqueFd fd = prepared(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(port);
    const int on = 1;
    (void)::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    require(::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                ::listen(fd.get(), MANY) == 0,
            "listen");
    return fd;
}

UniqueFd connectTo(const sockaddr_in &address)
{
    UniqueFd fd = prepared(::socket(AF_INET, SOCK_STREAM, 0));
    require(::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
            "connect");
    return fd;
}

void carry(int from, int to, std::size_t size)
{
    char bytes[EXCHANGE] = {};
    require(::send(from, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size), "send");
    require(::recv(to, bytes, size, MSG_WAITALL) == static_cast<ssize_t>(size), "receive");
}

// ---- one way, and sessions on it

struct WAY_T {
    UniqueFd listener;
    sockaddr_in entry;
    clockid_t gateway;
    clockid_t far;
    double window_s;
};

struct SESSION_T {
    UniqueFd service;
    UniqueFd client;
};

// Ends with the first echoed byte, which also shows that the two ends belong together.
SESSION_T openSession(const WAY_T &way)
{
    SESSION_T session;
    session.client = connectTo(way.entry);
    const char first = 0;
    require(::send(session.client.get(), &first, 1, MSG_NOSIGNAL) == 1, "send");
    session.service = prepared(::accept(way.listener.get(), nullptr, nullptr));
    char echo = 0;
    require(::recv(session.service.get(), &echo, 1, 0) == 1, "the session's first byte");
    carry(session.service.get(), session.client.get(), 1);
    return session;
}

// From the service's side, and waits until the end has come through.
void closeSession(SESSION_T &session)
{
    session.service.reset();
    char byte = 0;
    setTimeout(session.client.get(), SO_RCVTIMEO, PROGRESS_MS);
    require(::recv(session.client.get(), &byte, 1, 0) == 0, "the session's end");
    session.client.reset();
}

struct FLOW_T {
    int from = -1;
    int to = -1;
    std::atomic<std::uint64_t> sent{0};
    std::atomic<std::uint64_t> received{0};
    std::atomic<bool> stopping{false};
    std::atomic<bool> ended{false};
    std::thread sender;
    std::thread receiver;
};
using Flows = std::vector<std::unique_ptr<FLOW_T>>;

void sendFlow(FLOW_T &flow)
{
    const std::vector<char> chunk(CHUNK, 'x');
    while (!flow.stopping) {
        const ssize_t count = ::send(flow.from, chunk.data(), chunk.size(), MSG_NOSIGNAL);
        require(count > 0, "bulk send");
        flow.sent += static_cast<std::uint64_t>(count);
    }
    flow.ended = true;
}

void receiveFlow(FLOW_T &flow)
{
    setTimeout(flow.to, SO_RCVTIMEO, NAP_MS);
    int naps = 0;
    while (!flow.ended || flow.received < flow.sent) {
        // cppcheck-suppress nullPointer ; MSG_TRUNC: the kernel throws the bytes away
        const ssize_t count = ::recv(flow.to, nullptr, 1 << 20, MSG_TRUNC);
        require(count > 0 || (count < 0 && errno == EAGAIN), "bulk receive");
        naps = count > 0 ? 0 : naps + 1;
        if (count > 0) flow.received += static_cast<std::uint64_t>(count);
        if (naps * NAP_MS > PROGRESS_MS) return; // what is missing now is lost
    }
}

Flows startFlows(const std::vector<SESSION_T> &sessions, bool down)
{
    Flows flows;
    for (const SESSION_T &session : sessions) {
        const int service = session.service.get();
        const int client = session.client.get();
        FLOW_T &flow = *flows.emplace_back(std::make_unique<FLOW_T>());
        flow.from = down ? service : client;
        flow.to = down ? client : service;
        flow.receiver = std::thread(receiveFlow, std::ref(flow));
        flow.sender = std::thread(sendFlow, std::ref(flow));
    }
    return flows;
}

// Returns the bytes that never arrived.
std::uint64_t endFlows(Flows &flows)
{
    std::uint64_t lost = 0;
    for (const auto &flow : flows)
        flow->stopping = true;
    for (const auto &flow : flows) {
        flow->sender.join();
        flow->receiver.join();
        lost += flow->sent - flow->received;
    }
    return lost;
}

std::vector<std::uint64_t> receivedBy(const Flows &flows)
{
    std::vector<std::uint64_t> counts;
    for (const auto &flow : flows)
        counts.push_back(flow->received);
    return counts;
}

// ---- what is measured on a way

// Returns the bytes lost.
std::uint64_t measureBulk(const WAY_T &way, std::size_t count, bool down)
{
    std::vector<SESSION_T> sessions;
    while (sessions.size() < count)
        sessions.push_back(openSession(way));
    Flows flows = startFlows(sessions, down);
    sleepFor(way.window_s / 3);
    const std::vector<std::uint64_t> before = receivedBy(flows);
    const double start = now();
    const double gateway = cpuTime(way.gateway);
    const double far = cpuTime(way.far);
    sleepFor(way.window_s);
    const std::vector<std::uint64_t> after = receivedBy(flows);
    const double gateway_cpu = cpuTime(way.gateway) - gateway;
    const double far_cpu = cpuTime(way.far) - far;
    const double seconds = now() - start;
    const std::uint64_t lost = endFlows(flows);
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
    if (way.gateway != NO_CLOCK) report("cpu_" + name, gateway_cpu / total * 1e9);
    if (way.far != NO_CLOCK) report("far_" + name, far_cpu / total * 1e9);
    return lost;
}

void measureRoundTrips(const WAY_T &way, const std::string &name)
{
    SESSION_T session = openSession(way);
    std::vector<double> samples;
    for (const double end = now() + way.window_s; now() < end;) {
        const double start = now();
        carry(session.client.get(), session.service.get(), EXCHANGE);
        carry(session.service.get(), session.client.get(), EXCHANGE);
        samples.push_back((now() - start) * 1e6);
    }
    reportPercentiles(name, samples);
    closeSession(session);
}

std::uint64_t measureRoundTripsBeside(const WAY_T &way, bool down)
{
    std::vector<SESSION_T> bulk;
    bulk.push_back(openSession(way));
    Flows flows = startFlows(bulk, down);
    sleepFor(way.window_s / 3);
    measureRoundTrips(way, down ? "rtt_down" : "rtt_up");
    const std::uint64_t lost = endFlows(flows);
    closeSession(bulk.front());
    return lost;
}

void measureOpening(const WAY_T &way)
{
    std::vector<double> samples;
    for (const double end = now() + 2 * way.window_s; now() < end && samples.size() < OPENS_MAX;) {
        const double start = now();
        SESSION_T session = openSession(way);
        samples.push_back((now() - start) * 1e3);
        closeSession(session);
    }
    reportPercentiles("open", samples);
}

void measureWay(const WAY_T &way)
{
    std::uint64_t lost = 0;
    measureOpening(way);
    measureRoundTrips(way, "rtt");
    for (const bool down : {true, false}) {
        lost += measureBulk(way, 1, down) + measureBulk(way, MANY, down);
        lost += measureRoundTripsBeside(way, down);
    }
    report("lost", static_cast<double>(lost));
}

// ---- the bare connection: what TLS and the kernel cost without any tunnel

using SslPtr = std::unique_ptr<SSL, Releaser<SSL_free>>;
using SslContextPtr = std::unique_ptr<SSL_CTX, Releaser<SSL_CTX_free>>;

SslContextPtr makeContext(const SSL_METHOD *method, char **arguments)
{
    SslContextPtr context{SSL_CTX_new(method)};
    require(context && SSL_CTX_set_ciphersuites(context.get(), arguments[0]) == 1 &&
                SSL_CTX_use_certificate_chain_file(context.get(), arguments[1]) == 1 &&
                SSL_CTX_use_PrivateKey_file(context.get(), arguments[2], SSL_FILETYPE_PEM) == 1,
            "cipher suite, certificate or key");
    return context;
}

struct BARE_END_T {
    int fd;
    SSL *ssl; // null: plain
    const std::atomic<bool> *stopping;
    double cpu_s = 0;
    double seconds = 0;
    double gigabytes = 0;
};

ssize_t sendBare(const BARE_END_T &end, char *message)
{
    const ssize_t count = end.ssl != nullptr ? SSL_write(end.ssl, message, MESSAGE)
                                             : ::send(end.fd, message, MESSAGE, MSG_NOSIGNAL);
    require(count > 0, "bare send");
    return count;
}

ssize_t receiveBare(const BARE_END_T &end, char *message)
{
    const ssize_t count = end.ssl != nullptr ? SSL_read(end.ssl, message, MESSAGE)
                                             : ::recv(end.fd, message, MESSAGE, 0);
    require(count > 0 || *end.stopping, "bare receive");
    return std::max<ssize_t>(count, 0);
}

// Each end counts what its own thread spends, its part of the TLS handshake left out.
void runBareEnd(BARE_END_T &end, bool sends)
{
    std::vector<char> message(MESSAGE, 'x');
    require(end.ssl == nullptr || (sends ? SSL_accept(end.ssl) : SSL_connect(end.ssl)) == 1,
            "TLS handshake");
    const double start = now();
    const double cpu = readClock(CLOCK_THREAD_CPUTIME_ID);
    for (ssize_t count = 1; count > 0 && !(sends && *end.stopping);) {
        count = sends ? sendBare(end, message.data()) : receiveBare(end, message.data());
        end.gigabytes += static_cast<double>(count) / 1e9;
    }
    end.cpu_s = readClock(CLOCK_THREAD_CPUTIME_ID) - cpu;
    end.seconds = now() - start;
    if (sends) (void)::shutdown(end.fd, SHUT_WR);
}

struct BARE_COST_T { // CPU seconds per GB
    double sender;
    double receiver;
    double mbs;
};

BARE_COST_T measureBare(SSL_CTX *server, SSL_CTX *client, double window_s)
{
    const UniqueFd listener = listenOn("0");
    sockaddr_in address{};
    socklen_t size = sizeof address;
    (void)::getsockname(listener.get(), reinterpret_cast<sockaddr *>(&address), &size);
    const UniqueFd to = connectTo(address);
    const UniqueFd from = prepared(::accept(listener.get(), nullptr, nullptr));
    const SslPtr from_ssl{server != nullptr ? SSL_new(server) : nullptr};
    const SslPtr to_ssl{client != nullptr ? SSL_new(client) : nullptr};
    require(server == nullptr || (SSL_set_fd(from_ssl.get(), from.get()) == 1 &&
                                  SSL_set_fd(to_ssl.get(), to.get()) == 1),
            "TLS");

    std::atomic<bool> stopping{false};
    BARE_END_T sender{from.get(), from_ssl.get(), &stopping};
    BARE_END_T receiver{to.get(), to_ssl.get(), &stopping};
    std::thread sending(runBareEnd, std::ref(sender), true);
    std::thread receiving(runBareEnd, std::ref(receiver), false);
    sleepFor(window_s);
    stopping = true;
    sending.join();
    receiving.join();
    return {sender.cpu_s / sender.gigabytes, receiver.cpu_s / receiver.gigabytes,
            receiver.gigabytes * 1e3 / receiver.seconds};
}

// The least that a gateway can spend: one end plain, the other TLS.
void measureTls(char **arguments)
{
    const double window_s = parse_int32(arguments[3]) / 1000.0;
    const SslContextPtr server = makeContext(TLS_server_method(), arguments);
    const SslContextPtr client = makeContext(TLS_client_method(), arguments);
    const BARE_COST_T tls = measureBare(server.get(), client.get(), window_s);
    const BARE_COST_T plain = measureBare(nullptr, nullptr, window_s);
    report("mbs_down1", tls.mbs);
    report("cpu_down1", tls.sender + plain.receiver);
    report("cpu_up1", tls.receiver + plain.sender);
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "tls" && argc == 6) {
        measureTls(argv + 2);
    } else if (what == "way" && argc == 7) {
        measureWay({listenOn(argv[2]), loopback(argv[3]), clockOfProcess(argv[4]),
                    clockOfProcess(argv[5]), parse_int32(argv[6]) / 1000.0});
    } else {
        (void)std::fprintf(stderr, "bench_load: see the head of bench/load.cpp\n");
        return 2;
    }
    return 0;
}
