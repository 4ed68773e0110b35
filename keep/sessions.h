// All kept sessions of one process, carried by one thread. Over all of them no more is under way
// than keeps the queue short (pace.h), shared fairly (fair_queue.h).
// Memory   INITIAL_WINDOW for each session and direction, and beyond that `budget` for all.
// Failure  of a session is its end; std::bad_alloc ends the session that it happened to.
// Threads  one at a time.
#pragma once

#include "keep/kept_session.h"

#include <chrono>
#include <list>
#include <memory>
#include <poll.h>
#include <span>
#include <string>
#include <vector>

namespace keep {

constexpr char BOTH_DONE[] = "both ends are done";
constexpr std::size_t KEEPER_BUDGET = std::size_t{4} << 20;

struct KEPT_TIMES_T {
    Seconds greeting{8};  // for the other end's first frame
    Seconds closing{5};   // for the last frames to leave
    Seconds ask_least{1}; // without progress, before the other end is asked for it
    Seconds ask_most{15}; // between two questions
    Seconds deaf{30};     // without a frame, while one is owed
};

class KeptSessions {
public:
    explicit KeptSessions(std::size_t budget, const KEPT_TIMES_T &times = {});

    // local: a connected stream socket, which is never waited for.
    KEPT_SESSION_T &add(SIDE side, const SessionKey &key, UniqueFd local, KEPT_EVENTS_T events);
    KEPT_SESSION_T *find(const SessionKey &key);
    std::size_t size() const
    {
        return sessions_.size();
    }

    // The newest carrier counts. `bytes`: what has been read from it already.
    void attach(KEPT_SESSION_T &session, UniqueFd carrier,
                std::span<const std::uint8_t> bytes = {});
    // Ends it from this side: the other end is told, the local connection is reset.
    void end(KEPT_SESSION_T &session, KEPT_END how, const std::string &reason);

    template <class Visit> void each(Visit visit)
    {
        for (const auto &session : sessions_)
            visit(*session);
    }
    // Forgets those that are over and that nobody wants to know of any more.
    template <class IsUnwanted> void sweep(IsUnwanted isUnwanted)
    {
        sessions_.remove_if([&](const auto &session) {
            return session->state == KEPT_STATE::OVER && isUnwanted(*session);
        });
    }

    // One round: waits for something to do, at most `most`, and does it. others: waited for, too,
    // and answered in their revents.
    void pass(std::span<pollfd> others, std::chrono::milliseconds most);

private:
    struct WATCH_T {
        KEPT_SESSION_T *session;
        bool is_carrier;
    };

    // sessions.cpp
    void watch(KEPT_SESSION_T &session);
    std::chrono::milliseconds waitTime(Time now, std::chrono::milliseconds most) const;
    void serve(const WATCH_T &watched, short events);
    void readLocal(KEPT_SESSION_T &session);
    void flushLocal(KEPT_SESSION_T &session);
    void localBroke(KEPT_SESSION_T &session, int error);
    std::size_t localRoom(const KEPT_SESSION_T &session) const;
    void leaveShare(KEPT_SESSION_T &session);
    void giveUp(KEPT_SESSION_T &session, const char *why);
    void close(KEPT_SESSION_T &session, KEPT_END how, const std::string &reason);
    void finishIfWhole(KEPT_SESSION_T &session);
    static void closeCarrier(KEPT_SESSION_T &session);
    void lookAtTimes(KEPT_SESSION_T &session);

    // sessions_receive.cpp
    void readFrames(KEPT_SESSION_T &session);
    void takeBytes(KEPT_SESSION_T &session, std::span<const std::uint8_t> bytes);
    const char *takeFrames(KEPT_SESSION_T &session, std::span<const std::uint8_t> &bytes);
    const char *takeOne(KEPT_SESSION_T &session, const FRAME_T &frame,
                        std::span<const std::uint8_t> payload);
    const char *greet(KEPT_SESSION_T &session, const FRAME_T &frame,
                      std::span<const std::uint8_t> payload);
    const char *takeKind(KEPT_SESSION_T &session, const FRAME_T &frame,
                         std::span<const std::uint8_t> payload);
    bool acknowledge(KEPT_SESSION_T &session, const FRAME_T &frame);
    void deliver(KEPT_SESSION_T &session);
    bool holdRest(KEPT_SESSION_T &session, std::size_t sent);
    void widen(KEPT_SESSION_T &session);

    // sessions_send.cpp
    void sendAll();
    bool sendTurn(KEPT_SESSION_T &session);
    std::size_t allowed(KEPT_SESSION_T &session, bool is_fresh);
    std::size_t sendSome(KEPT_SESSION_T &session, std::size_t most);
    static void sendOne(KEPT_SESSION_T &session, FRAME kind,
                        std::span<const std::uint8_t> payload = {}, std::uint8_t flags = 0);
    void sendAcknowledgements();
    void askForAnswers();
    void ask(KEPT_SESSION_T &session);

    std::size_t budget_;
    KEPT_TIMES_T times_;
    std::list<std::unique_ptr<KEPT_SESSION_T>> sessions_;
    FairQueue<KEPT_SESSION_T> queue_;
    Pace pace_;
    BaseTime base_;           // of the nearest one
    Time now_{};              // of this pass
    std::size_t widened_ = 0; // windows beyond the initial ones
    std::size_t stored_ = 0;  // that the outgoing stores hold beyond KEPT_CAPACITY each
    std::vector<std::uint8_t> buffer_;
    std::vector<std::span<const std::uint8_t>> delivery_; // of the session that is being read
    std::vector<pollfd> polled_;
    std::vector<WATCH_T> watched_;
};

} // namespace keep
