// The places for connections whose handshake is not accepted yet, and whose turn it is among them
// for the work that TLS asks for.
// Places     a connection has one from its accept until the Place is destroyed. Before its first
//            byte only its socket waits, then `started` gets both. One that is silent for too long
//            is expelled, and so is one that sends more than a handshake takes. When all places are
//            taken, an address that has more than its share of them pays with its longest silent
//            connection; otherwise the longest silent of all makes room, first of those that sent
//            nothing for a while, last of those whose TLS was answered. So neither one address nor
//            many can keep those out that get on with their handshake. IPv6 addresses count by
//            their /64.
// Turns      what such a connection makes the process do runs one after the other, round robin over
//            addresses, for TURN_SLICE in each round of the event loop: the sessions of connected
//            devices come between. Within an address those that were answered and those that were
//            not alternate. A connection that waits for its turn is not silent.
// Ownership  a Place keeps the admission alive and belongs to whoever serves its connection.
// Threads    the thread of the io_context.
// Limits     LIMITS_T: places, first_byte_time, progress_time, handshake_time.
// Failure    enter may throw; the connection is closed then. Expelled connections are logged as a
//            count, one line in LINE_PAUSE.
#pragma once

#include "backend/limits.h"

#include <array>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

constexpr auto TURN_SLICE = std::chrono::milliseconds(1);

// From the accept to the accepted handshake: TLS, the upgrade, and one message of at most 50 KiB.
constexpr std::size_t PLACE_BYTES_MAX = std::size_t{64} * 1024;
constexpr auto LINE_PAUSE = std::chrono::seconds(10);

class Admission;
class Place;
using PlacePtr = std::unique_ptr<Place>;
using Places = std::list<Place *>;

struct ADDRESS_KEY_T {
    int version = 4;
    std::uint64_t prefix = 0;
    auto operator<=>(const ADDRESS_KEY_T &) const = default;
};

ADDRESS_KEY_T addressKey(const boost::asio::ip::address &address);

struct ADDRESS_T;
struct WAITING_T;

// The elements of the lists are made with their place and moved from list to list after that, so
// that only entering needs memory.
class Place {
public:
    using Clock = std::chrono::steady_clock;
    using Expelled = std::function<void(const char *reason)>;

    Place(std::shared_ptr<Admission> admission, const ADDRESS_KEY_T &key);
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;
    ~Place();

    // Has to end the connection; it may destroy the place. Called at most once.
    void whenExpelled(Expelled expelled)
    {
        expelled_ = std::move(expelled);
    }
    // New bytes have come. False when it were more than a place allows: the connection has to end.
    bool noteProgress(std::size_t count);
    // Never runs within the call, and not at all once the connection is expelled. is_first: nothing
    // was answered yet.
    void waitForTurn(std::function<void()> step, bool is_first);

private:
    friend class Admission;
    friend struct ADDRESS_ORDER_T;

    enum STAGE { SILENT, SPOKEN, ANSWERED, STAGES };

    std::shared_ptr<Admission> admission_;
    ADDRESS_T *address_ = nullptr; // null once it has left
    Places silent_;                // holds its element until it is in the address's list
    Places turn_;                  // holds its element while it does not wait for its turn
    Places staged_;                // holds its element while it is in none of the stages' lists
    const Places::iterator silent_at_ = silent_.begin();
    const Places::iterator turn_at_ = turn_.begin();
    const Places::iterator staged_at_ = staged_.begin();
    Places *stage_list_ = nullptr; // null while it waits for its turn
    Places *turn_list_ = nullptr;  // null unless it waits
    Clock::time_point silent_since_ = Clock::now();
    Clock::time_point ends_at_;
    Clock::time_point waits_since_;
    Expelled expelled_;
    std::function<void()> step_;
    STAGE stage_ = SILENT;
    std::size_t bytes_ = 0;
};

struct ADDRESS_T {
    ADDRESS_KEY_T key;
    Places places;        // longest silent first
    Places first_turns;   // of connections that were not answered yet
    Places further_turns; // of the others
    bool is_first_next = false;
    std::list<ADDRESS_T *> ring; // holds its element while none waits
    std::list<ADDRESS_T *>::iterator ring_at;
    bool is_in_ring = false;
};

// The first one has the most places, and among equals the longest silent one.
struct ADDRESS_ORDER_T {
    bool operator()(const ADDRESS_T *left, const ADDRESS_T *right) const;
};

class Admission : public std::enable_shared_from_this<Admission> {
public:
    using Socket = boost::asio::ip::tcp::socket;
    using Started = std::function<void(Socket, PlacePtr)>;

    // bytes_max: what a connection may send while it has its place.
    Admission(boost::asio::io_context &io, const LIMITS_T &limits, Started started,
              std::size_t bytes_max = PLACE_BYTES_MAX);
    Admission(const Admission &) = delete;
    Admission &operator=(const Admission &) = delete;
    ~Admission();

    void enter(Socket socket);
    // Expels the connection whose turn it is. False when that one is not silent.
    bool makeRoom();
    void close(); // expels all

    [[nodiscard]] std::size_t size() const
    {
        return count_;
    }

private:
    friend class Place;
    using Clock = Place::Clock;

    void awaitFirst(const std::shared_ptr<WAITING_T> &waiting);
    void join(Place &place, const ADDRESS_KEY_T &key);
    void leave(Place &place) noexcept;
    void renew(Place &place) noexcept;
    void queueTurn(Place &place, bool is_first);
    void leaveQueue(Place &place) noexcept;
    void enterStage(Place &place) noexcept;
    static void leaveStage(Place &place) noexcept;
    [[nodiscard]] Place *nextToLeave();
    void expel(Place &place, const char *reason);
    void armSweep();
    void sweep();
    [[nodiscard]] const char *faultOf(const Place &place, Clock::time_point now) const;
    void postSlice();
    void runSlice();
    void takeTurn();
    void reportExpelled();

    boost::asio::io_context &io_;
    const LIMITS_T &limits_;
    Started started_;
    std::size_t bytes_max_;
    boost::asio::steady_timer timer_;
    std::map<ADDRESS_KEY_T, ADDRESS_T> addresses_;
    std::set<ADDRESS_T *, ADDRESS_ORDER_T> ranking_;
    std::list<ADDRESS_T *> ring_; // addresses with a connection that waits for its turn
    std::array<Places, Place::STAGES> stages_; // each with the longest silent first
    std::size_t count_ = 0;
    bool is_sweeping_ = false;
    bool is_slice_posted_ = false;
    std::size_t expelled_ = 0; // since the last line
    Clock::time_point line_at_;
};

} // namespace backend
