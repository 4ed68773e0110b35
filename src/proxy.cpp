#include "src/proxy.h"

constinit REMOTE_PROXY_T g_remote_proxy{};

void setChannelState(REMOTE_PROXY_T *proxy, CHANNEL_STATE next)
{
    proxy->state.store(next, std::memory_order_relaxed);
}

std::span<char> headerBuffer()
{
    static char header_buffer[HEADER_BUFFER_SIZE];
    return header_buffer;
}
