#include "backend/net/send_queue.h"

#include <utility>
#include <vector>

namespace backend {

constexpr std::size_t SPARE_MAX = 4;

static std::vector<OutMessagePtr> &spareMessages()
{
    static thread_local std::vector<OutMessagePtr> spare;
    return spare;
}

static std::size_t sizeOf(const OUT_MESSAGE_T &message)
{
    return message.header.size + message.payload_size;
}

static std::size_t &counterOf(SEND_QUEUE_T &queue, const OUT_MESSAGE_T &message)
{
    return message.is_data ? queue.data_size : queue.control_size;
}

static void writeNext(SEND_QUEUE_T &queue, WebsocketLink &link)
{
    if (queue.write_active || queue.messages.empty()) return;
    queue.write_active = true;
    OutMessagePtr message = std::move(queue.messages.front());
    queue.messages.pop_front();
    link.write(std::move(message));
}

void queueMessage(SEND_QUEUE_T &queue, WebsocketLink &link, OutMessagePtr message)
{
    counterOf(queue, *message) += sizeOf(*message);
    queue.messages.push_back(std::move(message));
    writeNext(queue, link);
}

void finishMessage(SEND_QUEUE_T &queue, WebsocketLink &link, OutMessagePtr message)
{
    queue.write_active = false;
    counterOf(queue, *message) -= sizeOf(*message);
    if (message->is_data && spareMessages().size() < SPARE_MAX)
        spareMessages().push_back(std::move(message));
    writeNext(queue, link);
}

bool hasDataRoom(const SEND_QUEUE_T &queue)
{
    return queue.data_size < queue.limits.data_queue;
}

bool isControlOverfull(const SEND_QUEUE_T &queue)
{
    return queue.control_size > queue.limits.control_queue;
}

OutMessagePtr takeDataMessage(std::size_t size)
{
    std::vector<OutMessagePtr> &spare = spareMessages();
    if (!spare.empty()) {
        OutMessagePtr message = std::move(spare.back());
        spare.pop_back();
        return message;
    }
    auto message = std::make_unique<OUT_MESSAGE_T>();
    message->payload.resize(size);
    message->is_data = true;
    return message;
}

void waitForDataRoom(SEND_QUEUE_T &queue, std::shared_ptr<RoomWaiter> waiter)
{
    queue.waiting.push_back(std::move(waiter));
}

void stopWaiting(SEND_QUEUE_T &queue, const RoomWaiter &waiter)
{
    std::erase_if(queue.waiting, [&waiter](const auto &other) { return other.get() == &waiter; });
}

std::shared_ptr<RoomWaiter> takeWaiter(SEND_QUEUE_T &queue)
{
    if (queue.waiting.empty() || !hasDataRoom(queue)) return nullptr;
    std::shared_ptr<RoomWaiter> waiter = std::move(queue.waiting.front());
    queue.waiting.pop_front();
    return waiter;
}

} // namespace backend
