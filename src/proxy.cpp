#include "src/proxy.h"

#include "utility/monotonic_clock.h"

#include <climits>

constinit REMOTE_PROXY_T g_remote_proxy{};

void setChannelState(REMOTE_PROXY_T *proxy, CHANNEL_STATE next)
{
    proxy->state.store(next, std::memory_order_relaxed);
}

void acceptHandShake(REMOTE_PROXY_T *proxy)
{
    setChannelState(proxy, CHANNEL_STATE_CONNECTED);
    proxy->last_active_time = monotonic_now();
    resetChannelRetry(proxy);
}

void recordChannelRetry(REMOTE_PROXY_T *proxy)
{
    if (proxy->retry_count < INT_MAX) ++proxy->retry_count;
    proxy->retry_time = monotonic_now();
}

void resetChannelRetry(REMOTE_PROXY_T *proxy)
{
    proxy->retry_count = 0;
    proxy->retry_time.tv_sec = 0;
}

bool isRemoteAccessOn(const REMOTE_PROXY_T *proxy)
{
    return proxy->remote_access_switch == nullptr ||
           proxy->remote_access_switch->load(std::memory_order_relaxed) != 0;
}

void resetMessageBuffers(REMOTE_PROXY_T *proxy)
{
    resetDataBuffer(&proxy->send_buffer);
    resetDataBuffer(&proxy->recv_buffer);
    proxy->message_lost = false;
}

std::span<char> headerBuffer()
{
    static char header_buffer[HEADER_BUFFER_SIZE];
    return header_buffer;
}
