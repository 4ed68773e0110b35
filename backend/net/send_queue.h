// What waits to be sent to one device: messages in their order, one of them being written, and the
// clients whose bytes have no room among them. Session data and our own messages are counted apart.
// Ownership  the queue owns its messages, except the one that the link is writing.
// Threads    the thread of the io_context.
// Limits     LIMITS_T: data_queue bounds what hasDataRoom grants, control_queue what may wait until
//            isControlOverfull. A thread keeps SPARE_MAX written data messages for
//            their storage, whichever device they were for.
#pragma once

#include "backend/limits.h"
#include "backend/net/websocket_link.h"

#include <cstddef>
#include <list>
#include <memory>

namespace backend {

// Somebody whose bytes had no room.
class RoomWaiter {
public:
    virtual ~RoomWaiter() = default;
    virtual void roomIsBack() = 0;
};

struct SEND_QUEUE_T {
    const LIMITS_T &limits;
    std::list<OutMessagePtr> messages = {}; // behind the one that is being written
    std::list<std::shared_ptr<RoomWaiter>> waiting = {};
    std::size_t data_size = 0; // both sizes count the message being written
    std::size_t control_size = 0;
    bool write_active = false;
};

void queueMessage(SEND_QUEUE_T &queue, WebsocketLink &link, OutMessagePtr message);
// The link has written it: the next one follows.
void finishMessage(SEND_QUEUE_T &queue, WebsocketLink &link, OutMessagePtr message);

bool hasDataRoom(const SEND_QUEUE_T &queue);
bool isControlOverfull(const SEND_QUEUE_T &queue);

// With storage for `size` bytes, which is the same in all calls.
OutMessagePtr takeDataMessage(std::size_t size);

void waitForDataRoom(SEND_QUEUE_T &queue, std::shared_ptr<RoomWaiter> waiter);
void stopWaiting(SEND_QUEUE_T &queue, const RoomWaiter &waiter);
// The one that has waited longest, which no longer waits then; null when there is no room or none
// waits.
std::shared_ptr<RoomWaiter> takeWaiter(SEND_QUEUE_T &queue);

} // namespace backend
