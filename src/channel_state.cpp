#include "src/channel_state.h"

#include "common/log.h"
#include "src/peer_watch.h"
#include "src/process_end.h"
#include "src/proxy.h"
#include "src/remote_access_proxy_channel.h"
#include "src/remote_access_proxy_trans.h"
#include "src/select_pass.h"
#include "src/watchdog_feed.h"
#include "utility/monotonic_clock.h"

#include <algorithm>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Operations whose lines are written by helpers here.
constexpr char CREATE[] = "createRemoteProxy";
constexpr char PASS[] = "cloudChannelConnectedStateProc";

constexpr useconds_t CLOSED_PASS_US = 300000;
constexpr useconds_t LOST_CHANNEL_PAUSE_US = 500000;
constexpr std::int64_t HANDSHAKE_TIMEOUT_S = 3;
constexpr std::int32_t RETRIES_PER_STEP = 5;
constexpr std::int32_t MAX_BACK_OFF_STEP = 6;
constexpr std::int32_t MAX_UNANSWERED_PINGS = 3;
constexpr std::int32_t MAX_FAILED_OPENINGS = 5;
constexpr int EXIT_STATUS_NO_CHANNEL = 1;

std::int32_t connect_fail_count = 0; // failed openings in a row, in the closed state

std::int64_t secondsSince(const timespec &time)
{
    return static_cast<std::int64_t>(monotonic_now().tv_sec) -
           static_cast<std::int64_t>(time.tv_sec);
}

// Opens the connection; a descriptor that the select pass could not hold counts as a failed
// opening.
bool openConnection(REMOTE_PROXY_T *proxy)
{
    proxy->conn = openCloudProxyChannel(proxy->cloud_host, proxy->cloud_port, proxy->cert_path,
                                        proxy->debug_switch, proxy->tls_type);
    if (proxy->conn == nullptr) return false;
    const int fd = getCloudProxyChannelSocket(proxy->conn);
    if (fd < FD_SETSIZE) return true;
    RA_WARN_FOR(CREATE, "no channel: descriptor %d is past what select can hold", fd);
    return false;
}

int failCreation(REMOTE_PROXY_T *proxy)
{
    closeCloudProxyChannel(proxy->conn);
    proxy->conn = nullptr;
    releaseAllSessionsFromTable(&proxy->session_table);
    resetMessageBuffers(proxy);
    return -1;
}

// Closes a channel that worked, or is not wanted any more: the next opening is not delayed.
void dropChannel(REMOTE_PROXY_T *proxy)
{
    releaseRemoteProxy(proxy);
    resetChannelRetry(proxy);
}

// Closes a channel that was never accepted: that counts for the back-off.
void failHandShake(REMOTE_PROXY_T *proxy)
{
    releaseRemoteProxy(proxy);
    recordChannelRetry(proxy);
}

bool isPeerLost(const REMOTE_PROXY_T *proxy)
{
    switch (lookAtPeer(proxy)) {
    case PEER_FAULT_DEAF:
        RA_WARN_FOR(PASS, "the back end repeats itself and hears nothing, the channel is dropped");
        return true;
    case PEER_FAULT_FULL:
        RA_WARN_FOR(PASS, "the back end takes nothing, the channel is dropped");
        return true;
    default:
        return false;
    }
}

} // namespace

int checkRetryInterval(const REMOTE_PROXY_T *proxy)
{
    const std::int64_t interval_s =
        std::int64_t{1} << std::min(proxy->retry_count / RETRIES_PER_STEP, MAX_BACK_OFF_STEP);
    return secondsSince(proxy->retry_time) < interval_s ? -1 : 0;
}

int checkHandShakeTimeout(const REMOTE_PROXY_T *proxy)
{
    return secondsSince(proxy->last_active_time) >= HANDSHAKE_TIMEOUT_S ? 0 : -1;
}

int checkKeepalive(REMOTE_PROXY_T *proxy)
{
    if (proxy->ping_count > MAX_UNANSWERED_PINGS) return -1;
    // Compared unsigned: a negative period means no pings.
    if (static_cast<std::uint64_t>(secondsSince(proxy->last_active_time)) >= proxy->ping_period) {
        (void)sendCloudChannelKeepalivePing(
            proxy); // a failure is logged there and counts like a lost ping
        proxy->last_active_time = monotonic_now();
    }
    return 0;
}

int createRemoteProxy(REMOTE_PROXY_T *proxy)
{
    if (channelState(proxy) != CHANNEL_STATE_CLOSED) return 0;
    RA_INFO("start to create cloud channel...");
    if (!openConnection(proxy)) {
        RA_WARN("cloud channel open failed");
        return failCreation(proxy);
    }
    watchPeer(proxy);
    if (sendCloudChannelHandShakeRequest(
            proxy, proxy->services_info.load(std::memory_order_relaxed)) != 0) {
        RA_WARN("send cloud channel HandShake request error!");
        return failCreation(proxy);
    }
    resetMessageBuffers(proxy);
    setChannelState(proxy, CHANNEL_STATE_HANDSHAKE);
    proxy->last_active_time = monotonic_now();
    return 0;
}

int closeCloudChannelConnection(REMOTE_PROXY_T *proxy)
{
    if (proxy->conn != nullptr) closeCloudProxyChannel(proxy->conn);
    proxy->conn = nullptr;
    return 0;
}

int releaseRemoteProxy(REMOTE_PROXY_T *proxy)
{
    if (channelState(proxy) == CHANNEL_STATE_CLOSED) return 0;
    RA_INFO("end the cloud channel.");
    closeCloudChannelConnection(proxy);
    releaseAllSessionsFromTable(&proxy->session_table);
    resetMessageBuffers(proxy);
    setChannelState(proxy, CHANNEL_STATE_CLOSED);
    proxy->ping_count = 0;
    return 0;
}

void cloudChannelClosedStateProc(REMOTE_PROXY_T *proxy, std::int32_t remote_switch)
{
    if (remote_switch == 0) {
        ::usleep(CLOSED_PASS_US);
        connect_fail_count = 0;
        return;
    }
    if (checkRetryInterval(proxy) != 0) {
        ::usleep(CLOSED_PASS_US);
        return;
    }
    feedProxyWatchdog(); // an opening may take most of the declared time
    if (createRemoteProxy(proxy) == 0) {
        connect_fail_count = 0;
        return;
    }
    recordChannelRetry(proxy);
    ++connect_fail_count;
    ::usleep(CLOSED_PASS_US);
    if (connect_fail_count > MAX_FAILED_OPENINGS) {
        RA_ERROR("=======retry to connect remote debug channel error! service exit!=======");
        terminateProcess(EXIT_STATUS_NO_CHANNEL);
    }
}

void cloudChannelHandShakeStateProc(REMOTE_PROXY_T *proxy, std::int32_t remote_switch)
{
    if (remote_switch == 0) {
        dropChannel(proxy);
        return;
    }
    if (proxyDataProc(proxy) == PASS_NO_CHANNEL) {
        failHandShake(proxy);
    }
    // Tested in any case: a pass that lost the channel after its time had run out counts twice.
    if (checkHandShakeTimeout(proxy) == 0) {
        failHandShake(proxy);
    }
}

void cloudChannelConnectedStateProc(REMOTE_PROXY_T *proxy, std::int32_t remote_switch)
{
    if (remote_switch == 0) {
        dropChannel(proxy);
        return;
    }
    if (proxyDataProc(proxy) == PASS_NO_CHANNEL) {
        dropChannel(proxy);
        ::usleep(LOST_CHANNEL_PAUSE_US);
        return;
    }
    if (isPeerLost(proxy) || checkKeepalive(proxy) != 0) dropChannel(proxy);
}

void cloudChannelErrorStateProc(REMOTE_PROXY_T *proxy, std::int32_t /*remote_switch*/)
{
    RA_WARN("cloud channel state error! state:%d", channelState(proxy));
    dropChannel(proxy);
}

void runChannelState(REMOTE_PROXY_T *proxy, std::int32_t remote_switch)
{
    switch (channelState(proxy)) {
    case CHANNEL_STATE_CLOSED:
        return cloudChannelClosedStateProc(proxy, remote_switch);
    case CHANNEL_STATE_HANDSHAKE:
        return cloudChannelHandShakeStateProc(proxy, remote_switch);
    case CHANNEL_STATE_CONNECTED:
        return cloudChannelConnectedStateProc(proxy, remote_switch);
    default:
        return cloudChannelErrorStateProc(proxy, remote_switch);
    }
}
