// A session as its channel sees it: what the channel calls when something comes for it.
// Threads  the thread of the io_context.
#pragma once

#include "backend/net/send_queue.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace backend {

class ChannelStream : public RoomWaiter {
public:
    // False for what the back end itself has to say to a device.
    virtual bool isSession() const
    {
        return true;
    }
    // The device has answered: bytes flow from now on.
    virtual void opened(const std::string &token) = 0;
    virtual void received(std::span<const std::uint8_t> bytes) = 0;
    // The device has ended it. It is still on the channel, and leaves it within the call.
    virtual void released() = 0;
    // Refused by the device, or lost with the channel; the reason in words for operators. It
    // leaves the channel within the call.
    virtual void cut(const std::string &reason) = 0;
    // Since when it could be given up for another: nothing while it is needed.
    virtual std::optional<std::chrono::steady_clock::time_point> idleSince() const = 0;
    // It is given up: it leaves the channel within the call.
    virtual void giveUp() = 0;
};
using StreamPtr = std::shared_ptr<ChannelStream>;

} // namespace backend
