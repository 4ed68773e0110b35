#include "backend/sessions/keeping.h"

#include "backend/devices/device_channel.h"
#include "backend/observe/log.h"

#include <array>
#include <limits>
#include <stdexcept>

#include <boost/asio/steady_timer.hpp>
#include <openssl/evp.h>

namespace backend {

using boost::system::error_code;

static constinit LINE_LIMIT_T g_untold{"keepers that could not be told of an end"};

constexpr std::size_t MARK_BYTES = 8;

static std::string markOf(const keep::SessionKey &key)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    if (EVP_Digest(key.data(), key.size(), hash.data(), nullptr, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("no hash can be made");
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string mark;
    for (std::size_t i = 0; i < MARK_BYTES; i++) {
        mark += DIGITS[hash[i] >> 4];
        mark += DIGITS[hash[i] & 15];
    }
    return mark;
}

std::optional<KEEPING_T> keepService(const DEVICE_CHANNEL_T &channel, const SERVICE_T &service,
                                     keep::OPENING_T opening)
{
    if (!channel.keeper) return std::nullopt;
    for (const std::string *text : {&service.type, &service.name, &service.ip})
        if (text->size() > keep::SERVICE_TEXT_MAX) return std::nullopt;
    if (service.port < 0 || service.port > std::numeric_limits<std::uint16_t>::max())
        return std::nullopt;
    opening.service = {service.type, service.name, service.ip,
                       static_cast<std::uint16_t>(service.port)};
    std::string mark = markOf(opening.key);
    return KEEPING_T{*channel.keeper, std::move(opening), std::move(mark)};
}

OutMessagePtr openingMessage(const keep::OPENING_T &opening)
{
    auto message = takeDataMessage(DATA_MAX);
    const std::vector<std::uint8_t> bytes = keep::buildOpening(opening);
    std::copy(bytes.begin(), bytes.end(), message->payload.begin());
    message->payload_size = bytes.size();
    return message;
}

// ---- the end

class EndNotice final : public ChannelStream, public std::enable_shared_from_this<EndNotice> {
public:
    EndNotice(DEVICE_CHANNEL_T &channel, keep::OPENING_T opening)
        : channel_(&channel), timer_(channel.io), opening_(std::move(opening))
    {
    }

    void send()
    {
        if (!channel_->keeper || !makeRoomForStream(*channel_)) return fail("there is no room");
        endAfter(channel_->limits.open_time);
        if (!requestStream(*channel_, shared_from_this(), *channel_->keeper))
            cut("the device disconnected");
    }

    bool isSession() const override
    {
        return false;
    }
    void roomIsBack() override {}
    void opened(const std::string &token) override
    {
        token_ = token;
        endAfter(channel_->limits.drain_time);
        sendStreamData(*channel_, token_, openingMessage(opening_));
    }
    void received(std::span<const std::uint8_t> /*bytes*/) override {}
    void released() override
    {
        leave(false);
    }
    void cut(const std::string &reason) override
    {
        if (token_.empty()) fail(reason);
        leave(false);
    }
    std::optional<std::chrono::steady_clock::time_point> idleSince() const override
    {
        return std::nullopt;
    }
    void giveUp() override {}

private:
    void fail(const std::string &reason) const
    {
        logLimited(g_untold, LOG_LEVEL::WARNING,
                   "device %s: its keeper was not told that a session of %s has ended: %s",
                   channel_ != nullptr ? channel_->device.device_name.c_str() : "",
                   opening_.who.c_str(), reason.c_str());
    }

    void leave(bool tell_device)
    {
        timer_.cancel();
        DEVICE_CHANNEL_T *const channel = std::exchange(channel_, nullptr);
        if (channel != nullptr) takeOffChannel(*channel, *this, token_, tell_device);
    }

    void endAfter(std::chrono::milliseconds time)
    {
        timer_.expires_after(time);
        timer_.async_wait([weak = weak_from_this()](const error_code &stopped) {
            const auto self = weak.lock();
            if (stopped || !self || self->channel_ == nullptr ||
                self->timer_.expiry() > std::chrono::steady_clock::now())
                return;
            if (self->token_.empty()) self->fail("the device did not answer");
            self->leave(true);
        });
    }

    DEVICE_CHANNEL_T *channel_; // borrowed; null once it is off the channel, which holds it
    boost::asio::steady_timer timer_;
    keep::OPENING_T opening_;
    std::string token_; // empty until the device has answered
};

void tellKeeperOfEnd(DEVICE_CHANNEL_T &channel, keep::OPENING_T opening)
{
    opening.kind = keep::OPENING::END;
    std::make_shared<EndNotice>(channel, std::move(opening))->send();
}

} // namespace backend
