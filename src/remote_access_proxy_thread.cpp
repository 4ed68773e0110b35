#include "src/remote_access_proxy_thread.h"

#include "common/log.h"
#include "common/task_scheduler.h"
#include "src/channel_state.h"
#include "src/config.h"
#include "src/handshake_request.h"
#include "src/proxy.h"
#include "src/watchdog_feed.h"
#include "utility/alternate_stack.h"
#include "utility/file_pages.h"

#include <unistd.h>

namespace {

constexpr useconds_t CONFIG_POLL_US = 1000000;
constexpr std::int32_t HEARTBEAT_MODULUS = 65535;

bool isRunning(const REMOTE_ACCESS_CONFIG_T *record)
{
    return record->proxy_thread.run_state.load() == THREAD_STATE_RUNNING;
}

void waitForConfiguration(const REMOTE_ACCESS_CONFIG_T *record)
{
    while (isRunning(record) && getOneTaskResult(GET_CONFIG_TASK) != 0) {
        ::usleep(CONFIG_POLL_US);
        feedProxyWatchdog();
    }
}

void countHeartbeat(REMOTE_PROXY_T *proxy)
{
    const std::int32_t beats = proxy->heartbeat.load(std::memory_order_relaxed);
    proxy->heartbeat.store((beats + 1) % HEARTBEAT_MODULUS, std::memory_order_relaxed);
}

void runOnePass(REMOTE_PROXY_T *proxy, REMOTE_ACCESS_CONFIG_T *record)
{
    syncProxyConfig(proxy, record);
    const bool was_connected = channelState(proxy) == CHANNEL_STATE_CONNECTED;
    runChannelState(proxy, record->remote_access_switch.load(std::memory_order_relaxed));
    // An opening uses most of OpenSSL, an open channel little of it.
    if (!was_connected && channelState(proxy) == CHANNEL_STATE_CONNECTED) release_file_pages();
    feedProxyWatchdog();
    countHeartbeat(proxy);
}

} // namespace

int initRemoteProxyResource(REMOTE_PROXY_T *proxy, REMOTE_ACCESS_CONFIG_T *record)
{
    if (initDataBuffer(&proxy->recv_buffer, MESSAGE_BUFFER_SIZE) != 0 ||
        initDataBuffer(&proxy->send_buffer, MESSAGE_BUFFER_SIZE) != 0) {
        RA_ERROR("cloud channel buffer malloc failed");
        return -1;
    }
    (void)initSessionTable(&proxy->session_table); // fails for a null table only
    HeapText services = spliceLocalServiceInfoContent(&record->service_list);
    if (!services) {
        RA_WARN("generate local services info string failed");
        return -1;
    }
    proxy->services_info.store(services.release(), std::memory_order_release);
    proxy->cloud_host = record->cloud_host;
    proxy->cloud_port = record->cloud_port;
    proxy->cert_path = record->cert_path;
    proxy->tls_type = record->tls_type;
    proxy->debug_switch = record->debug_switch.load(std::memory_order_relaxed);
    proxy->trans_timeout = record->trans_timeout.load(std::memory_order_relaxed);
    proxy->tcp_keepalive_period = record->tcp_keepalive_period;
    proxy->ping_period = static_cast<std::uint32_t>(record->ping_period);
    proxy->product_key = record->product_key;
    proxy->device_name = record->device_name;
    proxy->device_secret = record->device_secret;
    proxy->service_list = &record->service_list;
    proxy->remote_access_switch = &record->remote_access_switch;
    return 0;
}

void syncProxyConfig(REMOTE_PROXY_T *proxy, REMOTE_ACCESS_CONFIG_T *record)
{
    proxy->debug_switch = record->debug_switch.load(std::memory_order_relaxed);
    // The mark is taken before the switch is read: a command that comes in between marks the next
    // pass again.
    if (record->switch_changed.exchange(0, std::memory_order_acquire) == 0) return;
    if (record->remote_access_switch.load(std::memory_order_relaxed) != 0) resetChannelRetry(proxy);
}

void *remoteProxyThread(void *argument)
{
    auto *const record = static_cast<REMOTE_ACCESS_CONFIG_T *>(argument);
    record->proxy_thread.run_state.store(THREAD_STATE_RUNNING);
    use_alternate_signal_stack();
    RA_INFO("remote proxy thread start!");
    startProxyWatchdog(record);
    waitForConfiguration(record);

    REMOTE_PROXY_T *const proxy = &g_remote_proxy; // zero since the process was loaded
    if (initRemoteProxyResource(proxy, record) != 0) {
        RA_ERROR("init remote proxy resource error!");
        return nullptr;
    }
    restartProxyWatchdogPeriod();
    proxy->retry_time.tv_sec = 0; // the first attempt is not delayed
    while (isRunning(record))
        runOnePass(proxy, record);
    RA_INFO("remote proxy thread exit!");
    return nullptr;
}
