// The bytes of a session between its local service and the cloud channel.
//
// Upwards    one recv per readable session and pass, straight into the send buffer, framed there
//            and written at once.
// Downwards  the payload of a data message, with a short bounded retry when the service does not
//            read.
// Loss       upwards the rest of a message that the channel does not take in time, downwards the
//            rest of a payload that the service does not take within three waits of 20 ms; both are
//            logged, and the session lives on.
// Threads    the proxy thread alone.
#pragma once

#include "src/cloud_protocol.h"

#include <cstdint>
#include <sys/select.h>

struct DATA_BUFFER_T;
struct REMOTE_PROXY_T;
struct SESSION_NODE_T;

// The sessions that a select pass found readable, in the table's walk order.
struct ACTIVE_SOCKETS_T {
    const fd_set *read_set;
    std::int32_t count;
    SESSION_NODE_T *sessions[MAX_SESSIONS]; // borrowed, valid until released
};

// A read set that is being built, with its highest descriptor.
struct READ_SET_T {
    fd_set *fds;
    int max_fd;
};

// False, and nothing changed, for a descriptor that an fd_set cannot hold.
bool addToReadSet(READ_SET_T *read_set, int fd);

// Walk callbacks of the session table; their arguments are a READ_SET_T and an ACTIVE_SOCKETS_T.
int setLocalServiceSocketsToRfds(SESSION_NODE_T *session, void *read_set);
int recordActiveLocalServiceSockets(SESSION_NODE_T *session, void *active);

// Reads once and sends what came. Releases the session, and notifies the back end, when its service
// has ended: the session must not be used after the call.
void localServiceDataProc(REMOTE_PROXY_T *proxy, SESSION_NODE_T *session);

// Writes the buffer's unread content to the session's socket. 0 (also when the rest had to be
// dropped), or -1 when the socket is broken and the session has to be released.
[[nodiscard]] int sendRawData2LocalService(DATA_BUFFER_T *buffer, SESSION_NODE_T *session);
