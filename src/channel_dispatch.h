// What arrives on the cloud channel: whole messages are split, checked and handed to the handler of
// their type.
//
// Checks   a message whose header does not parse, or whose payload is not as long as its header
//          says, is dropped; the channel stays open. Handlers work only on an accepted channel,
//          except that of responses.
// Bound    one call drains the channel for at most CHANNEL_DRAIN_MS, so that a back end that fills
//          the channel cannot starve the local services, the switch or the watchdog;
//          hasCloudProxyChannelPendingInput tells the rest.
// Threads  the proxy thread alone; the message stands in recv_buffer, its payload at the read
//          offset.
#pragma once

struct PROXY_HEADER_T;
struct REMOTE_PROXY_T;

constexpr int CHANNEL_DRAIN_MS = 200;

void cloudDataProc(REMOTE_PROXY_T *proxy);

// Handlers, by message type. Their results are not used by the dispatcher: what fails is logged
// here and, where the protocol has an answer for it, answered.
int newSession(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);
int releaseSession(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);
int procCloudChannelData(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);
int procCloudChannelResponse(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);
int procCloudChannelHandShakeResponse(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);
int procVerifyAccount(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);
int procKeepaliveResponse(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);
