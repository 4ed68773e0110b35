#include "backend/net/send_queue.h"

#include <utility>

namespace backend {

constexpr std::size_t SPARE_MAX = 16;

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
    if (message->is_data && queue.spare.size() < SPARE_MAX)
        queue.spare.push_back(std::move(message));
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

OutMessagePtr takeDataMessage(SEND_QUEUE_T *queue)
{
    if (queue != nullptr && !queue->spare.empty()) {
        OutMessagePtr message = std::move(queue->spare.back());
        queue->spare.pop_back();
        return message;
    }
    auto message = std::make_unique<OUT_MESSAGE_T>();
    message->payload.resize(DATA_MAX);
    message->is_data = true;
    return message;
}

void waitForDataRoom(SEND_QUEUE_T &queue, std::shared_ptr<SESSION_T> session)
{
    queue.waiting.push_back(std::move(session));
}

void stopWaiting(SEND_QUEUE_T &queue, const SESSION_T &session)
{
    std::erase_if(queue.waiting, [&session](const auto &other) { return other.get() == &session; });
}

std::shared_ptr<SESSION_T> takeWaitingSession(SEND_QUEUE_T &queue)
{
    if (queue.waiting.empty() || !hasDataRoom(queue)) return nullptr;
    std::shared_ptr<SESSION_T> session = std::move(queue.waiting.front());
    queue.waiting.pop_front();
    return session;
}

} // namespace backend
