// What arrives on the cloud channel: whole messages are split, checked and handed to the handler of
// their type.
//
// Checks   a message whose header does not parse, or whose payload is not as long as its header
//          says, is dropped; the channel stays open. Handlers work only on an accepted channel,
//          except that of responses.
// Overflow a message longer than the receive buffer is lost whole: what of it comes later is
//          dropped with the lines of a header that cannot be read, whatever it contains.
// Bound    one call drains the channel until nothing is left, so that what services and back end
//          do in the meantime cannot come between messages of one burst. It ends earlier once
//          remote access has been switched off, and after DRAIN_BYTES or DRAIN_MESSAGES, so that a
//          back end that never pauses cannot starve the local services;
//          hasCloudProxyChannelPendingInput then reports the rest. The watchdog is fed after each
//          message.
// Threads  the proxy thread alone; the message is in recv_buffer, its payload at the read
//          offset.
#pragma once

#include <cstdint>

struct PROXY_HEADER_T;
struct REMOTE_PROXY_T;

constexpr std::int64_t DRAIN_BYTES = 8'000'000;
constexpr int DRAIN_MESSAGES = 4096;

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
