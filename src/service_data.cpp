#include "src/service_data.h"

#include "common/log.h"
#include "src/proxy.h"
#include "src/remote_access_proxy_channel.h"
#include "src/remote_access_proxy_protocol_packet.h"
#include "src/remote_access_proxy_trans.h"
#include "src/traceBack.h"
#include "utility/data_buffer.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Operations whose lines are written by helpers here.
constexpr char DATA_UP[] = "localServiceDataProc";
constexpr char DATA_DOWN[] = "sendRawData2LocalService";

constexpr int SEND_ATTEMPTS = 3;
constexpr useconds_t SEND_RETRY_US = 20000;

enum class SEND_RESULT { PROGRESS, DROPPED, BROKEN };

// Frames the bytes in the send buffer and writes them to the channel.
void sendDataUp(REMOTE_PROXY_T *proxy, const char *session_id, int length)
{
    DATA_BUFFER_T &buffer = proxy->send_buffer;
    (void)moveBufferWritePointer(&buffer, length); // recv was limited to the room there is
    const std::span<char> header = headerBuffer();
    const int header_len =
        spliceProxyProtocolHeader(header, MSG_TYPE_DATA_UP, length, nullptr, session_id);
    if (header_len <= 0 || header_len >= HEADER_BUFFER_SIZE - 1) {
        RA_ERROR_FOR(DATA_UP, "splice local services packets header error!");
        return;
    }
    if (joinContentBeforeBuffer(header.data(), header_len, &buffer) != 0) {
        RA_ERROR_FOR(DATA_UP, "join content before buffer error");
        return;
    }
    const char *const message = getBufferReadPointer(&buffer);
    const std::int32_t total = getBufferDataLength(&buffer);
    const GatheredLogLines gathered;
    RA_INFO_FOR(DATA_UP, "local service data to cloud header:%s", header.data());
    RA_INFO_FOR(DATA_UP, "local service data to cloud headlen:%d, payloadlen:%d, bufferLen:%d",
                header_len, length, total);
    RA_INFO_FOR(DATA_UP, "local service data to cloud packet:%.*s", header_len, message);
    const int written = writeCloudProxyChannel(proxy->conn, message, total, proxy->trans_timeout);
    if (written != total) RA_WARN_FOR(DATA_UP, "send to cloud failed! writenLen:%d ", written);
}

void endSession(REMOTE_PROXY_T *proxy, const SESSION_NODE_T *session)
{
    (void)sendCloudChannelReleaseSessionRequest(proxy, nullptr,
                                                session->session_id); // logged there
    releaseOneSessionFromTable(&proxy->session_table, session->session_id);
}

// One stretch of the unread bytes: up to three attempts until some of them are taken.
SEND_RESULT sendOnce(DATA_BUFFER_T *buffer, const SESSION_NODE_T *session)
{
    const std::int32_t length = getBufferDataLength(buffer);
    RA_DEBUG_FOR(DATA_DOWN, "send to local service len:%d", length);
    for (int attempt = 0; attempt < SEND_ATTEMPTS; ++attempt) {
        errno = 0;
        const auto sent = static_cast<int>(::send(session->socket_fd, getBufferReadPointer(buffer),
                                                  static_cast<std::size_t>(length), 0));
        const int error = errno;
        if (sent > 0) {
            if (sent != length)
                RA_WARN_FOR(DATA_DOWN, "want to write len: %d, but writen len: %d", length, sent);
            (void)moveBufferReadPointer(buffer, sent);
            return SEND_RESULT::PROGRESS;
        }
        if (error == EPIPE) awaitBrokenPipeReports();
        RA_WARN_FOR(DATA_DOWN, "local service bad: %s, writenLen:%d", std::strerror(error), sent);
        if (error == EINTR) {
            RA_DEBUG_FOR(DATA_DOWN, "EINTR return error");
            return SEND_RESULT::DROPPED;
        }
        if (error != EAGAIN) {
            RA_WARN_FOR(DATA_DOWN, "local socker error! release this session");
            return SEND_RESULT::BROKEN;
        }
        RA_WARN_FOR(DATA_DOWN, "local socket block, try again!");
        ::usleep(SEND_RETRY_US);
    }
    return SEND_RESULT::DROPPED;
}

} // namespace

bool addToReadSet(READ_SET_T *read_set, int fd)
{
    if (fd < 0 || fd >= FD_SETSIZE) return false;
    FD_SET(fd, read_set->fds);
    if (fd > read_set->max_fd) read_set->max_fd = fd;
    return true;
}

int setLocalServiceSocketsToRfds(SESSION_NODE_T *session, void *read_set)
{
    if (session->socket_fd < 1) return 0;
    RA_DEBUG("select local socket:%d", session->socket_fd);
    (void)addToReadSet(static_cast<READ_SET_T *>(read_set), session->socket_fd);
    return 0;
}

int recordActiveLocalServiceSockets(SESSION_NODE_T *session, void *active)
{
    auto *const list = static_cast<ACTIVE_SOCKETS_T *>(active);
    if (session->socket_fd < 1 || session->socket_fd >= FD_SETSIZE) return 0;
    if (!FD_ISSET(session->socket_fd, list->read_set) || list->count >= MAX_SESSIONS) return 0;
    RA_DEBUG("local socket:%d, have data", session->socket_fd);
    list->sessions[list->count++] = session;
    return 0;
}

void localServiceDataProc(REMOTE_PROXY_T *proxy, SESSION_NODE_T *session)
{
    RA_DEBUG("recv local service data!");
    DATA_BUFFER_T &buffer = proxy->send_buffer;
    rewindDataBuffer(&buffer, DATA_HEADER_ROOM); // the header comes in front: no byte moves for it
    const auto room = static_cast<std::size_t>(buffer.capacity - DATA_HEADER_ROOM);
    const auto received =
        static_cast<int>(::recv(session->socket_fd, getBufferWritePointer(&buffer), room, 0));
    const int error = errno;
    if (received > 0) {
        sendDataUp(proxy, session->session_id, received);
        return;
    }
    if (received == 0) {
        RA_WARN("release session: %s", session->session_id);
        endSession(proxy, session);
        return;
    }
    if (error == EINTR || error == EAGAIN) return;
    RA_WARN("system error:%s, errno:%d. local service exit, release session: %s",
            std::strerror(error), error, session->session_id);
    endSession(proxy, session);
}

int sendRawData2LocalService(DATA_BUFFER_T *buffer, SESSION_NODE_T *session)
{
    RA_DEBUG("local data total len:%d", getBufferDataLength(buffer));
    while (getBufferDataLength(buffer) > 0) {
        switch (sendOnce(buffer, session)) {
        case SEND_RESULT::PROGRESS:
            break;
        case SEND_RESULT::DROPPED:
            return 0;
        case SEND_RESULT::BROKEN:
            return -1;
        }
    }
    return 0;
}
