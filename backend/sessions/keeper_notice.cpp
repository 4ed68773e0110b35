#include "backend/sessions/keeper_notice.h"

#include "backend/net/out_message.h"

#include <algorithm>

#include <boost/asio/steady_timer.hpp>

namespace backend {

constexpr auto NOTICE_TIME = std::chrono::seconds(10);

void sendOpening(DEVICE_CHANNEL_T &channel, const std::string &token,
                 const keep::OPENING_T &opening)
{
    const std::vector<std::uint8_t> bytes = keep::buildOpening(opening);
    OutMessagePtr message = takeDataMessage(DATA_MAX);
    std::copy(bytes.begin(), bytes.end(), message->payload.begin());
    message->payload_size = bytes.size();
    sendStreamData(channel, token, std::move(message));
}

// Not a session: no operator has asked for it, and the one that it ends has its own line.
class KeeperNotice final : public ChannelStream, public std::enable_shared_from_this<KeeperNotice> {
public:
    KeeperNotice(DEVICE_CHANNEL_T &channel, keep::OPENING_T opening)
        : channel_(&channel), opening_(std::move(opening)), timer_(channel.io)
    {
    }

    void start(const SERVICE_T &keeper)
    {
        const auto self = shared_from_this();
        if (!requestStream(*channel_, self, keeper)) return;
        timer_.expires_after(NOTICE_TIME);
        timer_.async_wait([self](const boost::system::error_code &stopped) {
            if (!stopped) self->leave(true);
        });
    }

    void opened(const std::string &token) override
    {
        token_ = token;
        sendOpening(*channel_, token, opening_);
    }
    void released() override
    {
        leave(false);
    }
    void giveUp() override
    {
        leave(true);
    }
    std::optional<std::chrono::steady_clock::time_point> idleSince() const override
    {
        return std::chrono::steady_clock::time_point{}; // everything else is worth more
    }
    void cut(const std::string & /*reason*/) override
    {
        leave(false);
    }
    void received(std::span<const std::uint8_t> /*bytes*/) override {}
    void roomIsBack() override {}

private:
    void leave(bool tell_device)
    {
        const auto self = shared_from_this(); // the channel may hold the last reference
        timer_.cancel();
        DEVICE_CHANNEL_T *const channel = std::exchange(channel_, nullptr);
        if (channel != nullptr) takeOffChannel(*channel, *this, token_, tell_device);
    }

    DEVICE_CHANNEL_T *channel_; // borrowed; null once it is off the channel
    keep::OPENING_T opening_;
    boost::asio::steady_timer timer_;
    std::string token_;
};

void tellKeeper(DEVICE_CHANNEL_T &channel, const KEPT_CARRIER_T &ended)
{
    if (!makeRoomForStream(channel)) return;
    keep::OPENING_T opening = ended.opening;
    opening.kind = keep::OPENING::END;
    std::make_shared<KeeperNotice>(channel, std::move(opening))->start(ended.keeper);
}

} // namespace backend
