// The keeper: takes carriers from the daemon, connects to services, and holds the sessions whose
// line is lost.
// Who      connections of one account only, the daemon's. Operator, service and times are what the
//          back end wrote into the opening.
// Limits   KEEPER_SETTINGS_T; INCOMERS_MAX carriers that are not part of a session yet, each for
//          INCOMER_TIME. When all places are taken, the session that has been away longest makes
//          room for a new one.
// Failure  of a carrier or a session ends it, and is a line in the log.
// Threads  one.
#pragma once

#include "keep/sessions.h"
#include "keeper/service_list.h"

#include <list>
#include <map>
#include <string>
#include <sys/types.h>

namespace keeper {

constexpr std::size_t INCOMERS_MAX = 64;

struct KEEPER_SETTINGS_T {
    std::vector<KEPT_SERVICE_T> services;
    std::string host; // address of the machine that hosts the gateway; may be empty
    uid_t account = 0;
    std::chrono::seconds away_time{900}; // that a session without a line is held
    std::size_t sessions_max = 64;
    std::size_t budget = keep::KEEPER_BUDGET; // bytes, see keep/sessions.h
};

class Keeper {
public:
    // listener: a listening TCP socket on a loopback address.
    Keeper(KEEPER_SETTINGS_T settings, UniqueFd listener);

    // One round of at most a second. True when the descriptor `wake` has something to be read.
    bool pass(int wake);
    void replaceServices(std::vector<KEPT_SERVICE_T> services, std::string host);

private:
    enum class STEP { READING, CONNECTING, REFUSED };

    // A carrier before it is a session's.
    struct INCOMER_T {
        UniqueFd fd;
        STEP step = STEP::READING;
        std::vector<std::uint8_t> bytes; // opening, and what came behind it
        std::size_t opening_size = 0;
        keep::OPENING_T opening;
        UniqueFd service; // being connected
        keep::Time since{};
    };

    struct ABOUT_T {
        unsigned number = 0; // for the log
        std::string who;
        KEPT_SERVICE_T service;
        keep::Time begun{};
        std::optional<keep::Time> ends; // at the latest
        std::optional<keep::Time> lost;
        bool has_begun = false;
    };

    void acceptAll();
    void turnAway(const char *why);
    static short eventsOf(const INCOMER_T &incomer);
    // These return false when the incomer is done with.
    bool serve(INCOMER_T &incomer, short events);
    bool readMore(INCOMER_T &incomer);
    bool takeOpening(INCOMER_T &incomer);
    bool takeHello(INCOMER_T &incomer);
    bool begin(INCOMER_T &incomer);
    bool join(INCOMER_T &incomer, keep::KEPT_SESSION_T &session, const keep::FRAME_T &hello);
    bool connected(INCOMER_T &incomer);
    static bool refuse(INCOMER_T &incomer, keep::REFUSAL refusal, const std::string &text);
    void endKept(const INCOMER_T &incomer);

    bool makeRoom();
    void lookAtTimes();
    keep::KEPT_EVENTS_T events();
    ABOUT_T &about(const keep::KEPT_SESSION_T &session);
    void log(const keep::KEPT_SESSION_T &session, const std::string &text);

    KEEPER_SETTINGS_T settings_;
    UniqueFd listener_;
    keep::KeptSessions sessions_;
    std::list<INCOMER_T> incomers_;
    std::map<keep::SessionKey, ABOUT_T> about_;
    unsigned last_number_ = 0;
    unsigned turned_away_ = 0; // since the last line of it
    keep::Time told_turned_away_{};
    keep::Time looked_{};
};

} // namespace keeper
