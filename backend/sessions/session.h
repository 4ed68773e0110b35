// One session's local end: a client's stream of bytes, carried over a device's channel.
// Ownership  the channel owns its sessions; a running operation keeps its session alive. A session
//            that the device has released only flushes what is left to its client and belongs to
//            itself.
// Backlog    what the client does not take waits here, and the channel is read on: the session
//            that holds more than session_buffer, or most of all when all hold more than
//            all_buffers, is cut off alone. A client that is only slower than its device slows the
//            channel down before that; one that has stopped does not.
// Threads    the thread of the io_context.
// Half-close the protocol has none. When a client ends its sending, the session stays for what the
//            device still sends, until the device releases it or nothing has come for linger_time.
// Endings    a client whose session was refused, lost or cut off gets a reset, so that it cannot
//            take a part for the whole; after an orderly release it gets everything that was sent
//            to it and then an end of file. A session with a longest time is cut off after it.
//            Each session, refused ones too, ends with one line in the audit log.
// Limits     LIMITS_T: the sessions' buffers, and the waits that end a session.
#pragma once

#include "backend/devices/channel_stream.h"
#include "backend/devices/device_registry.h"
#include "backend/devices/protocol.h"
#include "backend/net/out_message.h"
#include "backend/sessions/keeping.h"
#include "backend/sessions/session_client.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

namespace backend {

struct DEVICE_CHANNEL_T;
struct LIMITS_T;
struct SESSION_TABLE_T;

enum class SESSION_STATE {
    RECORDING, // its begin is being written to the audit
    OPENING,   // the device has been asked
    OPEN,      // bytes go both ways
    LINGERING, // the client has ended its sending
    FLUSHING,  // the device has released it: off the channel
    CLOSED,
};

struct SESSION_T;

struct CLIENT_T {
    SessionClientPtr stream;
    std::string who;                               // the operator's account
    std::string from;                              // where that account's request came from
    bool is_shared = false;                        // a port that other accounts may use, too
    std::function<void(const SESSION_T &)> opened; // may be empty
    // Once for each client, also for one whose session is refused. May be empty.
    std::function<void(const SESSION_T &)> ended;
    std::optional<std::chrono::seconds> max_session = std::nullopt; // from when it is open
    std::optional<KEEPING_T> kept = std::nullopt;
};

struct SESSION_T final : ChannelStream, std::enable_shared_from_this<SESSION_T> {
    SESSION_T(std::shared_ptr<SESSION_TABLE_T> of, CLIENT_T from, DEVICE_CHANNEL_T &on,
              SERVICE_T wanted);
    SESSION_T(const SESSION_T &) = delete;
    SESSION_T &operator=(const SESSION_T &) = delete;
    ~SESSION_T() override;

    void roomIsBack() override;
    void opened(const std::string &given) override;
    void received(std::span<const std::uint8_t> bytes) override;
    void released() override;
    void cut(const std::string &reason) override;
    std::optional<std::chrono::steady_clock::time_point> idleSince() const override;
    void giveUp() override;

    std::shared_ptr<SESSION_TABLE_T> table;
    DEVICE_CHANNEL_T *channel; // borrowed; null once the session is off the channel
    const LIMITS_T &limits;
    CLIENT_T origin; // its stream has gone into client
    SessionClientPtr client;
    boost::asio::steady_timer timer;                  // the one wait of the current state
    std::optional<boost::asio::steady_timer> longest; // of a session with a max_session
    SERVICE_T service;
    DEVICE_KEY_T device;
    std::string number; // unique for good
    std::string label;  // device, service and client, for the log
    std::string token;  // the device's identifier of it; empty until the device has answered
    SESSION_STATE state = SESSION_STATE::RECORDING;
    std::chrono::steady_clock::time_point requested; // of the device
    std::chrono::steady_clock::time_point lingering_since;

    // Bytes for the client: one buffer is written from an offset while the other fills.
    std::vector<std::uint8_t> filling;
    std::vector<std::uint8_t> writing;
    std::size_t written = 0;
    bool write_active = false;
    std::size_t counted = 0;                           // of these bytes, in the table's backlog
    std::chrono::steady_clock::time_point progress_at; // when the client took bytes last
    bool is_pacing = false;                            // the channel waits for its client

    OutMessagePtr message; // the storage that the next client bytes are read into
    bool read_active = false;
    bool is_flowing = false; // the last read filled its message: more is there, probably
    bool client_ended = false;

    std::time_t asked_at = 0;
    std::uint64_t bytes_up = 0;   // from the device for the client
    std::uint64_t bytes_down = 0; // from the client for the device
    std::string end_reason;       // the first one counts
    bool is_whole = false;        // the client got everything that came from the device
    bool is_final = false;        // a kept one that cannot be resumed
};
using SessionPtr = std::shared_ptr<SESSION_T>;

// Ends a session from this side: the device is told, and the client is reset or, when it got all
// there was, closed.
void endSession(const SessionPtr &session, const std::string &reason, bool is_orderly);

// The same, because its operator may not have it any more: a kept one cannot be resumed either.
void endForGood(const SessionPtr &session, const std::string &reason);

// Asks the device. The session's begin has been recorded.
void openSession(const SessionPtr &session);

} // namespace backend
