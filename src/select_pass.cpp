#include "src/select_pass.h"

#include "common/log.h"
#include "src/channel_dispatch.h"
#include "src/peer_watch.h"
#include "src/proxy.h"
#include "src/remote_access_proxy_channel.h"
#include "src/service_data.h"
#include "src/watchdog_feed.h"
#include "utility/monotonic_clock.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr time_t SELECT_TIMEOUT_S = 1;
constexpr suseconds_t GATHERED_TIMEOUT_US = 10000;
constexpr useconds_t FAILED_SELECT_PAUSE_US = 10000; // a failure that lasts must not spin

void serveLocalServices(REMOTE_PROXY_T *proxy)
{
    ACTIVE_SOCKETS_T active{&proxy->read_fds, 0, {}};
    traverseSessionTable(&proxy->session_table, recordActiveLocalServiceSockets, &active);
    for (std::int32_t i = 0; i < active.count; ++i) {
        localServiceDataProc(proxy,
                             active.sessions[i]); // releases at most the session it was given
        feedProxyWatchdog(); // a channel that does not drain costs seconds for each
        (void)lookAtPeer(proxy);
    }
}

// While log lines are gathered the wait is short: a pause in the traffic is the time to write them.
timeval selectTimeout(bool pending)
{
    if (pending) return {0, 0};
    if (haveLogLinesGathered()) return {0, GATHERED_TIMEOUT_US};
    return {SELECT_TIMEOUT_S, 0};
}

} // namespace

int setProxySocketsToRfds(REMOTE_PROXY_T *proxy, int *max_fd)
{
    FD_ZERO(&proxy->read_fds);
    READ_SET_T read_set{&proxy->read_fds, -1};
    if (!addToReadSet(&read_set, getCloudProxyChannelSocket(proxy->conn))) return PASS_NO_CHANNEL;
    traverseSessionTable(&proxy->session_table, setLocalServiceSocketsToRfds, &read_set);
    *max_fd = read_set.max_fd;
    return 0;
}

int proxyDataProc(REMOTE_PROXY_T *proxy)
{
    setCloudProxyChannelDebug(proxy->conn, proxy->debug_switch);
    int max_fd = -1;
    if (setProxySocketsToRfds(proxy, &max_fd) != 0) return PASS_NO_CHANNEL;
    const int channel_fd = getCloudProxyChannelSocket(proxy->conn);
    // Bytes that the library has already taken from the socket: select would wait for others.
    const bool pending = hasCloudProxyChannelPendingInput(proxy->conn);
    timeval timeout = selectTimeout(pending);
    const int ready = ::select(max_fd + 1, &proxy->read_fds, nullptr, nullptr, &timeout);
    if (ready <= 0) flushLogLines();
    if (ready == 0 && !pending) return 0;
    if (ready < 0) {
        const int error = errno;
        RA_WARN("failed to select: %s, errno:%d, ret: %d", std::strerror(error), error, ready);
        if (error != EINTR) ::usleep(FAILED_SELECT_PAUSE_US);
    }
    serveLocalServices(proxy);
    if (pending || FD_ISSET(channel_fd, &proxy->read_fds)) cloudDataProc(proxy);
    proxy->last_active_time = monotonic_now();
    return 0;
}
