// The proxy thread's context: the cloud channel, the sessions over it, and the two message buffers.
//
// Owner    one static instance, g_remote_proxy, zero at load.
// Threads  the proxy thread owns everything. The main thread reads state, heartbeat and
//          services_info (atomics; services_info is published once and then constant) and uses
//          session_table through its own locked operations.
#pragma once

#include "src/remote_access_session_mgr.h"
#include "utility/data_buffer.h"
#include "utility/list.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <span>
#include <sys/select.h>

struct CLOUD_CHANNEL_T;

enum CHANNEL_STATE : std::int32_t {
    CHANNEL_STATE_CLOSED = 0,    // no connection, no sessions
    CHANNEL_STATE_HANDSHAKE = 1, // WebSocket open, handshake sent, not accepted yet
    CHANNEL_STATE_CONNECTED = 2, // handshake accepted: sessions may be opened
};

struct REMOTE_PROXY_T {
    const char *cloud_host; // borrowed from the configuration record, as are the other texts
    const char *cloud_port;
    const char *cert_path;
    std::int32_t tls_type;
    std::int32_t debug_switch;         // followed on every pass
    std::int32_t trans_timeout;        // ms, of every channel write
    std::int32_t tcp_keepalive_period; // s
    std::uint32_t ping_period;         // s
    CLOUD_CHANNEL_T *conn;             // owned; null when there is none
    const char *product_key;
    const char *device_name;
    const char *device_secret;
    LIST_LINK_T *service_list;         // borrowed
    std::atomic<char *> services_info; // owned; JSON array of the local services, set once
    std::atomic<std::int32_t> state;   // CHANNEL_STATE; assigned by setChannelState alone
    timespec last_active_time;         // monotonic
    SESSION_TABLE_T session_table;
    fd_set read_fds;
    DATA_BUFFER_T recv_buffer;           // one message from the channel
    DATA_BUFFER_T send_buffer;           // one message to the channel
    std::int32_t retry_count;            // failed attempts, for the back-off
    timespec retry_time;                 // monotonic; time of the last one
    std::atomic<std::int32_t> heartbeat; // passes, modulo 65535
    std::int32_t ping_count;             // pings since the last pong
    bool message_lost; // the rest of a message that did not fit recv_buffer is still to come
    const std::atomic<std::int32_t> *remote_access_switch; // borrowed; null = always on
};

static_assert(std::atomic<char *>::is_always_lock_free);

extern REMOTE_PROXY_T g_remote_proxy;

inline std::int32_t channelState(const REMOTE_PROXY_T *proxy)
{
    return proxy->state.load(std::memory_order_relaxed);
}
void setChannelState(REMOTE_PROXY_T *proxy, CHANNEL_STATE next);
// The handshake was accepted: sessions may be opened from now on.
void acceptHandShake(REMOTE_PROXY_T *proxy);

// The back-off's bookkeeping: one attempt more has failed, or the next one is not delayed.
void recordChannelRetry(REMOTE_PROXY_T *proxy);
void resetChannelRetry(REMOTE_PROXY_T *proxy);

// False once a command has switched remote access off, also in the middle of a pass.
bool isRemoteAccessOn(const REMOTE_PROXY_T *proxy);
// Empties both buffers and forgets a message of which only a part has come.
void resetMessageBuffers(REMOTE_PROXY_T *proxy);

// The text in which the proxy thread's senders build a header before it is put in front of a
// payload.
std::span<char> headerBuffer();

inline std::span<char> storageOf(const DATA_BUFFER_T &buffer)
{
    return {buffer.data, static_cast<std::size_t>(buffer.capacity)};
}
