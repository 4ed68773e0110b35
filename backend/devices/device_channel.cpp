#include "backend/devices/device_channel.h"

#include "backend/net/endpoint.h"
#include "backend/observe/metrics.h"
#include "keep/opening.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;

// The beginning of a msg_id says which kind of request an answer belongs to, also when it comes too
// late.
constexpr std::string_view OPEN_ID = "open-";
constexpr std::string_view RELEASE_ID = "release-";
constexpr std::string_view ACCOUNT_ID = "account-";

constexpr char DEVICE_GONE[] = "the device disconnected";

static constinit LINE_LIMIT_T g_ended{"connections that ended without a handshake"};
// Of channels that are younger than this: one that comes and goes has a new limit of its own each
// time.
static constinit LINE_LIMIT_T g_young_faults{"devices that have just connected"};
constexpr std::time_t YOUNG_S = 5;

constexpr std::size_t RELEASING_MAX = 128;
constexpr std::size_t ACCOUNTS_MAX = 16;

DEVICE_CHANNEL_T::DEVICE_CHANNEL_T(asio::io_context &context, const LIMITS_T &allowed,
                                   CHANNEL_EVENTS_T handlers)
    : io(context), limits(allowed), events(std::move(handlers)), timer(context), pace(context)
{
}

static std::string nameOf(const DEVICE_CHANNEL_T &channel)
{
    if (channel.device.device_name.empty()) return channel.peer;
    return channel.device.device_name + " (" + channel.peer + ")";
}

static void logFault(DEVICE_CHANNEL_T &channel, const std::string &text)
{
    const bool is_young = time(nullptr) - channel.connected_at < YOUNG_S;
    logLimited(is_young ? g_young_faults : channel.fault_lines, LOG_LEVEL::WARNING, "device %s: %s",
               nameOf(channel).c_str(), text.c_str());
}

static std::string freshId(DEVICE_CHANNEL_T &channel, std::string_view kind)
{
    return std::string(kind) + std::to_string(channel.next_id++);
}

// ---- to the device

static void enqueue(DEVICE_CHANNEL_T &channel, OutMessagePtr message)
{
    if (channel.state == CHANNEL_STATE::CLOSED) return;
    queueMessage(channel.outgoing, *channel.link, std::move(message));
}

static void messageWritten(DEVICE_CHANNEL_T &channel, const error_code &error,
                           OutMessagePtr message)
{
    if (channel.state == CHANNEL_STATE::CLOSED) return;
    if (error) return closeDeviceChannel(channel, 0, "cannot be written to: " + error.message());
    finishMessage(channel.outgoing, *channel.link, std::move(message));
    while (const std::shared_ptr<RoomWaiter> waiter = takeWaiter(channel.outgoing))
        waiter->roomIsBack();
}

static void sendControl(DEVICE_CHANNEL_T &channel, MESSAGE_TYPE type, std::string_view msg_id,
                        std::string_view token, std::string_view payload = {},
                        bool is_secret = false)
{
    auto message = std::make_unique<OUT_MESSAGE_T>();
    message->header = buildHeader(type, payload.size(), msg_id, time(nullptr), token);
    message->payload.assign(payload.begin(), payload.end());
    message->payload_size = payload.size();
    message->is_secret = is_secret;
    enqueue(channel, std::move(message));
    if (isControlOverfull(channel.outgoing))
        closeDeviceChannel(channel, 0, "sends, but takes no answers");
}

static void sendRelease(DEVICE_CHANNEL_T &channel, const std::string &token)
{
    if (channel.releasing.size() >= RELEASING_MAX) channel.releasing.pop_front();
    channel.releasing.push_back(token);
    sendControl(channel, MESSAGE_RELEASE_SESSION, freshId(channel, RELEASE_ID), token);
}

void sendStreamData(DEVICE_CHANNEL_T &channel, const std::string &token, OutMessagePtr message)
{
    message->header = buildHeader(MESSAGE_DATA_DOWN, message->payload_size,
                                  freshId(channel, "data-"), time(nullptr), token);
    enqueue(channel, std::move(message));
}

// ---- from the device

static void readNext(DEVICE_CHANNEL_T &channel)
{
    if (channel.read_active || channel.is_paced || channel.state == CHANNEL_STATE::CHECKING ||
        channel.state == CHANNEL_STATE::CLOSED)
        return;
    channel.read_active = true;
    channel.link->read();
}

void pauseReading(DEVICE_CHANNEL_T &channel, std::chrono::milliseconds pause)
{
    channel.is_paced = true;
    channel.pace.expires_after(pause);
    channel.pace.async_wait([weak = channel.weak_from_this()](const error_code &stopped) {
        const ChannelPtr held = weak.lock();
        if (held && !stopped) resumeReading(*held);
    });
}

void resumeReading(DEVICE_CHANNEL_T &channel)
{
    if (!std::exchange(channel.is_paced, false)) return;
    channel.pace.cancel();
    readNext(channel);
}

void takeOffChannel(DEVICE_CHANNEL_T &channel, const ChannelStream &stream,
                    const std::string &token, bool tell_device)
{
    stopWaiting(channel.outgoing, stream);
    if (token.empty()) {
        std::erase_if(channel.opening,
                      [&stream](const auto &entry) { return entry.second.get() == &stream; });
        return;
    }
    const auto found = channel.streams.find(token);
    if (found == channel.streams.end() || found->second.get() != &stream) return;
    channel.streams.erase(found);
    if (tell_device) sendRelease(channel, token);
}

static void onData(DEVICE_CHANNEL_T &channel, const MESSAGE_T &message)
{
    const auto found = channel.streams.find(message.header.token);
    if (found != channel.streams.end()) {
        const StreamPtr stream = found->second; // a fault may take it out of the table
        return stream->received(message.payload);
    }
    const std::string &token = message.header.token;
    const auto &releasing = channel.releasing;
    if (std::find(releasing.begin(), releasing.end(), token) != releasing.end())
        return; // was under way
    logFault(channel, "data for the unknown session \"" + token + "\" dropped");
    if (!token.empty() && rateAllows(channel.unknown_releases)) sendRelease(channel, token);
}

// Answered in any case, as the device does it: the session may have been released here a moment
// before.
static void onRelease(DEVICE_CHANNEL_T &channel, const MESSAGE_T &message)
{
    const auto found = channel.streams.find(message.header.token);
    if (found != channel.streams.end()) {
        const StreamPtr stream = found->second;
        stream->released();
    }
    sendControl(channel, MESSAGE_RESPONSE, message.header.msg_id, message.header.token,
                buildResponse(0, "release session response"));
}

static void onPing(DEVICE_CHANNEL_T &channel, const MESSAGE_T &message)
{
    sendControl(channel, MESSAGE_PONG, message.header.msg_id, {});
}

static void onNewSessionAnswer(DEVICE_CHANNEL_T &channel, const MESSAGE_T &message,
                               const RESPONSE_T &response)
{
    const std::string &token = message.header.token;
    const auto found = channel.opening.find(message.header.msg_id);
    if (found == channel.opening.end()) {
        // The client did not wait for it any longer.
        if (response.code == 0 && !token.empty() && !channel.streams.contains(token))
            sendRelease(channel, token);
        return;
    }
    const StreamPtr stream = std::move(found->second);
    channel.opening.erase(found);
    if (response.code != 0) {
        return stream->cut("refused: code " + std::to_string(response.code) + ", " +
                           deviceCodeText(response.code));
    }
    const bool is_named =
        !token.empty() && (response.session_id.empty() || response.session_id == token);
    if (!is_named || channel.streams.contains(token)) {
        logFault(channel, "new session without an identifier of its own");
        if (!token.empty()) sendRelease(channel, token);
        return stream->cut("refused: the device gave it no identifier of its own");
    }
    std::erase(channel.releasing, token);
    channel.streams.emplace(token, stream);
    stream->opened(token);
}

static void onResponse(DEVICE_CHANNEL_T &channel, const MESSAGE_T &message)
{
    RESPONSE_T response;
    const char *fault = parseResponse(message.payload, response);
    if (fault != nullptr) return logFault(channel, std::string("response dropped: ") + fault);
    const std::string &id = message.header.msg_id;
    if (id.starts_with(OPEN_ID)) return onNewSessionAnswer(channel, message, response);
    if (id.starts_with(RELEASE_ID)) {
        std::erase(channel.releasing, message.header.token);
        return;
    }
    const auto account = channel.accounts.find(id);
    if (account == channel.accounts.end())
        return logFault(channel, "response to the unknown request \"" + id + "\"");
    const ACCOUNT_REQUEST_T request = std::move(account->second);
    channel.accounts.erase(account);
    request.answered({true, response.code, response.message});
}

struct MESSAGE_ROUTE_T {
    std::int64_t type;
    void (*handler)(DEVICE_CHANNEL_T &channel, const MESSAGE_T &message);
};

constexpr auto MESSAGE_ROUTES = std::to_array<MESSAGE_ROUTE_T>({
    {MESSAGE_DATA_UP, onData},
    {MESSAGE_RESPONSE, onResponse},
    {MESSAGE_RELEASE_SESSION, onRelease},
    {MESSAGE_PING, onPing},
});

static void dispatch(DEVICE_CHANNEL_T &channel, const MESSAGE_T &message)
{
    for (const MESSAGE_ROUTE_T &route : MESSAGE_ROUTES) {
        if (route.type == message.header.type) return route.handler(channel, message);
    }
    logFault(channel, "message of type " + std::to_string(message.header.type) + " dropped");
}

// ---- whether the device is there

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds silenceOf(const DEVICE_CHANNEL_T &channel)
{
    return channel.link->silence();
}

// How long the device has owed an answer to a ping; zero when it owes none.
static Clock::duration owedFor(const DEVICE_CHANNEL_T &channel)
{
    if (!channel.pinged) return {};
    const Clock::duration waited = Clock::now() - *channel.pinged;
    return silenceOf(channel) < waited ? Clock::duration{} : waited;
}

bool isSilent(const DEVICE_CHANNEL_T &channel)
{
    return owedFor(channel) >= channel.limits.answering_time;
}

static void lookAtSilence(DEVICE_CHANNEL_T &channel);

static void watchSilence(DEVICE_CHANNEL_T &channel, Clock::duration wait)
{
    channel.timer.expires_after(wait);
    channel.timer.async_wait([self = channel.weak_from_this()](const error_code &error) {
        const ChannelPtr held = self.lock();
        if (held && !error && held->state == CHANNEL_STATE::CONNECTED) lookAtSilence(*held);
    });
}

void askForLife(DEVICE_CHANNEL_T &channel)
{
    if (owedFor(channel) > Clock::duration{}) return; // asked already
    if (silenceOf(channel) < channel.limits.request_silence) return;
    channel.pinged = Clock::now();
    channel.link->ping();
    watchSilence(channel, channel.limits.answering_time);
}

static void lookAtSilence(DEVICE_CHANNEL_T &channel)
{
    const LIMITS_T &limits = channel.limits;
    const Clock::duration owed = owedFor(channel);
    if (owed == Clock::duration{}) {
        channel.pinged.reset();
        const std::chrono::milliseconds silence = silenceOf(channel);
        if (silence >= limits.idle_silence) return askForLife(channel);
        return watchSilence(channel, limits.idle_silence - silence);
    }
    if (owed >= limits.silence_time)
        return closeDeviceChannel(channel, 0,
                                  "nothing was heard of it for " +
                                      std::to_string(silenceOf(channel).count() / 1000) + " s");
    if (owed < limits.answering_time) return watchSilence(channel, limits.answering_time - owed);
    logFault(channel, "does not answer, last heard " +
                          std::to_string(silenceOf(channel).count() / 1000) + " s ago");
    watchSilence(channel, limits.silence_time - owed);
}

// ---- life of the channel

static void sendHandshakeAnswer(DEVICE_CHANNEL_T &channel, HANDSHAKE_CODE code)
{
    sendControl(channel, MESSAGE_RESPONSE, HANDSHAKE_ID, {},
                buildResponse(code, handshakeCodeText(code)));
}

static void armChannelTimer(DEVICE_CHANNEL_T &channel, std::chrono::milliseconds wait,
                            const char *reason)
{
    channel.timer.expires_after(wait);
    channel.timer.async_wait([self = channel.weak_from_this(), reason](const error_code &error) {
        const ChannelPtr held = self.lock();
        if (held && !error && held->state != CHANNEL_STATE::CONNECTED) {
            closeDeviceChannel(*held, CLOSE_REFUSED, reason);
        }
    });
}

static void refuseDevice(DEVICE_CHANNEL_T &channel, const HANDSHAKE_RESULT_T &result)
{
    addToMetric(METRIC::HANDSHAKES_REFUSED);
    channel.events.refused(channel, result);
    channel.state = CHANNEL_STATE::REFUSED;
    sendHandshakeAnswer(channel, result.code);
    // Not at once, so that the device reads the code before it sees the end.
    if (channel.state == CHANNEL_STATE::REFUSED) {
        armChannelTimer(channel, channel.limits.refusal_time, "handshake refused");
    }
}

// A keeper is no service like others: only the back end itself goes there.
static void takeServices(DEVICE_CHANNEL_T &channel, std::vector<SERVICE_T> announced)
{
    const auto is_keeper = [](const SERVICE_T &service) {
        return service.type == keep::KEEPER_TYPE;
    };
    const auto first = std::find_if(announced.begin(), announced.end(), is_keeper);
    if (first != announced.end()) channel.keeper = *first;
    std::erase_if(announced, is_keeper);
    channel.services = std::move(announced);
}

static void finishHandshake(const ChannelPtr &channel, HANDSHAKE_RESULT_T result)
{
    if (channel->state != CHANNEL_STATE::CHECKING) return; // gone meanwhile
    if (result.code != HANDSHAKE_ACCEPTED) {
        refuseDevice(*channel, result);
        return readNext(*channel);
    }
    channel->device = std::move(result.device);
    takeServices(*channel, std::move(result.services));
    channel->proved_secret = std::move(result.proved_secret);
    channel->state = CHANNEL_STATE::CONNECTED;
    channel->connected_at = time(nullptr);
    channel->link->leavePlace();
    watchSilence(*channel, channel->limits.idle_silence);
    channel->events.connected(channel, result.detail);
    sendHandshakeAnswer(*channel, HANDSHAKE_ACCEPTED);
    readNext(*channel);
}

static void onHandshake(const ChannelPtr &channel, const MESSAGE_T &message)
{
    channel->state = CHANNEL_STATE::CHECKING;
    channel->events.check(*channel, message,
                          [weak = channel->weak_from_this()](HANDSHAKE_RESULT_T result) {
                              const ChannelPtr held = weak.lock();
                              if (held) finishHandshake(held, std::move(result));
                          });
}

static void onMessage(const ChannelPtr &channel, std::span<const std::uint8_t> bytes,
                      bool is_binary)
{
    if (!is_binary) return closeDeviceChannel(*channel, CLOSE_NOT_BINARY, "text message received");
    MESSAGE_T message;
    const char *fault = parseMessage(bytes, message);
    switch (channel->state) {
    case CHANNEL_STATE::HANDSHAKE:
        if (fault != nullptr)
            return refuseDevice(*channel, {HANDSHAKE_MALFORMED, fault, {}, {}, 0, {}});
        return onHandshake(channel, message);
    case CHANNEL_STATE::CONNECTED:
        if (fault != nullptr) return logFault(*channel, std::string("message dropped: ") + fault);
        return dispatch(*channel, message);
    case CHANNEL_STATE::CHECKING:
    case CHANNEL_STATE::REFUSED:
    case CHANNEL_STATE::CLOSED:
        return;
    }
}

static LINK_EVENTS_T linkEvents(const ChannelPtr &channel)
{
    const std::weak_ptr<DEVICE_CHANNEL_T> weak = channel;
    LINK_EVENTS_T events;
    events.accepted = [weak](const error_code &error) {
        const ChannelPtr held = weak.lock();
        if (!held) return;
        if (error) return closeDeviceChannel(*held, 0, "no WebSocket: " + error.message());
        readNext(*held);
    };
    events.received = [weak](const error_code &error, std::span<const std::uint8_t> bytes,
                             bool is_binary) {
        const ChannelPtr held = weak.lock();
        if (!held) return;
        if (error) return closeDeviceChannel(*held, 0, "connection ended: " + error.message());
        onMessage(held, bytes,
                  is_binary); // no other read may start meanwhile: it would overwrite the message
        held->read_active = false;
        readNext(*held);
    };
    events.expelled = [weak](const char *reason) {
        const ChannelPtr held = weak.lock();
        if (held) closeDeviceChannel(*held, CLOSE_REFUSED, reason);
    };
    events.written = [weak](const error_code &error, OutMessagePtr message) {
        const ChannelPtr held = weak.lock();
        if (held) messageWritten(*held, error, std::move(message));
    };
    return events;
}

ChannelPtr startDeviceChannel(asio::io_context &io, const LIMITS_T &limits, tcp::socket socket,
                              PlacePtr place, const std::shared_ptr<TLS_CONTEXT_T> &tls,
                              CHANNEL_EVENTS_T events)
{
    auto channel = std::make_shared<DEVICE_CHANNEL_T>(io, limits, std::move(events));
    error_code error;
    const tcp::endpoint peer = socket.remote_endpoint(error);
    channel->peer = error ? "(gone)" : endpointText(peer);
    channel->link =
        makeWebsocketLink(std::move(socket), tls, std::move(place), linkEvents(channel));
    channel->link->accept();
    return channel;
}

void closeDeviceChannel(DEVICE_CHANNEL_T &channel, std::uint16_t code, const std::string &reason)
{
    if (channel.state == CHANNEL_STATE::CLOSED) return;
    const ChannelPtr keep = channel.shared_from_this();
    const bool was_device = channel.state == CHANNEL_STATE::CONNECTED;
    // What may fail for want of memory comes first: nothing has changed then.
    if (!was_device)
        logLimited(g_ended, LOG_LEVEL::INFO, "connection from %s ended: %s", channel.peer.c_str(),
                   reason.c_str());
    channel.state = CHANNEL_STATE::CLOSED;
    channel.timer.cancel();
    channel.pace.cancel();
    for (const auto &[token, stream] : std::exchange(channel.streams, {}))
        stream->cut(DEVICE_GONE);
    for (const auto &[id, stream] : std::exchange(channel.opening, {}))
        stream->cut(DEVICE_GONE);
    for (auto &[id, request] : std::exchange(channel.accounts, {})) {
        request.answered({false, 0, DEVICE_GONE});
    }
    channel.outgoing.messages.clear();
    if (code == 0)
        channel.link->abort();
    else
        channel.link->close(code);
    channel.events.closed(keep, reason);
}

// ---- requests

const SERVICE_T *findService(const DEVICE_CHANNEL_T &channel, const std::string &name)
{
    const auto found =
        std::find_if(channel.services.begin(), channel.services.end(),
                     [&name](const SERVICE_T &service) { return service.name == name; });
    return found == channel.services.end() ? nullptr : &*found;
}

std::size_t countSessions(const DEVICE_CHANNEL_T &channel)
{
    return static_cast<std::size_t>(
        std::count_if(channel.streams.begin(), channel.streams.end(),
                      [](const auto &entry) { return entry.second->isSession(); }));
}

bool makeRoomForStream(DEVICE_CHANNEL_T &channel)
{
    const std::size_t count = channel.streams.size() + channel.opening.size();
    if (count >= channel.limits.clients_per_device) {
        logFault(channel, "too many clients, one was turned away");
        return false;
    }
    if (count < DEVICE_SESSIONS_MAX) return true;
    StreamPtr oldest;
    for (const auto &[token, stream] : channel.streams) {
        const auto since = stream->idleSince();
        if (since && (!oldest || *since < *oldest->idleSince())) oldest = stream;
    }
    if (oldest) oldest->giveUp();
    return true;
}

bool requestStream(DEVICE_CHANNEL_T &channel, const StreamPtr &stream, const SERVICE_T &service)
{
    if (channel.state != CHANNEL_STATE::CONNECTED) return false;
    const std::string id = freshId(channel, OPEN_ID);
    channel.opening.emplace(id, stream);
    askForLife(channel);
    sendControl(channel, MESSAGE_NEW_SESSION, id, {}, buildNewSession(service));
    return true;
}

void requestAccountCheck(DEVICE_CHANNEL_T &channel, const std::string &user,
                         const std::string &password, AccountCallback answered)
{
    if (channel.state != CHANNEL_STATE::CONNECTED || channel.accounts.size() >= ACCOUNTS_MAX) {
        return answered({false, 0, "the device cannot be asked now"});
    }
    std::optional<std::string> payload = buildVerifyAccount(user, password);
    if (!payload)
        return answered({false, 0, "name and password must have 1 to 255 bytes and no quote"});
    const std::string id = freshId(channel, ACCOUNT_ID);
    auto timer = std::make_unique<asio::steady_timer>(channel.io, channel.limits.account_time);
    timer->async_wait([self = channel.weak_from_this(), id](const error_code &error) {
        const ChannelPtr held = self.lock();
        if (error || !held) return;
        const auto found = held->accounts.extract(id);
        if (!found.empty()) found.mapped().answered({false, 0, "the device did not answer"});
    });
    askForLife(channel);
    channel.accounts.emplace(id, ACCOUNT_REQUEST_T{std::move(answered), std::move(timer)});
    sendControl(channel, MESSAGE_VERIFY_ACCOUNT, id, {}, *payload, true);
    explicit_bzero(payload->data(), payload->size());
}

} // namespace backend
