// The control messages that the gateway sends on the cloud channel. Each builds one message in the
// proxy's send buffer and writes it within the transmit time-out.
//
// Result   0 when the whole message was written, -1 otherwise (logged here); the channel stays open
//          either way.
// Texts    every identifier may point into the shared id buffer, a received header or a session;
//          none is kept.
// Threads  the proxy thread alone: they share the send buffer and the header buffer.
#pragma once

struct REMOTE_PROXY_T;

[[nodiscard]] int sendCloudChannelHandShakeRequest(REMOTE_PROXY_T *proxy,
                                                   const char *services_info);
// msg_id null = a fresh one.
int sendCloudChannelReleaseSessionRequest(REMOTE_PROXY_T *proxy, const char *msg_id,
                                          const char *session_id);
// Counts in ping_count, whether or not it leaves.
int sendCloudChannelKeepalivePing(REMOTE_PROXY_T *proxy);
// token null = empty.
int cloudChannelResponseWithError(REMOTE_PROXY_T *proxy, int code, const char *message,
                                  const char *msg_id, const char *token);
[[nodiscard]] int cloudChannelResponseNewSession(REMOTE_PROXY_T *proxy, const char *msg_id,
                                                 const char *session_id);
[[nodiscard]] int cloudChannelResponseReleaseSession(REMOTE_PROXY_T *proxy, const char *msg_id,
                                                     const char *session_id);
[[nodiscard]] int cloudChannelResponseVerifyAccount(REMOTE_PROXY_T *proxy, const char *msg_id,
                                                    const char *token);
