// What waits to be sent to one device: messages in their order, one of them being written, and the
// clients whose bytes have no room among them. Session data and our own messages are counted apart.
// Ownership  the queue owns its messages, except the one that the link is writing.
// Threads    the thread of the io_context.
// Limits     LIMITS_T: data_queue bounds what hasDataRoom grants, control_queue what may wait until
//            isControlOverfull. SPARE_MAX written data messages are kept for their storage.
#pragma once

#include "backend/limits.h"
#include "backend/net/websocket_link.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

namespace backend {

struct SESSION_T;

struct SEND_QUEUE_T {
    const LIMITS_T &limits;
    std::deque<OutMessagePtr> messages = {}; // behind the one that is being written
    std::vector<OutMessagePtr> spare = {};
    std::deque<std::shared_ptr<SESSION_T>> waiting = {}; // to be read again once there is room
    std::size_t data_size = 0; // both sizes count the message being written
    std::size_t control_size = 0;
    bool write_active = false;
};

void queueMessage(SEND_QUEUE_T &queue, WebsocketLink &link, OutMessagePtr message);
// The link has written it: the next one follows.
void finishMessage(SEND_QUEUE_T &queue, WebsocketLink &link, OutMessagePtr message);

bool hasDataRoom(const SEND_QUEUE_T &queue);
bool isControlOverfull(const SEND_QUEUE_T &queue);

// Storage of DATA_MAX bytes; queue may be null.
OutMessagePtr takeDataMessage(SEND_QUEUE_T *queue);

void waitForDataRoom(SEND_QUEUE_T &queue, std::shared_ptr<SESSION_T> session);
void stopWaiting(SEND_QUEUE_T &queue, const SESSION_T &session);
// The session that has waited longest, which no longer waits then; null when there is no room or
// none waits.
std::shared_ptr<SESSION_T> takeWaitingSession(SEND_QUEUE_T &queue);

} // namespace backend
