#include "src/channel_dispatch.h"

#include "common/log.h"
#include "src/account.h"
#include "src/handshake_request.h"
#include "src/peer_watch.h"
#include "src/proxy.h"
#include "src/remote_access_proxy_channel.h"
#include "src/remote_access_proxy_protocol_packet.h"
#include "src/remote_access_proxy_trans.h"
#include "src/request_payload.h"
#include "src/service_catalogue.h"
#include "src/service_connect.h"
#include "src/service_data.h"
#include "src/watchdog_feed.h"
#include "utility/handles.h"
#include "utility/message_id.h"
#include "utility/text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace {

// Operations whose lines are written by helpers here.
constexpr char DISPATCH[] = "cloudDataProc";

using MESSAGE_HANDLER_FUNC_T = int (*)(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header);

struct MESSAGE_ROUTE_T {
    std::int32_t msg_type;
    MESSAGE_HANDLER_FUNC_T handler;
};

constexpr auto MESSAGE_ROUTES = std::to_array<MESSAGE_ROUTE_T>({
    {MSG_TYPE_NEW_SESSION, newSession},
    {MSG_TYPE_RELEASE_SESSION, releaseSession},
    {MSG_TYPE_DATA_DOWN, procCloudChannelData},
    {MSG_TYPE_RESPONSE, procCloudChannelResponse},
    {MSG_TYPE_VERIFY_ACCOUNT, procVerifyAccount},
    {MSG_TYPE_KEEPALIVE_PONG, procKeepaliveResponse},
});

consteval bool eachTypeOnce()
{
    for (std::size_t i = 0; i < MESSAGE_ROUTES.size(); ++i) {
        for (std::size_t j = i + 1; j < MESSAGE_ROUTES.size(); ++j) {
            if (MESSAGE_ROUTES[i].msg_type == MESSAGE_ROUTES[j].msg_type) return false;
        }
    }
    return true;
}
static_assert(eachTypeOnce());

// A refusal of a new session, as the back end reads it.
struct REFUSAL_T {
    std::int32_t code;
    const char *message;
};
constexpr REFUSAL_T REFUSE_TABLE_FULL{RESPONSE_NO_SESSION_LEFT, "socketfd insert error"};
constexpr REFUSAL_T REFUSE_SERVICE_DOWN{RESPONSE_SERVICE_UNAVAILABLE,
                                        "BL local service is not available"};
constexpr REFUSAL_T REFUSE_NO_MEMORY{RESPONSE_NO_SESSION_LEFT, "memory error"};

int refuse(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header, const REFUSAL_T &refusal)
{
    (void)cloudChannelResponseWithError(proxy, refusal.code, refusal.message, header->msg_id,
                                        nullptr);
    return -1;
}

bool isConnected(const REMOTE_PROXY_T *proxy)
{
    return channelState(proxy) == CHANNEL_STATE_CONNECTED;
}

// The record holds a password: it is wiped however its scope is left.
struct WipedAccount {
    VERIFY_ACCOUNT_T account{};
    WipedAccount() = default;
    WipedAccount(const WipedAccount &) = delete;
    WipedAccount &operator=(const WipedAccount &) = delete;
    ~WipedAccount()
    {
        ::explicit_bzero(&account, sizeof account);
    }
};

// Moves the read offset from the header to the payload. False when the payload is not as long as
// announced.
bool stepToPayload(DATA_BUFFER_T *buffer, const PROXY_HEADER_T &header)
{
    // A message that ends at its header's brace lacks the separator: the length then reads
    // negative, or, in a full buffer, the offset cannot be moved and the header is still there.
    return moveBufferReadPointer(buffer, header.header_len) == 0 &&
           header.payload_len == getBufferDataLength(buffer);
}

void routeMessage(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T &header)
{
    const auto route =
        std::find_if(MESSAGE_ROUTES.begin(), MESSAGE_ROUTES.end(),
                     [&](const MESSAGE_ROUTE_T &row) { return row.msg_type == header.msg_type; });
    if (route == MESSAGE_ROUTES.end()) {
        RA_WARN_FOR(DISPATCH, "recv error websocket package! msgType:%d ", header.msg_type);
        return;
    }
    (void)route->handler(proxy, &header);
}

// The header in the receive buffer, with its lines. -1 when it cannot be read, and for the rest of
// a message whose beginning is lost: a request found in there was never one.
int takeHeader(REMOTE_PROXY_T *proxy, PROXY_HEADER_T *header)
{
    DATA_BUFFER_T &buffer = proxy->recv_buffer;
    if (std::exchange(proxy->message_lost, false)) return refuseRemoteAccessProtocolHeader(&buffer);
    if (getRemoteAccessProtocolHeader(&buffer, header) != 0) return -1;
    const GatheredLogLines gathered{header->msg_type == MSG_TYPE_DATA_DOWN};
    RA_INFO_FOR(DISPATCH, "header len:%d", header->header_len);
    RA_INFO_FOR(DISPATCH, "header: %.*s", header->header_len, buffer.data);
    return 0;
}

// Behind the message may be bytes of a longer one. A message without a separator lets the read
// offset come to lie up to the separator's length behind its end.
void endText(DATA_BUFFER_T &buffer)
{
    const std::int32_t room = buffer.capacity - buffer.write_offset;
    std::memset(getBufferWritePointer(&buffer), 0,
                static_cast<std::size_t>(std::min(HEADER_SEPARATOR_LEN, room)) + 1);
}

// The receive buffer holds what there is of one message, to its end. True for service data.
bool processMessage(REMOTE_PROXY_T *proxy)
{
    DATA_BUFFER_T &buffer = proxy->recv_buffer;
    PROXY_HEADER_T header{};
    endText(buffer);
    if (takeHeader(proxy, &header) != 0) return false;
    if (!stepToPayload(&buffer, header)) {
        RA_WARN_FOR(DISPATCH, "payload length info is error!payloadlen:%d, datalen:%d",
                    header.payload_len, getBufferDataLength(&buffer));
        return false;
    }
    routeMessage(proxy, header);
    return header.msg_type == MSG_TYPE_DATA_DOWN;
}

// The payload's lines come by the thousand, unlike those of a session's end.
int writeToService(DATA_BUFFER_T *buffer, SESSION_NODE_T *session)
{
    const GatheredLogLines gathered;
    return sendRawData2LocalService(buffer, session);
}

} // namespace

void cloudDataProc(REMOTE_PROXY_T *proxy)
{
    DATA_BUFFER_T &buffer = proxy->recv_buffer;
    std::int64_t bytes = 0;
    int messages = 0;
    int fin = 0;
    do {
        const int result = readCloudProxyChannel(proxy->conn, &buffer, &fin);
        if (result == CHANNEL_READ_NOTHING) return; // the fragments so far stay for the next pass
        const bool is_over = hasCloudProxyChannelMessageEnded(proxy->conn);
        if (result == CHANNEL_READ_NO_ROOM) {
            proxy->message_lost = !is_over;
            resetDataBuffer(&buffer);
            return;
        }
        bytes += result;
        if (fin == 0 && !(proxy->message_lost && is_over)) {
            RA_DEBUG("this websocket message not have Fin flag!");
            if (result == CHANNEL_READ_NO_PAYLOAD) ++messages;
            continue;
        }
        // Service data come by the thousand, and the next message overwrites them. Of anything
        // else, as of a password, no byte stays.
        if (processMessage(proxy))
            rewindDataBuffer(&buffer, 0);
        else
            resetDataBuffer(&buffer);
        feedProxyWatchdog(); // one message may cost a second, and there may be many
        (void)lookAtPeer(proxy);
        ++messages;
    } while (isRemoteAccessOn(proxy) && bytes < DRAIN_BYTES && messages < DRAIN_MESSAGES);
}

int newSession(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header)
{
    if (!isConnected(proxy)) {
        RA_WARN("cloud channel does not finish handshake!");
        return -1;
    }
    char session_id[SESSION_ID_SIZE]; // the shared id text is overwritten by the next message's id
    copy_text(session_id, generateMsgId());
    NEW_SESSION_REQ_T request{};
    parseProxyProtocolNewSessionPayload(getBufferReadPointer(&proxy->recv_buffer),
                                        getBufferDataLength(&proxy->recv_buffer), &request);
    if (getSessionTableSize(&proxy->session_table) >= MAX_SESSIONS) {
        RA_WARN("session table is limited");
        return refuse(proxy, header, REFUSE_TABLE_FULL);
    }
    UniqueFd socket{connect2LocalService(request.service_ip, request.service_port)};
    if (!socket) {
        RA_WARN("failed to connect to local service");
        return refuse(proxy, header, REFUSE_SERVICE_DOWN);
    }
    SERVICE_INFO_T *const service =
        findLocalServiceInfo(proxy->service_list, request); // null: not in the catalogue
    if (addOneSessionToTable(&proxy->session_table, session_id, socket.get(), service) != 0) {
        RA_WARN("failed to alloc new session");
        socket.reset();
        return refuse(proxy, header, REFUSE_NO_MEMORY);
    }
    socket.release(); // the table owns it now
    if (cloudChannelResponseNewSession(proxy, header->msg_id, session_id) != 0) {
        RA_WARN("cloud channel response to new session error!session_id:%s, msgID:%s", session_id,
                header->msg_id);
        return -1;
    }
    return 0;
}

int releaseSession(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header)
{
    if (!isConnected(proxy)) {
        RA_WARN("cloud channel does not finish handshake!");
        return -1;
    }
    releaseOneSessionFromTable(&proxy->session_table, header->token);
    if (cloudChannelResponseReleaseSession(proxy, header->msg_id, header->token) != 0) {
        RA_WARN("release the session failed! sessionID:%s", header->token);
        return -1;
    }
    RA_INFO("release the session: %s", header->token);
    return 0;
}

int procCloudChannelData(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header)
{
    if (!isConnected(proxy)) {
        RA_WARN("cloud channel does not finish handshake!");
        return -1;
    }
    SESSION_NODE_T *const session = findOneSessionFromTable(&proxy->session_table, header->token);
    if (session == nullptr) {
        RA_WARN("session id invalid: %s", header->token);
        resetDataBuffer(&proxy->recv_buffer);
        return -1;
    }
    if (writeToService(&proxy->recv_buffer, session) != 0) {
        RA_WARN("release the session: %s", header->token);
        (void)sendCloudChannelReleaseSessionRequest(proxy, header->msg_id,
                                                    header->token); // logged there
        releaseOneSessionFromTable(&proxy->session_table, header->token);
        resetDataBuffer(&proxy->recv_buffer);
        return -1;
    }
    return 0;
}

int procCloudChannelResponse(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header)
{
    if (text_of(header->msg_id) == HANDSHAKE_MSG_ID)
        return procCloudChannelHandShakeResponse(proxy, header);
    RA_INFO("recv release session response.payload:%s", getBufferReadPointer(&proxy->recv_buffer));
    return 0;
}

int procCloudChannelHandShakeResponse(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T * /*header*/)
{
    if (channelState(proxy) != CHANNEL_STATE_HANDSHAKE) {
        RA_WARN("cloud channel handshake in a error state, now state:%d", channelState(proxy));
        return -1;
    }
    std::int32_t code = 0;
    if (parseProxyProtocolHandShakeResponse(getBufferReadPointer(&proxy->recv_buffer),
                                            getBufferDataLength(&proxy->recv_buffer), &code) != 0)
        return -1;
    RA_INFO("handshake response code is %d!", code);
    if (code == RESPONSE_OK) acceptHandShake(proxy);
    return 0;
}

int procVerifyAccount(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header)
{
    if (!isConnected(proxy)) {
        RA_WARN("cloud channel does not finish handshake!");
        return -1;
    }
    WipedAccount request;
    if (parseProxyProtocolVerifyAccount(getBufferReadPointer(&proxy->recv_buffer),
                                        getBufferDataLength(&proxy->recv_buffer),
                                        &request.account) != 0)
        return refuse(proxy, header, {RESPONSE_BAD_ACCOUNT_REQUEST, "parse VerifyAccount failed"});
    if (verifyAccount(request.account) != 0)
        return refuse(proxy, header, {RESPONSE_ACCOUNT_REFUSED, "verify account failed"});
    if (cloudChannelResponseVerifyAccount(proxy, header->msg_id, nullptr) != 0) {
        RA_WARN("cloud channel response to verifyAccount error!session_id:%s, msgID:%s", "",
                header->msg_id);
        return -1;
    }
    return 0;
}

int procKeepaliveResponse(REMOTE_PROXY_T *proxy, const PROXY_HEADER_T *header)
{
    if (!isConnected(proxy)) {
        RA_WARN("recv keepalive pong, but cloud channel does not finish handshake!");
        return -1;
    }
    proxy->ping_count = 0;
    RA_INFO("recv keepalive pong,messagID=%s,timestamp:%lu", header->msg_id,
            static_cast<unsigned long>(header->timestamp));
    return 0;
}
