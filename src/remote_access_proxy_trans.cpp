#include "src/remote_access_proxy_trans.h"

#include "common/log.h"
#include "src/cloud_protocol.h"
#include "src/handshake_request.h"
#include "src/proxy.h"
#include "src/remote_access_proxy_channel.h"
#include "src/remote_access_proxy_protocol_packet.h"
#include "utility/text.h"

namespace {

constexpr char SESSION_PART_FORMAT[] = "{\"session_id\": \"%s\"}";
constexpr std::size_t SESSION_PART_SIZE = 128;

// A message on its way: payload at the start of the send buffer, header in the header buffer.
struct STAGED_T {
    int payload_len;
    int header_len;
};

enum class STAGE { DONE, NO_WRITE_OFFSET, NO_HEADER };

// A built text counts only when it is there whole: the builders write at most size - 2 characters.
bool isWhole(int count, std::int32_t size)
{
    return count >= 1 && count < size - 1;
}

// Behind a payload of staged->payload_len bytes: moves the write offset over it and builds the
// header.
STAGE stageHeader(REMOTE_PROXY_T *proxy, int msg_type, const char *msg_id, const char *token,
                  STAGED_T *staged)
{
    if (moveBufferWritePointer(&proxy->send_buffer, staged->payload_len) != 0)
        return STAGE::NO_WRITE_OFFSET;
    staged->header_len =
        spliceProxyProtocolHeader(headerBuffer(), msg_type, staged->payload_len, msg_id, token);
    return isWhole(staged->header_len, HEADER_BUFFER_SIZE) ? STAGE::DONE : STAGE::NO_HEADER;
}

// A response: payload and header, not joined yet.
int stageResponse(REMOTE_PROXY_T *proxy, int code, const char *second_part, const char *message,
                  const char *msg_id, const char *token, STAGED_T *staged)
{
    resetDataBuffer(&proxy->send_buffer);
    const std::span<char> storage = storageOf(proxy->send_buffer);
    staged->payload_len = spliceProxyProtocolResponsePayload(storage, code, second_part, message);
    if (!isWhole(staged->payload_len, proxy->send_buffer.capacity)) return -1;
    return stageHeader(proxy, MSG_TYPE_RESPONSE, msg_id, token, staged) == STAGE::DONE ? 0 : -1;
}

// A message of a header alone, built where it is sent from; failures are lines of `owner`.
int stageBareMessage(REMOTE_PROXY_T *proxy, const char *owner, int msg_type, const char *msg_id,
                     const char *token)
{
    const std::span<char> storage = storageOf(proxy->send_buffer).first(HEADER_BUFFER_SIZE);
    const int header_len = spliceProxyProtocolHeader(storage, msg_type, 0, msg_id, token);
    if (!isWhole(header_len, HEADER_BUFFER_SIZE)) {
        RA_WARN_FOR(owner, "splice Header error!");
        return -1;
    }
    if (moveBufferWritePointer(&proxy->send_buffer, header_len) != 0) {
        RA_WARN_FOR(owner, "move buffer write pointer failed!");
        return -1;
    }
    return 0;
}

int joinHeader(REMOTE_PROXY_T *proxy, const STAGED_T &staged)
{
    return joinContentBeforeBuffer(headerBuffer().data(), staged.header_len, &proxy->send_buffer);
}

// 0 when all of the send buffer's content left; *result is what the channel said.
int writeSendBuffer(REMOTE_PROXY_T *proxy, int *result)
{
    const std::int32_t length = getBufferDataLength(&proxy->send_buffer);
    *result = writeCloudProxyChannel(proxy->conn, getBufferReadPointer(&proxy->send_buffer), length,
                                     proxy->trans_timeout);
    return *result == length ? 0 : -1;
}

// What a successful response carries; second_part and token may be null.
struct RESPONSE_T {
    const char *second_part;
    const char *message;
    const char *msg_id;
    const char *token;
};

// A response whose parts and whole are logged as lines of the operation `owner`.
int sendLoggedResponse(REMOTE_PROXY_T *proxy, const char *owner, const char *write_failed,
                       const RESPONSE_T &response)
{
    const DATA_BUFFER_T &buffer = proxy->send_buffer;
    STAGED_T staged{};
    if (stageResponse(proxy, RESPONSE_OK, response.second_part, response.message, response.msg_id,
                      response.token, &staged) != 0)
        return -1;
    RA_INFO_FOR(owner, "reponse payload:%.*s", staged.payload_len, buffer.data);
    RA_INFO_FOR(owner, "reponse header:%.*s", staged.header_len, headerBuffer().data());
    if (joinHeader(proxy, staged) != 0) {
        RA_WARN_FOR(owner, "join content before buffer error");
        return -1;
    }
    RA_INFO_FOR(owner, "response len:%d,%d", getBufferDataLength(&buffer),
                staged.payload_len + staged.header_len);
    RA_INFO_FOR(owner, "reponse package:%.*s", getBufferDataLength(&buffer), buffer.data);
    int result = 0;
    if (writeSendBuffer(proxy, &result) != 0) {
        RA_WARN_FOR(owner, "%s", write_failed);
        return -1;
    }
    return 0;
}

} // namespace

int sendCloudChannelHandShakeRequest(REMOTE_PROXY_T *proxy, const char *services_info)
{
    DATA_BUFFER_T &buffer = proxy->send_buffer;
    resetDataBuffer(&buffer);
    STAGED_T staged{};
    staged.payload_len = spliceProxyProtocolHandShakePayload(storageOf(buffer), proxy->product_key,
                                                             proxy->device_name,
                                                             proxy->device_secret, services_info);
    if (!isWhole(staged.payload_len, buffer.capacity)) {
        RA_WARN("splice proxy protocol handshake payload failed!");
        return -1;
    }
    const STAGE stage = stageHeader(proxy, MSG_TYPE_HANDSHAKE, HANDSHAKE_MSG_ID, nullptr, &staged);
    if (stage == STAGE::NO_WRITE_OFFSET) {
        RA_WARN("move buffer write pointer failed!");
        return -1;
    }
    if (stage == STAGE::NO_HEADER) {
        RA_WARN("splice proxy protocol header failed!");
        return -1;
    }
    RA_INFO("handshake payload:%.*s", staged.payload_len, buffer.data);
    RA_INFO("handshak  header:%.*s", staged.header_len, headerBuffer().data());
    if (joinHeader(proxy, staged) != 0) {
        RA_WARN("join content before buffer error");
        return -1;
    }
    RA_INFO("request len:%d,%d", getBufferDataLength(&buffer),
            staged.payload_len + staged.header_len);
    RA_INFO("request package:%.*s", getBufferDataLength(&buffer), buffer.data);
    int result = 0;
    if (writeSendBuffer(proxy, &result) != 0) {
        RA_WARN("handshake send msg failed");
        return -1;
    }
    return 0;
}

int sendCloudChannelReleaseSessionRequest(REMOTE_PROXY_T *proxy, const char *msg_id,
                                          const char *session_id)
{
    resetDataBuffer(&proxy->send_buffer);
    if (stageBareMessage(proxy, __func__, MSG_TYPE_RELEASE_SESSION, msg_id, session_id) != 0)
        return -1;
    RA_INFO("release session header:%.*s", getBufferDataLength(&proxy->send_buffer),
            proxy->send_buffer.data);
    int result = 0;
    if (writeSendBuffer(proxy, &result) != 0) {
        RA_WARN("release request send msg failed,ret=%d", result);
        return -1;
    }
    return 0;
}

int sendCloudChannelKeepalivePing(REMOTE_PROXY_T *proxy)
{
    resetDataBuffer(&proxy->send_buffer);
    ++proxy->ping_count;
    RA_INFO("session keepalive ping header:%.*s,keepalive accumulate number:%d",
            getBufferDataLength(&proxy->send_buffer), proxy->send_buffer.data, proxy->ping_count);
    if (stageBareMessage(proxy, __func__, MSG_TYPE_KEEPALIVE_PING, nullptr, nullptr) != 0)
        return -1;
    int result = 0;
    if (writeSendBuffer(proxy, &result) != 0) {
        RA_WARN("release keepalive ping send msg failed,ret=%d", result);
        return -1;
    }
    return 0;
}

int cloudChannelResponseWithError(REMOTE_PROXY_T *proxy, int code, const char *message,
                                  const char *msg_id, const char *token)
{
    STAGED_T staged{};
    if (stageResponse(proxy, code, nullptr, message, msg_id, token, &staged) != 0) return -1;
    RA_INFO("reponse  payload:%.*s", staged.payload_len, proxy->send_buffer.data);
    RA_INFO("reponse  header:%.*s", staged.header_len, headerBuffer().data());
    if (joinHeader(proxy, staged) != 0) {
        RA_ERROR("join content before buffer error");
        return -1;
    }
    int result = 0;
    if (writeSendBuffer(proxy, &result) != 0) {
        RA_WARN("remoteAccess_errorResponse send msg failed");
        return -1;
    }
    return 0;
}

int cloudChannelResponseNewSession(REMOTE_PROXY_T *proxy, const char *msg_id,
                                   const char *session_id)
{
    DATA_BUFFER_T &buffer = proxy->send_buffer;
    char session_part[SESSION_PART_SIZE];
    format_text(session_part, SESSION_PART_FORMAT, session_id);
    STAGED_T staged{};
    if (stageResponse(proxy, RESPONSE_OK, session_part, "new session response", msg_id, session_id,
                      &staged) != 0)
        return -1;
    if (joinHeader(proxy, staged) != 0) {
        RA_ERROR("join content before buffer error");
        return -1;
    }
    RA_INFO("response len:%d,%d", getBufferDataLength(&buffer),
            staged.payload_len + staged.header_len);
    RA_INFO("reponse package:%.*s", getBufferDataLength(&buffer), buffer.data);
    int result = 0;
    if (writeSendBuffer(proxy, &result) != 0) {
        RA_WARN("send new session response failed!");
        return -1;
    }
    return 0;
}

int cloudChannelResponseReleaseSession(REMOTE_PROXY_T *proxy, const char *msg_id,
                                       const char *session_id)
{
    char session_part[SESSION_PART_SIZE];
    format_text(session_part, SESSION_PART_FORMAT, session_id);
    return sendLoggedResponse(proxy, __func__, "send release session response failed!",
                              {session_part, "release session response", msg_id, session_id});
}

int cloudChannelResponseVerifyAccount(REMOTE_PROXY_T *proxy, const char *msg_id, const char *token)
{
    return sendLoggedResponse(proxy, __func__, "send verifyAccout response failed!",
                              {nullptr, "verify account ok", msg_id, token});
}
