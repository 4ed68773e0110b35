// The cloud channel's state machine: one procedure for each state, the opening and closing of the
// channel, the back-off and the keepalive. Every procedure is one pass; the next pass is the retry.
//
// Back-off  2 ^ min(retry_count / 5, 6) seconds between attempts that failed, in whole seconds of
//           the monotonic clock.
// End       the sixth failed opening in a row ends the process with status 1; nothing else here
//           does.
// Threads   the proxy thread alone.
#pragma once

#include <cstdint>

struct REMOTE_PROXY_T;

void cloudChannelClosedStateProc(REMOTE_PROXY_T *proxy, std::int32_t remote_switch);
void cloudChannelHandShakeStateProc(REMOTE_PROXY_T *proxy, std::int32_t remote_switch);
void cloudChannelConnectedStateProc(REMOTE_PROXY_T *proxy, std::int32_t remote_switch);
void cloudChannelErrorStateProc(REMOTE_PROXY_T *proxy, std::int32_t remote_switch);

// One pass of the state the channel is in; remote_switch non-zero = the channel is wanted.
void runChannelState(REMOTE_PROXY_T *proxy, std::int32_t remote_switch);

// Opens the channel and sends the handshake. 0 (also when the channel is not closed), -1 on
// failure.
[[nodiscard]] int createRemoteProxy(REMOTE_PROXY_T *proxy);
// Closes the channel and every session without sending a message. 0 always.
int releaseRemoteProxy(REMOTE_PROXY_T *proxy);
int closeCloudChannelConnection(REMOTE_PROXY_T *proxy);

// 0 when an attempt may be made, -1 when not yet.
int checkRetryInterval(const REMOTE_PROXY_T *proxy);
// 0 when the handshake has waited 3 s or more, -1 when not.
int checkHandShakeTimeout(const REMOTE_PROXY_T *proxy);
// Sends a ping when one is due. -1 when four went unanswered and the channel is to be dropped, else
// 0.
int checkKeepalive(REMOTE_PROXY_T *proxy);
