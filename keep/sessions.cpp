#include "keep/sessions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace keep {

constexpr std::size_t READ_AHEAD = INITIAL_WINDOW; // of what has not been sent
constexpr auto TRIM_TIME = std::chrono::seconds(1);
constexpr auto WIDE_TIME = std::chrono::seconds(10); // that a wide window stays without bytes

KeptSessions::KeptSessions(std::size_t budget, const KEPT_TIMES_T &times)
    : budget_{budget}, times_{times}
{
}

KEPT_SESSION_T &KeptSessions::add(SIDE side, const SessionKey &key, UniqueFd local,
                                  KEPT_EVENTS_T events)
{
    auto session = std::make_unique<KEPT_SESSION_T>();
    session->side = side;
    session->key = key;
    session->local = std::move(local);
    session->events = std::move(events);
    session->since = Clock::now();
    sessions_.push_back(std::move(session));
    return *sessions_.back();
}

KEPT_SESSION_T *KeptSessions::find(const SessionKey &key)
{
    for (const auto &session : sessions_)
        if (session->key == key) return session.get();
    return nullptr;
}

void KeptSessions::attach(KEPT_SESSION_T &session, UniqueFd carrier,
                          std::span<const std::uint8_t> bytes)
{
    now_ = Clock::now();
    if (session.carrier.fd) giveUp(session, nullptr);
    session.carrier.fd = std::move(carrier);
    session.state = KEPT_STATE::GREETING;
    session.since = now_;
    if (session.side == SIDE::KEEPER) return takeBytes(session, bytes);
    const std::array<std::uint8_t, 1> version{PROTOCOL_VERSION};
    sendOne(session, FRAME::HELLO, version);
}

// ---- ends

// What is under way on it is nobody else's concern any more.
void KeptSessions::leaveShare(KEPT_SESSION_T &session)
{
    pace_.lost(session.shared);
    session.shared = 0;
}

// why: null when another carrier takes its place.
void KeptSessions::giveUp(KEPT_SESSION_T &session, const char *why)
{
    queue_.leave(session);
    leaveShare(session);
    session.pace.lost(session.pace.underWay());
    session.is_silent = false;
    session.marks.clear();
    session.ack_due.reset();
    session.asked_since.reset();
    session.carrier = {};
    loseCarrier(session.stream);
    session.state = KEPT_STATE::AWAY;
    session.since = now_;
    // The operator's end has everything; only that it is done has not come.
    if (why != nullptr && session.side == SIDE::KEEPER && isWhole(session.stream))
        return close(session, KEPT_END::WHOLE, BOTH_DONE);
    if (why != nullptr && session.events.lost) session.events.lost(session, why);
}

void KeptSessions::closeCarrier(KEPT_SESSION_T &session)
{
    session.carrier = {};
    session.state = KEPT_STATE::OVER;
}

// The local connection ends as the session does.
void KeptSessions::close(KEPT_SESSION_T &session, KEPT_END how, const std::string &reason)
{
    if (session.state == KEPT_STATE::CLOSING || session.state == KEPT_STATE::OVER) return;
    queue_.leave(session);
    leaveShare(session);
    session.pace.lost(session.pace.underWay());
    session.stream.outgoing.dropTo(session.stream.outgoing.end());
    session.stream.incoming.dropTo(session.stream.incoming.end());
    session.end = how;
    session.reason = reason;
    session.since = now_;
    session.state = session.carrier.fd ? KEPT_STATE::CLOSING : KEPT_STATE::OVER;
    if (how != KEPT_END::WHOLE) {
        const linger reset{1, 0};
        (void)::setsockopt(session.local.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }
    session.local.reset();
    if (session.events.over) session.events.over(session);
}

void KeptSessions::end(KEPT_SESSION_T &session, KEPT_END how, const std::string &reason)
{
    now_ = Clock::now();
    if (session.state == KEPT_STATE::RUNNING) {
        const auto *const text = reinterpret_cast<const std::uint8_t *>(reason.data());
        sendOne(session, FRAME::RESET, {text, std::min(reason.size(), std::size_t{255})});
    }
    close(session, how, reason);
}

void KeptSessions::finishIfWhole(KEPT_SESSION_T &session)
{
    if (session.side == SIDE::KEEPER || session.state != KEPT_STATE::RUNNING ||
        !isWhole(session.stream) || !session.is_local_done)
        return;
    sendOne(session, FRAME::DONE);
    close(session, KEPT_END::WHOLE, BOTH_DONE);
}

// ---- the local connection

// A service that has ended its own stream may be gone: what comes for it then is for nobody, as on
// any connection that its owner has closed, and the other end still has to get what it has sent.
// Nobody else goes on without a local connection.
void KeptSessions::localBroke(KEPT_SESSION_T &session, int error)
{
    const bool is_keeper = session.side == SIDE::KEEPER;
    if (!is_keeper || !session.is_local_read || session.stream.is_end_taken)
        return end(session, KEPT_END::BROKEN,
                   std::string(is_keeper ? "the service's" : "the client's") +
                       " connection broke: " + std::strerror(error));
    session.is_local_done = true;
    session.stream.incoming.dropTo(session.stream.incoming.end());
    if (session.stream.has_peer_end) flushLocal(session);
}

static std::size_t beyondKept(std::size_t capacity)
{
    return capacity > KEPT_CAPACITY ? capacity - KEPT_CAPACITY : 0;
}

// How much may be read from it now.
std::size_t KeptSessions::localRoom(const KEPT_SESSION_T &session) const
{
    const ByteStore &outgoing = session.stream.outgoing;
    const std::uint64_t waiting = unsent(session.stream);
    if (session.is_local_read || !session.local || waiting >= READ_AHEAD) return 0;
    const std::size_t wanted = READ_AHEAD - static_cast<std::size_t>(waiting);
    const std::size_t grown = beyondKept(outgoing.capacityFor(wanted));
    if (stored_ + grown - beyondKept(outgoing.capacity()) <= budget_) return wanted;
    const std::size_t held = std::max(outgoing.capacity(), KEPT_CAPACITY);
    return std::min(wanted, held - outgoing.size());
}

void KeptSessions::readLocal(KEPT_SESSION_T &session)
{
    const std::size_t wanted = localRoom(session);
    if (wanted == 0) return;
    ByteStore &outgoing = session.stream.outgoing;
    stored_ -= beyondKept(outgoing.capacity());
    const auto room = outgoing.room(wanted);
    stored_ += beyondKept(outgoing.capacity());
    ssize_t count = -1;
    do
        count = ::recv(session.local.get(), room.data(), room.size(), MSG_DONTWAIT);
    while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN) return;
    if (count < 0) return localBroke(session, errno);
    session.last_data = now_;
    outgoing.added(static_cast<std::size_t>(count));
    if (count > 0) return;
    session.is_local_read = true;
    session.stream.has_end = true;
}

void KeptSessions::flushLocal(KEPT_SESSION_T &session)
{
    ByteStore &incoming = session.stream.incoming;
    while (incoming.size() > 0) {
        const auto bytes = incoming.piece(incoming.begin(), incoming.size());
        const ssize_t count =
            ::send(session.local.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && (errno == EAGAIN || errno == ENOBUFS)) return;
        if (count < 0) return localBroke(session, errno);
        incoming.dropTo(incoming.begin() + static_cast<std::uint64_t>(count));
    }
    if (!session.stream.has_peer_end || session.stream.is_peer_end_passed) return;
    if (!session.is_local_done) (void)::shutdown(session.local.get(), SHUT_WR);
    session.is_local_done = true;
    session.stream.is_peer_end_passed = true;
    session.ack_due = now_;
    finishIfWhole(session);
}

// ---- the loop

void KeptSessions::watch(KEPT_SESSION_T &session)
{
    const auto add = [&](int fd, int events, bool is_carrier) {
        if (fd < 0 || events == 0) return; // poll(2) would report its end again and again
        polled_.push_back({fd, static_cast<short>(events), 0});
        watched_.push_back({&session, is_carrier});
    };
    const bool has_bytes = session.stream.incoming.size() > 0;
    add(session.carrier.fd.get(), POLLIN | (isBlocked(session.carrier) ? POLLOUT : 0), true);
    add(session.local.get(), (localRoom(session) > 0 ? POLLIN : 0) | (has_bytes ? POLLOUT : 0),
        false);
}

// In whole milliseconds, upwards: a wait that ends too early would be repeated many times.
static std::chrono::milliseconds until(Time then, Time now)
{
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(then - now),
                    std::chrono::milliseconds(0));
}

std::chrono::milliseconds KeptSessions::waitTime(Time now, std::chrono::milliseconds most) const
{
    if (const auto wake = pace_.wakeUp(now)) most = std::min(most, until(*wake, now));
    for (const auto &session : sessions_) {
        if (const auto wake = session->pace.wakeUp(now)) most = std::min(most, until(*wake, now));
        if (session->asked_since) most = std::min(most, until(session->ask_at, now));
        // What a full socket keeps back goes when there is room, which poll(2) tells.
        if (session->ack_due && !isBlocked(session->carrier))
            most = std::min(most, until(*session->ack_due, now));
        if (session->state == KEPT_STATE::GREETING)
            most = std::min(most, until(session->since + clockTime(times_.greeting), now));
        if (session->state == KEPT_STATE::CLOSING)
            most = std::min(most, until(session->since + clockTime(times_.closing), now));
    }
    return most;
}

void KeptSessions::serve(const WATCH_T &watched, short events)
{
    KEPT_SESSION_T &session = *watched.session;
    try {
        if (!watched.is_carrier) {
            if (!session.local) return;
            if ((events & POLLOUT) != 0) flushLocal(session);
            if (session.local && (events & ~POLLOUT) != 0) readLocal(session);
            return;
        }
        if ((events & POLLOUT) != 0 && !sendPending(session.carrier))
            return session.state == KEPT_STATE::CLOSING ? closeCarrier(session)
                                                        : giveUp(session, "it broke");
        if (session.carrier.fd && (events & ~POLLOUT) != 0) readFrames(session);
    } catch (const std::bad_alloc &) {
        close(session, KEPT_END::GIVEN_UP, "no memory");
    }
}

void KeptSessions::pass(std::span<pollfd> others, std::chrono::milliseconds most)
{
    polled_.assign(others.begin(), others.end());
    watched_.clear();
    stored_ = widened_ = 0;
    for (const auto &session : sessions_) {
        stored_ += beyondKept(session->stream.outgoing.capacity());
        widened_ += session->stream.window - INITIAL_WINDOW;
    }
    for (const auto &session : sessions_)
        watch(*session);
    const int wait = static_cast<int>(waitTime(Clock::now(), most).count());
    if (::poll(polled_.data(), polled_.size(), wait) < 0)
        for (pollfd &polled : polled_)
            polled.revents = 0; // interrupted
    now_ = Clock::now();
    std::copy_n(polled_.begin(), others.size(), others.begin());
    for (std::size_t index = 0; index < watched_.size(); ++index) {
        const pollfd &polled = polled_[others.size() + index];
        if (polled.revents != 0) serve(watched_[index], polled.revents);
    }
    sendAll();
    sendAcknowledgements();
    askForAnswers();
    for (const auto &session : sessions_)
        lookAtTimes(*session);
}

void KeptSessions::lookAtTimes(KEPT_SESSION_T &session)
{
    if (session.state == KEPT_STATE::GREETING && now_ - session.since >= times_.greeting)
        giveUp(session, "the other end does not answer");
    const auto idle = now_ - session.last_data;
    if (idle >= WIDE_TIME) session.stream.window = INITIAL_WINDOW;
    if (idle >= TRIM_TIME) {
        session.stream.outgoing.trim();
        session.stream.incoming.trim();
    }
    if (session.state != KEPT_STATE::CLOSING) return;
    if (!session.is_shut && !isBlocked(session.carrier)) {
        (void)::shutdown(session.carrier.fd.get(), SHUT_WR);
        session.is_shut = true;
    }
    if (now_ - session.since >= times_.closing) closeCarrier(session);
}

} // namespace keep
