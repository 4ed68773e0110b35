#include "src/peer_watch.h"

#include "src/proxy.h"
#include "src/remote_access_proxy_channel.h"
#include "utility/monotonic_clock.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <linux/tcp.h> // the C library's tcp_info ends before the counters of segments
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr std::int32_t KEEPALIVE_PROBES = 3;
constexpr std::int32_t IDLE_PERIODS = 3;      // before the first probe
constexpr std::int32_t SILENT_PERIODS = 6;    // the idle time and the probes together
constexpr std::int64_t MIN_SILENT_MS = 20000; // half of it is the longest time between two looks
constexpr std::int32_t REPEATING_PERIODS = 2; // nothing but repeated bytes for so long
constexpr std::int64_t LOOK_PERIOD_MS = 1000;
constexpr int HURRIED_IDLE_S = 1;
constexpr std::int64_t FULL_PING_PERIODS = 4;

struct PEER_WATCH_T {
    PEER_FAULT fault;
    std::uint64_t news;     // bytes that were new, and segments without any
    std::uint64_t acked;    // bytes of ours that have arrived
    std::uint32_t segments; // segments with bytes, the repeated ones too
    int timeout_ms;         // TCP_USER_TIMEOUT as it was last set
    std::int64_t looked_ms;
    std::int64_t heard_ms;   // when there was something new
    std::int64_t taken_ms;   // when bytes of ours had arrived, or none waited
    std::int64_t waiting_ms; // the look before that one: bytes may have waited since then
    std::int64_t hurried_ms; // since when keepalive probes it every few seconds; 0 = it does not
};
PEER_WATCH_T g_watch{};

int clampToInt(std::int64_t value)
{
    return static_cast<int>(std::clamp<std::int64_t>(value, INT_MIN, INT_MAX));
}

std::int64_t silentLimitMs(std::int32_t period_s)
{
    return std::max(std::int64_t{SILENT_PERIODS} * period_s * 1000, MIN_SILENT_MS);
}

void setTcpOption(int fd, int option, int value)
{
    (void)::setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value);
}

void setIdleTime(int fd, std::int32_t period_s)
{
    setTcpOption(fd, TCP_KEEPIDLE, clampToInt(std::int64_t{IDLE_PERIODS} * period_s));
}

void setUserTimeout(int fd, std::int64_t timeout_ms)
{
    const int value = clampToInt(timeout_ms);
    if (value != g_watch.timeout_ms) setTcpOption(fd, TCP_USER_TIMEOUT, value);
    g_watch.timeout_ms = value;
}

bool readCounters(int fd, tcp_info &info)
{
    socklen_t size = sizeof info;
    return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           size >= offsetof(tcp_info, tcpi_data_segs_out); // an old kernel knows fewer
}

// A peer that receives nothing repeats what it has sent: that keeps the kernel from probing it. So
// it is probed at once, and as soon as it has something new to say the usual idle time holds again.
void probeRepeater(int fd, std::int32_t period_s, std::int64_t now_ms, bool repeats)
{
    if (g_watch.hurried_ms != 0 && g_watch.heard_ms > g_watch.hurried_ms) {
        setIdleTime(fd, period_s);
        g_watch.hurried_ms = 0;
    }
    const std::int64_t patience_ms = std::int64_t{REPEATING_PERIODS} * period_s * 1000;
    if (repeats && g_watch.hurried_ms == 0 && now_ms - g_watch.heard_ms >= patience_ms) {
        setTcpOption(fd, TCP_KEEPIDLE, HURRIED_IDLE_S);
        g_watch.hurried_ms = now_ms;
    }
}

// The kernel ends a connection whose window has been closed for the user time-out, also one that
// answers its probes. So the time-out is moved ahead of one that does, by half of the limit, which
// keeps its probes as close together; one that is silent for the other half is left to the kernel.
// Between two looks may be a write that took all of its time, and the window was closed in the
// middle of it: the kernel's count has begun long before the second look.
void spareClosedWindow(int fd, std::int64_t limit_ms, std::int64_t now_ms)
{
    const bool is_closed = g_watch.heard_ms > g_watch.taken_ms;
    if (!is_closed)
        setUserTimeout(fd, limit_ms);
    else if (now_ms - g_watch.heard_ms < limit_ms / 2)
        setUserTimeout(fd, std::max(limit_ms, now_ms - g_watch.waiting_ms + limit_ms / 2));
}

bool isDeaf(std::int32_t period_s, std::int64_t now_ms)
{
    return period_s > 0 && g_watch.hurried_ms != 0 &&
           now_ms - g_watch.hurried_ms >= std::int64_t{period_s} * 1000 &&
           now_ms - g_watch.heard_ms >= silentLimitMs(period_s);
}

bool isFull(std::uint32_t ping_period_s, std::int64_t now_ms)
{
    const std::int64_t period_s = std::max<std::int64_t>(ping_period_s, 1);
    return now_ms - g_watch.taken_ms >= FULL_PING_PERIODS * period_s * 1000;
}

} // namespace

void watchPeer(const REMOTE_PROXY_T *proxy)
{
    const int fd = getCloudProxyChannelSocket(proxy->conn);
    const std::int32_t period_s = proxy->tcp_keepalive_period;
    const int on = 1;
    (void)::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setIdleTime(fd, period_s);
    setTcpOption(fd, TCP_KEEPINTVL, period_s);
    setTcpOption(fd, TCP_KEEPCNT, KEEPALIVE_PROBES);
    g_watch = {};
    g_watch.looked_ms = milliseconds_of(monotonic_now());
    g_watch.heard_ms = g_watch.taken_ms = g_watch.waiting_ms = g_watch.looked_ms;
    if (period_s > 0) setUserTimeout(fd, silentLimitMs(period_s));
}

PEER_FAULT lookAtPeer(const REMOTE_PROXY_T *proxy)
{
    const std::int64_t now_ms = milliseconds_of(monotonic_now());
    if (now_ms - g_watch.looked_ms < LOOK_PERIOD_MS) return g_watch.fault;
    const int fd = getCloudProxyChannelSocket(proxy->conn);
    tcp_info info{};
    if (!readCounters(fd, info)) return g_watch.fault;
    const std::int64_t last_look_ms = std::exchange(g_watch.looked_ms, now_ms);
    const std::uint64_t news =
        info.tcpi_bytes_received + (info.tcpi_segs_in - info.tcpi_data_segs_in);
    const bool repeats = info.tcpi_data_segs_in != g_watch.segments;
    const bool waits = info.tcpi_unacked > 0 || info.tcpi_notsent_bytes > 0;
    if (news != g_watch.news) g_watch.heard_ms = now_ms;
    if (!waits || info.tcpi_bytes_acked != g_watch.acked) {
        g_watch.taken_ms = now_ms;
        g_watch.waiting_ms = last_look_ms;
    }
    g_watch.news = news;
    g_watch.acked = info.tcpi_bytes_acked;
    g_watch.segments = info.tcpi_data_segs_in;

    const std::int32_t period_s = proxy->tcp_keepalive_period;
    if (period_s > 0) {
        probeRepeater(fd, period_s, now_ms, repeats);
        spareClosedWindow(fd, silentLimitMs(period_s), now_ms);
    }
    g_watch.fault = isDeaf(period_s, now_ms)             ? PEER_FAULT_DEAF
                    : isFull(proxy->ping_period, now_ms) ? PEER_FAULT_FULL
                                                         : PEER_FAULT_NONE;
    return g_watch.fault;
}
