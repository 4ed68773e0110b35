#include "backend/sessions/session.h"

#include "backend/devices/device_channel.h"
#include "backend/limits.h"
#include "backend/observe/audit.h"
#include "backend/observe/events.h"
#include "backend/observe/log.h"
#include "backend/sessions/session_table.h"

#include <algorithm>
#include <optional>

#include <boost/asio/error.hpp>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;

constexpr std::size_t KEPT_STORAGE = std::size_t{64} * 1024; // of an empty buffer
constexpr std::size_t WRITE_PIECE = std::size_t{128} * 1024; // so that progress shows
// A device waits 2 s by default for a message to leave, and pauses add up in what is queued before
// one: they are a small part of that.
constexpr std::chrono::milliseconds PACE_MIN{50};
constexpr std::chrono::milliseconds PACE_MAX{350};
constexpr std::chrono::seconds PACE_PROGRESS{1};

SESSION_T::SESSION_T(std::shared_ptr<SESSION_TABLE_T> of, CLIENT_T from, DEVICE_CHANNEL_T &on,
                     SERVICE_T wanted)
    : table(std::move(of)), channel(&on), limits(on.limits), origin(std::move(from)),
      client(std::move(origin.stream)), timer(on.io), service(std::move(wanted)), device(on.device),
      asked_at(std::time(nullptr))
{
    label = device.device_name + "/" + service.name + " for " + origin.who + ", " + origin.from;
}

static std::size_t bufferedBytes(const SESSION_T &session)
{
    return session.filling.size() + session.writing.size() - session.written;
}

static void recordEnd(const SESSION_T &session)
{
    auditSessionEnd(session.number, {session.bytes_up, session.bytes_down, session.is_whole,
                                     session.end_reason, session.token, session.is_final});
}

// The end of the back end takes sessions along that still flush: they have their line, too.
SESSION_T::~SESSION_T()
{
    table->backlog -= counted;
    table->sessions.erase(number);
    if (state == SESSION_STATE::CLOSED) return;
    if (end_reason.empty()) end_reason = "the back end ends";
    is_whole = state == SESSION_STATE::FLUSHING && bufferedBytes(*this) == 0;
    recordEnd(*this);
}

static void noteReason(SESSION_T &session, const std::string &reason)
{
    if (session.end_reason.empty()) session.end_reason = reason;
}

static void leaveChannel(SESSION_T &session, bool tell_device)
{
    DEVICE_CHANNEL_T *const channel = std::exchange(session.channel, nullptr);
    if (channel != nullptr) takeOffChannel(*channel, session, session.token, tell_device);
}

static void publishSession(const SESSION_T &session, EVENT kind)
{
    publish({kind, session.device, session.service.name, session.number, session.origin.who,
             session.end_reason});
}

// The one way into CLOSED. is_whole: the device has ended the session and the client got everything
// that came from it; only then the client's end is known to be right. is_orderly: the client gets
// an end of file, else a reset.
static void finishSession(const SessionPtr &session, bool is_whole, bool is_orderly)
{
    session->state = SESSION_STATE::CLOSED;
    session->is_whole = is_whole;
    session->timer.cancel();
    session->longest.reset();
    session->table->backlog -= std::exchange(session->counted, 0);
    session->client->close({session->end_reason.c_str(), is_whole, session->bytes_up,
                            session->bytes_down, session->is_final},
                           is_orderly);
    leaveChannel(*session, false);
    recordEnd(*session);
    const auto ended = std::exchange(session->origin.ended, nullptr);
    if (ended) ended(*session);
    if (!session->token.empty()) publishSession(*session, EVENT::SESSION_ENDED);
}

void SESSION_T::cut(const std::string &reason)
{
    if (state == SESSION_STATE::CLOSED) return;
    if (state == SESSION_STATE::OPENING)
        logWarning("session %s: %s", label.c_str(), reason.c_str());
    noteReason(*this, reason);
    finishSession(shared_from_this(), false, false);
}

void endSession(const SessionPtr &session, const std::string &reason, bool is_orderly)
{
    if (session->state == SESSION_STATE::CLOSED) return;
    noteReason(*session, reason);
    logInfo("session %s (%s) ended: %s", session->number.c_str(), session->label.c_str(),
            reason.c_str());
    leaveChannel(*session, true);
    finishSession(session, false, is_orderly);
}

void endForGood(const SessionPtr &session, const std::string &reason)
{
    if (session->state == SESSION_STATE::CLOSED) return;
    session->is_final = session->origin.kept.has_value();
    endSession(session, reason, false);
}

static void armSessionTimer(const SessionPtr &session);

// A device may be busy with the requests before this one, but then it answers those.
static void answerIsLate(const SessionPtr &session)
{
    DEVICE_CHANNEL_T &channel = *session->channel;
    askForLife(channel); // and have it watched
    if (silenceOf(channel) >= session->limits.answering_time) {
        const auto silence = std::chrono::duration_cast<std::chrono::seconds>(silenceOf(channel));
        return endSession(session,
                          session->device.device_name + " is not answering (last heard " +
                              std::to_string(silence.count()) + " s ago)",
                          false);
    }
    if (std::chrono::steady_clock::now() - session->requested >= session->limits.open_time)
        return endSession(session, "the device did not answer", false);
    armSessionTimer(session);
}

static void sessionTimedOut(const SessionPtr &session)
{
    switch (session->state) {
    case SESSION_STATE::OPENING:
        return answerIsLate(session);
    case SESSION_STATE::LINGERING:
        if (bufferedBytes(*session) > 0)
            return endSession(session, "the client does not read", false);
        return endSession(session, "the client is done and the device sends nothing", true);
    case SESSION_STATE::FLUSHING:
        return finishSession(session, bufferedBytes(*session) == 0, bufferedBytes(*session) == 0);
    case SESSION_STATE::RECORDING:
    case SESSION_STATE::OPEN:
    case SESSION_STATE::CLOSED:
        return;
    }
}

static std::optional<std::chrono::milliseconds> waitOf(const SESSION_T &session)
{
    const bool is_empty = bufferedBytes(session) == 0;
    switch (session.state) {
    case SESSION_STATE::OPENING:
        return std::min(session.limits.open_time, session.limits.answering_time);
    case SESSION_STATE::LINGERING:
        return is_empty ? session.limits.linger_time : session.limits.stall_time;
    case SESSION_STATE::FLUSHING:
        return is_empty ? session.limits.drain_time : session.limits.stall_time;
    case SESSION_STATE::RECORDING:
    case SESSION_STATE::OPEN:
    case SESSION_STATE::CLOSED:
        return std::nullopt;
    }
    return std::nullopt;
}

static void armSessionTimer(const SessionPtr &session)
{
    const std::optional<std::chrono::milliseconds> wait = waitOf(*session);
    session->timer.cancel();
    if (!wait) return;
    session->timer.expires_after(*wait);
    session->timer.async_wait([session](const error_code &error) {
        // A wait that had run out before it was restarted or given up still reports success.
        if (error || !waitOf(*session) ||
            session->timer.expiry() > std::chrono::steady_clock::now())
            return;
        sessionTimedOut(session);
    });
}

// Everything is with the client: after the device's release it gets its end of file.
static void clientIsFlushed(const SessionPtr &session)
{
    if (session->state == SESSION_STATE::LINGERING) return armSessionTimer(session);
    if (session->state != SESSION_STATE::FLUSHING) return;
    if (session->client_ended || session->client->endSending() == END_WAIT::NOTHING)
        return finishSession(session, true, true);
    armSessionTimer(session);
}

static void writeClient(const SessionPtr &session);

static std::size_t paceStart(const SESSION_T &session)
{
    return session.limits.session_buffer / 4;
}

// A client that takes bytes more slowly than its device sends them would be cut off in the end.
// The protocol cannot slow one session, so the whole channel waits a little, the longer the more
// there is. Other sessions must not pay for a client that has stopped.
static void paceChannel(SESSION_T &session)
{
    const std::size_t start = paceStart(session);
    const auto quiet = std::chrono::steady_clock::now() - session.progress_at;
    if (session.channel == nullptr || session.counted <= start || quiet > PACE_PROGRESS) return;
    const double part = 2 * static_cast<double>(session.counted - start) /
                        static_cast<double>(session.limits.session_buffer);
    const std::chrono::duration<double, std::milli> pause =
        PACE_MIN + (PACE_MAX - PACE_MIN) * std::min(part, 1.0);
    session.is_pacing = true;
    pauseReading(*session.channel, std::chrono::ceil<std::chrono::milliseconds>(pause));
}

static void noteProgress(SESSION_T &session)
{
    session.progress_at = std::chrono::steady_clock::now();
    if (!session.is_pacing || session.counted > paceStart(session)) return;
    session.is_pacing = false; // another one's pause is none of its business
    if (session.channel != nullptr) resumeReading(*session.channel);
}

static void clientWritten(const SessionPtr &session, const error_code &error, std::size_t count)
{
    session->write_active = false;
    if (session->state == SESSION_STATE::CLOSED) return;
    if (error) return endSession(session, session->client->lossReason(), false);
    session->written += count;
    noteBacklog(*session->table, *session);
    if (session->state == SESSION_STATE::CLOSED) return;
    if (count > 0) noteProgress(*session);
    if (session->state != SESSION_STATE::OPEN) armSessionTimer(session);
    writeClient(session);
}

static void writeClient(const SessionPtr &session)
{
    if (session->write_active) return;
    if (session->written == session->writing.size()) {
        session->writing.clear();
        if (session->writing.capacity() > KEPT_STORAGE) session->writing.shrink_to_fit();
        session->written = 0;
        session->writing.swap(session->filling);
    }
    if (session->writing.empty()) return clientIsFlushed(session);
    session->write_active = true;
    const std::size_t left = session->writing.size() - session->written;
    session->client->asyncWrite(
        std::span(session->writing).subspan(session->written, std::min(left, WRITE_PIECE)),
        [session](const error_code &error, std::size_t count) {
            clientWritten(session, error, count);
        });
}

// What the client takes at once need not be kept. False when that ended the session.
static bool writeAtOnce(const SessionPtr &session, std::span<const std::uint8_t> &bytes)
{
    if (session->write_active || bufferedBytes(*session) > 0) return true;
    error_code error;
    const std::size_t count = session->client->writeSome(bytes, error);
    bytes = bytes.subspan(count);
    if (count > 0) session->progress_at = std::chrono::steady_clock::now();
    if (!error || error == asio::error::would_block) return true;
    endSession(session, session->client->lossReason(), false);
    return false;
}

void SESSION_T::received(std::span<const std::uint8_t> bytes)
{
    if (bytes.empty()) return;
    const SessionPtr self = shared_from_this();
    bytes_up += bytes.size();
    if (!writeAtOnce(self, bytes)) return;
    filling.insert(filling.end(), bytes.begin(), bytes.end());
    noteBacklog(*table, *this);
    if (state == SESSION_STATE::CLOSED) return;
    if (state == SESSION_STATE::LINGERING) armSessionTimer(self);
    writeClient(self);
    paceChannel(*this);
}

static void clientEnded(const SessionPtr &session)
{
    session->client_ended = true;
    if (session->state == SESSION_STATE::OPEN) {
        session->state = SESSION_STATE::LINGERING;
        session->lingering_since = std::chrono::steady_clock::now();
        armSessionTimer(session);
    } else if (session->state == SESSION_STATE::FLUSHING && bufferedBytes(*session) == 0) {
        finishSession(session, true, true);
    }
}

static void readClient(const SessionPtr &session);

static void clientRead(const SessionPtr &session, const error_code &error, std::size_t count)
{
    session->read_active = false;
    session->is_flowing = count == DATA_MAX;
    if (session->state == SESSION_STATE::CLOSED) return;
    if (error == asio::error::eof) return clientEnded(session);
    if (error) return endSession(session, session->client->lossReason(), false);
    if (session->state == SESSION_STATE::OPEN) {
        session->message->payload_size = count;
        session->bytes_down += count;
        sendStreamData(*session->channel, session->token, std::move(session->message));
    }
    readClient(session);
}

static void readClient(const SessionPtr &session)
{
    const bool is_open = session->state == SESSION_STATE::OPEN;
    // A released session is still read, so that its client can reach its own end, but its
    // bytes are dropped.
    if (session->read_active || session->client_ended) return;
    if (!is_open && session->state != SESSION_STATE::FLUSHING) return;
    if (is_open && !hasDataRoom(session->channel->outgoing))
        return waitForDataRoom(session->channel->outgoing, session);
    if (!session->message) session->message = takeDataMessage(DATA_MAX);
    session->read_active = true;
    const std::span storage(session->message->payload.data(), DATA_MAX);
    if (is_open && session->is_flowing) {
        error_code error;
        const std::size_t count = session->client->readSome(storage, error);
        if (error != asio::error::would_block) return clientRead(session, error, count);
    }
    session->client->asyncRead(storage, [session](const error_code &error, std::size_t count) {
        clientRead(session, error, count);
    });
}

void SESSION_T::roomIsBack()
{
    readClient(shared_from_this());
}

void openSession(const SessionPtr &session)
{
    if (session->state != SESSION_STATE::RECORDING) return; // lost with its channel
    if (!makeRoomForStream(*session->channel))
        return session->cut("refused: too many clients of this device");
    session->state = SESSION_STATE::OPENING;
    session->requested = std::chrono::steady_clock::now();
    const auto &kept = session->origin.kept;
    if (!requestStream(*session->channel, session, kept ? kept->keeper : session->service))
        return session->cut("the device disconnected");
    if (session->state == SESSION_STATE::OPENING) armSessionTimer(session);
}

// From now on, whatever goes over it.
static void limitSession(const SessionPtr &session)
{
    if (!session->origin.max_session) return;
    session->longest.emplace(session->timer.get_executor(), *session->origin.max_session);
    session->longest->async_wait(
        [weak = std::weak_ptr<SESSION_T>(session)](const error_code &stopped) {
            const SessionPtr over = weak.lock();
            if (!stopped && over)
                endForGood(over, "the longest session that a grant allows is over");
        });
}

void SESSION_T::opened(const std::string &given)
{
    token = given;
    state = SESSION_STATE::OPEN;
    // Nothing of the client has been read yet, so nothing of it can come before.
    if (origin.kept) sendStreamData(*channel, token, openingMessage(origin.kept->opening));
    const SessionPtr self = shared_from_this();
    armSessionTimer(self);
    limitSession(self);
    logInfo("session %s opened: %s", number.c_str(), label.c_str());
    if (origin.opened) origin.opened(*this);
    publishSession(*this, EVENT::SESSION_BEGUN);
    readClient(self);
}

void SESSION_T::released()
{
    logInfo("session %s (%s) released by the device", number.c_str(), label.c_str());
    const SessionPtr self = shared_from_this();
    noteReason(*this, "the service closed");
    leaveChannel(*this, false);
    state = SESSION_STATE::FLUSHING;
    armSessionTimer(self);
    writeClient(self);
    if (state == SESSION_STATE::FLUSHING) readClient(self);
}

std::optional<std::chrono::steady_clock::time_point> SESSION_T::idleSince() const
{
    if (state != SESSION_STATE::LINGERING) return std::nullopt;
    return lingering_since;
}

void SESSION_T::giveUp()
{
    logInfo("session %s (%s) makes room: its client is done", number.c_str(), label.c_str());
    leaveChannel(*this, true);
    cut("made room: its client was done");
}

} // namespace backend
