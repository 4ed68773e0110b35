#include "bench/load/support.h"

#include "utility/text.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/tcp.h>
#include <sstream>
#include <sys/socket.h>
#include <thread>

namespace {

constexpr int BACKLOG = 16;

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

} // namespace

void die(const char *what)
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

void sleepFor(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

std::vector<clockid_t> clocksOf(const char *pids)
{
    std::vector<clockid_t> clocks;
    std::istringstream list{pids};
    for (std::string word; std::getline(list, word, ',');) {
        if (parse_int32(word.c_str()) <= 0) continue;
        clockid_t clock{};
        require(::clock_getcpuclockid(parse_int32(word.c_str()), &clock) == 0, "no such process");
        clocks.push_back(clock);
    }
    return clocks;
}

double sumOf(const std::vector<clockid_t> &clocks)
{
    double sum = 0;
    for (const clockid_t clock : clocks)
        sum += readClock(clock);
    return sum;
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
                ::listen(fd.get(), BACKLOG) == 0,
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

UniqueFd acceptFrom(const UniqueFd &listener)
{
    return prepared(::accept(listener.get(), nullptr, nullptr));
}

void setReadTimeout(int fd, long milliseconds)
{
    setTimeout(fd, SO_RCVTIMEO, milliseconds);
}
