#include "src/peer_watch.h"

#include "utility/monotonic_clock.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <linux/tcp.h> // the C library's tcp_info ends before the counters of segments
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

constexpr std::int32_t KEEPALIVE_PROBES = 3;
constexpr std::int32_t IDLE_PERIODS = 3;           // before the first probe
constexpr std::int32_t UNACKNOWLEDGED_PERIODS = 6; // the idle time and the probes together
constexpr std::int32_t REPEATING_PERIODS = 2;      // nothing but repeated bytes for so long
constexpr std::int64_t LOOK_PERIOD_MS = 1000;
constexpr int HURRIED_IDLE_S = 1;

struct PEER_WATCH_T {
    std::uint64_t news;     // bytes that were new, and segments without any
    std::uint32_t segments; // segments with bytes, the repeated ones too
    std::int64_t heard_ms;  // when there was something new
    std::int64_t looked_ms;
    std::int64_t hurried_ms; // since when it is probed every few seconds; 0 = it is not
};
PEER_WATCH_T g_watch{};

int periods(std::int32_t period_s, std::int32_t count, std::int64_t unit)
{
    return static_cast<int>(std::clamp<std::int64_t>(unit * count * period_s, INT_MIN, INT_MAX));
}

void setTcpOption(int fd, int option, int value)
{
    (void)::setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value);
}

bool readCounters(int fd, tcp_info &info)
{
    socklen_t size = sizeof info;
    return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           size >= offsetof(tcp_info, tcpi_data_segs_out); // an old kernel knows fewer
}

} // namespace

void watchPeer(int fd, std::int32_t period_s)
{
    const int on = 1;
    (void)::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setTcpOption(fd, TCP_KEEPIDLE, periods(period_s, IDLE_PERIODS, 1));
    setTcpOption(fd, TCP_KEEPINTVL, period_s);
    setTcpOption(fd, TCP_KEEPCNT, KEEPALIVE_PROBES);
    if (period_s > 0)
        setTcpOption(fd, TCP_USER_TIMEOUT, periods(period_s, UNACKNOWLEDGED_PERIODS, 1000));
    g_watch = {};
}

bool isPeerDeaf(int fd, std::int32_t period_s)
{
    const std::int64_t now_ms = milliseconds_of(monotonic_now());
    tcp_info info{};
    if (period_s <= 0 || now_ms - g_watch.looked_ms < LOOK_PERIOD_MS || !readCounters(fd, info))
        return false;
    g_watch.looked_ms = now_ms;
    const std::uint64_t news =
        info.tcpi_bytes_received + (info.tcpi_segs_in - info.tcpi_data_segs_in);
    const bool repeats = info.tcpi_data_segs_in != g_watch.segments;
    g_watch.segments = info.tcpi_data_segs_in;
    if (news != g_watch.news) {
        if (g_watch.hurried_ms != 0)
            setTcpOption(fd, TCP_KEEPIDLE, periods(period_s, IDLE_PERIODS, 1));
        g_watch.news = news;
        g_watch.heard_ms = now_ms;
        g_watch.hurried_ms = 0;
        return false;
    }
    const std::int64_t silent_ms = now_ms - g_watch.heard_ms;
    if (repeats && g_watch.hurried_ms == 0 &&
        silent_ms >= periods(period_s, REPEATING_PERIODS, 1000)) {
        setTcpOption(fd, TCP_KEEPIDLE, HURRIED_IDLE_S);
        g_watch.hurried_ms = now_ms;
    }
    return g_watch.hurried_ms != 0 && now_ms - g_watch.hurried_ms >= periods(period_s, 1, 1000) &&
           silent_ms >= periods(period_s, UNACKNOWLEDGED_PERIODS, 1000);
}
