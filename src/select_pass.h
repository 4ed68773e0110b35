// One pass over the open channel: wait for the channel and every session with one select, serve the
// readable sessions, then the channel.
//
// Threads  the proxy thread alone.
// Blocking at most 1 s plus what the readable ones cost.
#pragma once

struct REMOTE_PROXY_T;

constexpr int PASS_NO_CHANNEL = -3; // the channel has no socket any more

// 0, or PASS_NO_CHANNEL.
[[nodiscard]] int proxyDataProc(REMOTE_PROXY_T *proxy);

// Builds read_fds from the channel's socket and every session's. 0, or PASS_NO_CHANNEL.
[[nodiscard]] int setProxySocketsToRfds(REMOTE_PROXY_T *proxy, int *max_fd);
