// What comes over a carrier, and goes to the local connection.
#include "keep/sessions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>

namespace keep {

namespace {

constexpr auto ACK_DELAY = std::chrono::milliseconds(10);
constexpr std::uint32_t WINDOW_MAX = std::uint32_t{4} << 20;
constexpr std::size_t PARTS_MAX = 64;

constexpr char DAMAGED[] = "it lost bytes";
constexpr char UNEXPECTED[] = "the other end sent what it must not";

std::string textOf(std::span<const std::uint8_t> bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

std::size_t fill(std::span<iovec> parts, std::span<const std::span<const std::uint8_t>> pieces,
                 std::size_t skip)
{
    std::size_t count = 0;
    for (const auto &piece : pieces) {
        const std::size_t skipped = std::min(skip, piece.size());
        skip -= skipped;
        if (skipped == piece.size()) continue;
        if (count == parts.size()) break;
        // sendmsg(2) does not write to it.
        parts[count++] = {const_cast<std::uint8_t *>(piece.data()) + skipped,
                          piece.size() - skipped};
    }
    return count;
}

// How much of the pieces the socket takes; the error is in errno when that is not all.
std::size_t sendPieces(int fd, std::span<const std::span<const std::uint8_t>> pieces)
{
    std::size_t sent = 0;
    for (;;) {
        std::array<iovec, PARTS_MAX> parts;
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = fill(parts, pieces, sent);
        if (message.msg_iovlen == 0) return sent;
        const ssize_t count = ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return sent;
        sent += static_cast<std::size_t>(count);
    }
}

} // namespace

void KeptSessions::readFrames(KEPT_SESSION_T &session)
{
    buffer_.resize(READ_SIZE);
    const READING_T reading = readCarrier(session.carrier, buffer_);
    if (session.state == KEPT_STATE::CLOSING) {
        if (reading.fault != nullptr) closeCarrier(session);
        return;
    }
    if (reading.fault != nullptr) return giveUp(session, reading.fault);
    takeBytes(session, reading.bytes);
}

void KeptSessions::takeBytes(KEPT_SESSION_T &session, std::span<const std::uint8_t> bytes)
{
    delivery_.clear();
    const char *const fault = takeFrames(session, bytes);
    if (session.local) deliver(session);
    if (session.state == KEPT_STATE::CLOSING || session.state == KEPT_STATE::OVER) return;
    if (fault != nullptr) return giveUp(session, fault);
    keepPartial(session.carrier, bytes);
    finishIfWhole(session);
}

const char *KeptSessions::takeFrames(KEPT_SESSION_T &session, std::span<const std::uint8_t> &bytes)
{
    for (;;) {
        FRAME_T frame;
        std::span<const std::uint8_t> payload;
        const TAKEN taken = takeFrame(bytes, frame, payload);
        if (taken == TAKEN::NONE) return nullptr;
        if (taken == TAKEN::DAMAGED) return DAMAGED;
        const char *const fault = takeOne(session, frame, payload);
        if (fault != nullptr || session.state == KEPT_STATE::CLOSING) return fault;
    }
}

const char *KeptSessions::takeOne(KEPT_SESSION_T &session, const FRAME_T &frame,
                                  std::span<const std::uint8_t> payload)
{
    if (session.state == KEPT_STATE::GREETING) return greet(session, frame, payload);
    if (!isNext(session.stream, frame)) return DAMAGED;
    if (!acknowledge(session, frame)) return UNEXPECTED;
    return takeKind(session, frame, payload);
}

const char *KeptSessions::greet(KEPT_SESSION_T &session, const FRAME_T &frame,
                                std::span<const std::uint8_t> payload)
{
    const bool is_keeper = session.side == SIDE::KEEPER;
    if (!is_keeper && frame.kind == FRAME::REFUSED && !payload.empty()) {
        session.refusal = static_cast<REFUSAL>(payload[0]);
        const bool is_whole =
            session.refusal == REFUSAL::WHOLE && session.stream.is_peer_end_passed;
        close(session, is_whole ? KEPT_END::WHOLE : KEPT_END::REFUSED, textOf(payload.subspan(1)));
        return nullptr;
    }
    if (frame.kind != (is_keeper ? FRAME::HELLO : FRAME::WELCOME) || payload.empty())
        return UNEXPECTED;
    if (!resumeStream(session.stream, frame)) return UNEXPECTED;
    session.was_greeted = true;
    session.carrier.is_greeted = true;
    session.state = KEPT_STATE::RUNNING;
    session.since = session.heard = now_;
    const std::array<std::uint8_t, 1> version{PROTOCOL_VERSION};
    if (is_keeper) sendOne(session, FRAME::WELCOME, version);
    if (session.events.greeted) session.events.greeted(session);
    return nullptr;
}

bool KeptSessions::acknowledge(KEPT_SESSION_T &session, const FRAME_T &frame)
{
    KEPT_STREAM_T &stream = session.stream;
    const std::uint64_t before = stream.outgoing.begin();
    const std::uint64_t limit = stream.limit;
    if (!takeAcknowledgement(stream, frame)) return false;
    session.heard = now_;
    if (stream.outgoing.begin() > before || stream.limit > limit || stream.is_end_taken)
        session.asked_since.reset();
    const auto count = static_cast<std::size_t>(
        std::min<std::uint64_t>(stream.outgoing.begin() - before, session.pace.underWay()));
    if (count > 0) session.is_silent = false;
    session.pace.acknowledged(count);
    const std::size_t shared = std::min(count, session.shared);
    session.shared -= shared;
    pace_.acknowledged(shared);
    std::optional<Time> at;
    for (; !session.marks.empty() && session.marks.front().end <= frame.acknowledged;
         session.marks.pop_front())
        at = session.marks.front().at;
    if (!at) return true;
    const Seconds round_trip = now_ - *at;
    if (!session.base.isKnown()) pace_.doubtBase();
    session.base.see(round_trip, now_);
    base_.see(round_trip, now_);
    const Seconds base = session.base.getOr(round_trip);
    session.pace.see(round_trip, base, base, now_);
    pace_.see(round_trip, base, base_.getOr(base), now_);
    return true;
}

const char *KeptSessions::takeKind(KEPT_SESSION_T &session, const FRAME_T &frame,
                                   std::span<const std::uint8_t> payload)
{
    KEPT_STREAM_T &stream = session.stream;
    switch (frame.kind) {
    case FRAME::DATA:
        if (!mayTakeData(stream, frame)) return UNEXPECTED;
        if (stream.incoming.size() > 0) {
            stream.incoming.add(payload);
        } else {
            stream.incoming.pass(payload.size());
            delivery_.push_back(payload);
        }
        stream.is_window_short = (frame.flags & WINDOW_IS_SHORT) != 0;
        session.last_data = now_;
        if (session.is_local_done && stream.is_end_taken)
            end(session, KEPT_END::BROKEN, "the service is gone");
        if (!session.ack_due) session.ack_due = now_ + ACK_DELAY;
        return nullptr;
    case FRAME::END:
        return takeEnd(stream, frame) ? nullptr : UNEXPECTED;
    case FRAME::RESET:
        // A service that is gone behind its end has been heard out.
        close(session,
              session.side == SIDE::OPERATOR && stream.is_peer_end_passed ? KEPT_END::WHOLE
                                                                          : KEPT_END::BROKEN,
              textOf(payload));
        return nullptr;
    case FRAME::DONE:
        if (session.side != SIDE::KEEPER || !isWhole(stream)) return UNEXPECTED;
        close(session, KEPT_END::WHOLE, BOTH_DONE);
        return nullptr;
    case FRAME::ACK:
        if ((frame.flags & ANSWER_WANTED) != 0) session.ack_due = now_;
        return nullptr;
    case FRAME::HELLO:
    case FRAME::WELCOME:
    case FRAME::REFUSED:
        break;
    }
    return UNEXPECTED;
}

// What has been read in one go, with as few calls as possible.
void KeptSessions::deliver(KEPT_SESSION_T &session)
{
    if (!delivery_.empty() && !session.is_local_done) {
        const std::size_t sent = sendPieces(session.local.get(), delivery_);
        const int error = errno;
        if (holdRest(session, sent) && error != EAGAIN && error != ENOBUFS)
            return localBroke(session, error);
    }
    delivery_.clear();
    widen(session);
    if (session.stream.incoming.size() == 0 && session.stream.has_peer_end) flushLocal(session);
}

// False when nothing is left behind the first `sent` bytes.
bool KeptSessions::holdRest(KEPT_SESSION_T &session, std::size_t sent)
{
    std::size_t rest = 0;
    for (const auto &piece : delivery_)
        rest += piece.size();
    rest -= sent;
    if (rest == 0) return false;
    session.stream.incoming.takeBack(rest);
    for (const auto &piece : delivery_) {
        const std::size_t skipped = std::min(sent, piece.size());
        sent -= skipped;
        session.stream.incoming.add(piece.subspan(skipped));
    }
    return true;
}

// The other end could send more: it may, as long as what comes leaves at once.
void KeptSessions::widen(KEPT_SESSION_T &session)
{
    KEPT_STREAM_T &stream = session.stream;
    if (!stream.is_window_short || stream.incoming.size() > 0) return;
    const std::uint32_t wider = stream.window * 2;
    if (wider > WINDOW_MAX || widened_ + stream.window > budget_) return;
    widened_ += stream.window;
    stream.window = wider;
    stream.is_window_short = false;
}

} // namespace keep
