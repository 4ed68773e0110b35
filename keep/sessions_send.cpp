// What goes to the carriers: which session sends next, and how much.
#include "keep/sessions.h"

#include "keep/crc32c.h"

#include <algorithm>
#include <array>

namespace keep {

namespace {

constexpr std::size_t SPARSE_MAX = 512; // a keystroke that need not wait for room
constexpr std::size_t MARKS_MAX = 256;
constexpr std::uint64_t ACK_AT_ONCE = std::uint64_t{128} * 1024;

bool hasSomething(const KEPT_SESSION_T &session)
{
    if (session.is_silent) return false; // more would wait with the rest
    return sendable(session.stream) > 0 || isEndDue(session.stream);
}

} // namespace

// Bytes that may be sent now; 0 for none. Room for a part of a piece is no room: many small frames
// would cost more than they bring.
std::size_t KeptSessions::allowed(KEPT_SESSION_T &session, bool is_fresh)
{
    const std::size_t wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(sendable(session.stream), PIECE_MAX));
    if (wanted == 0) return 1; // the end alone
    if (is_fresh && wanted <= SPARSE_MAX) return wanted;
    const std::size_t own = session.pace.room(now_);
    const std::size_t all = pace_.room(now_);
    if (own < std::min(wanted, session.pace.piece(now_))) {
        session.pace.isShort();
        return 0;
    }
    if (all < std::min(wanted, pace_.piece(now_))) {
        pace_.isShort();
        return 0;
    }
    if (own < wanted) session.pace.isShort();
    if (all < wanted) pace_.isShort();
    return std::min({wanted, own, all});
}

// False when it could not send.
bool KeptSessions::sendTurn(KEPT_SESSION_T &session)
{
    if (isBlocked(session.carrier)) return false;
    std::size_t most = allowed(session, queue_.isFrontFresh());
    if (most == 0) return false;
    most = std::min(most, static_cast<std::size_t>(session.flow.deficit));
    queue_.charge(std::max<std::size_t>(sendSome(session, most), 1));
    return true;
}

void KeptSessions::sendAll()
{
    for (const auto &session : sessions_)
        if (session->state == KEPT_STATE::RUNNING && hasSomething(*session))
            queue_.add(*session, pace_.piece(now_));
    std::size_t skipped = 0;
    while (skipped < queue_.size()) {
        KEPT_SESSION_T *const session = queue_.front(pace_.piece(now_));
        if (session == nullptr) return;
        if (session->state != KEPT_STATE::RUNNING) {
            queue_.leave(*session);
        } else if (!hasSomething(*session)) {
            queue_.rest();
        } else if (sendTurn(*session)) {
            skipped = 0;
        } else {
            queue_.skip();
            ++skipped;
        }
    }
}

// How many bytes have gone. The carrier may be gone afterwards.
std::size_t KeptSessions::sendSome(KEPT_SESSION_T &session, std::size_t most)
{
    KEPT_STREAM_T &stream = session.stream;
    std::array<FRAME_BYTES_T, FRAMES_MAX> frames;
    std::size_t count = 0;
    std::size_t bytes = 0;
    while (count + 1 < frames.size() && bytes < most && sendable(stream) > 0) {
        FRAME_BYTES_T &next = frames[count++];
        next.header =
            buildHeader(makeData(stream, std::min(most - bytes, PAYLOAD_MAX), next.payload));
        bytes += next.payload.size();
    }
    if (isEndDue(stream)) frames[count++] = {buildHeader(makeEnd(stream)), {}};
    session.ack_due.reset();
    session.pace.sent(bytes);
    session.shared += bytes;
    pace_.sent(bytes);
    if (session.marks.size() < MARKS_MAX) session.marks.push_back({stream.sent, now_});
    if (!sendFrames(session.carrier, std::span(frames).first(count))) giveUp(session, "it broke");
    return bytes;
}

void KeptSessions::sendOne(KEPT_SESSION_T &session, FRAME kind,
                           std::span<const std::uint8_t> payload, std::uint8_t flags)
{
    FRAME_T frame = makeFrame(session.stream, kind);
    frame.flags = flags;
    frame.size = static_cast<std::uint16_t>(payload.size());
    frame.payload_crc = payload.empty() ? 0 : crc32c(payload);
    const FRAME_BYTES_T bytes{buildHeader(frame), payload};
    session.ack_due.reset();
    // A carrier that is gone shows in its next reading.
    (void)sendFrames(session.carrier, {&bytes, 1});
}

void KeptSessions::sendAcknowledgements()
{
    for (const auto &session : sessions_) {
        if (session->state != KEPT_STATE::RUNNING || isBlocked(session->carrier)) continue;
        const KEPT_STREAM_T &stream = session->stream;
        const std::uint64_t untold = received(stream) - stream.told;
        const bool is_much = untold >= std::min<std::uint64_t>(stream.window / 4, ACK_AT_ONCE);
        const bool is_due = session->ack_due && *session->ack_due <= now_;
        const bool is_wider = untoldWindow(stream) >= stream.window / 2;
        if (is_much || is_due || is_wider) sendOne(*session, FRAME::ACK);
    }
}

void KeptSessions::ask(KEPT_SESSION_T &session)
{
    if (!isBlocked(session.carrier)) sendOne(session, FRAME::ACK, {}, ANSWER_WANTED);
    session.ask_at = now_ + clockTime(session.ask_wait);
    session.ask_wait = std::min(session.ask_wait * 2, times_.ask_most);
}

// A carrier that drops the last message that there is leaves no gap to be seen: whoever waits for
// something asks, and the other end sees by the offset that it has missed something.
void KeptSessions::askForAnswers()
{
    for (const auto &session : sessions_) {
        if (session->state != KEPT_STATE::RUNNING || !isWaiting(session->stream)) {
            session->asked_since.reset();
            continue;
        }
        if (!session->asked_since) {
            session->asked_since = now_;
            session->ask_wait = std::max(times_.ask_least, session->base.getOr(Seconds(0)) * 4);
            session->ask_at = now_ + clockTime(session->ask_wait);
        } else if (now_ >= session->ask_at) {
            // Others on the same line need not wait for what may never arrive.
            session->is_silent = session->pace.underWay() > 0;
            leaveShare(*session);
            ask(*session);
        }
        if (now_ - std::max(session->heard, *session->asked_since) >= times_.deaf)
            giveUp(*session, "nothing is heard of the other end");
    }
}

} // namespace keep
