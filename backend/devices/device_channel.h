// The channel of one device: its handshake, its messages, and the sessions on it. A channel begins
// with an accepted TCP connection; the handshake must be accepted within handshake_time. Afterwards
// it ends when the connection does, when a newer channel of the same device replaces it, or when
// the device answers nothing it is sent. Its sessions end with it at once: a device that starts
// again gives out the same identifiers once more, so no session may outlive its channel.
// Ownership  the server holds the channels; the channel owns its link, its sessions and its queue.
// Threads    the thread of the io_context.
// Limits     LIMITS_T. Session data to the device is bounded by not reading clients, data from it
//            by not reading the channel.
// Failure    every fault is logged here. A message that cannot be read is dropped, and the channel
//            stays, as the device does it on its side.
#pragma once

#include "backend/devices/handshake.h"
#include "backend/limits.h"
#include "backend/observe/log.h"
#include "backend/net/send_queue.h"
#include "backend/sessions/session.h"
#include "backend/net/websocket_link.h"

#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

enum class CHANNEL_STATE { HANDSHAKE, CONNECTED, REFUSED, CLOSED };

using ChannelPtr = std::shared_ptr<DEVICE_CHANNEL_T>;

struct CHANNEL_EVENTS_T {
    std::function<HANDSHAKE_RESULT_T(const MESSAGE_T &)> check; // of a handshake
    std::function<void(const ChannelPtr &)> connected;
    std::function<void(const ChannelPtr &)> closed; // once for each channel
};

struct ACCOUNT_RESULT_T {
    bool is_answered =
        false; // false: the channel ended, the device did not answer, or the texts cannot be sent
    std::int64_t code = 0; // 0 = the password is right
    std::string message;   // the device's words, or the reason why there is no answer
};
using AccountCallback = std::function<void(const ACCOUNT_RESULT_T &)>;

struct ACCOUNT_REQUEST_T {
    AccountCallback answered;
    std::unique_ptr<boost::asio::steady_timer> timer;
};

struct DEVICE_CHANNEL_T : std::enable_shared_from_this<DEVICE_CHANNEL_T> {
    DEVICE_CHANNEL_T(boost::asio::io_context &context, const LIMITS_T &allowed,
                     CHANNEL_EVENTS_T handlers);

    boost::asio::io_context &io;
    const LIMITS_T &limits;
    CHANNEL_EVENTS_T events;
    std::shared_ptr<WebsocketLink> link;
    boost::asio::steady_timer timer; // handshake, then the delayed close of a refused device
    CHANNEL_STATE state = CHANNEL_STATE::HANDSHAKE;
    std::string peer; // address and port
    DEVICE_KEY_T device;
    std::vector<SERVICE_T> services;
    std::time_t connected_at = 0;

    SEND_QUEUE_T outgoing{limits};

    std::unordered_map<std::string, SessionPtr> sessions; // by token
    std::unordered_map<std::string, SessionPtr> opening;  // by the request's msg_id
    std::unordered_map<std::string, ACCOUNT_REQUEST_T> accounts;
    std::deque<std::string> releasing; // tokens released here whose data may still be under way
    std::size_t full_sessions = 0;
    bool read_active = false;
    std::uint64_t next_id = 1;
    RATE_LIMIT_T fault_lines;
    RATE_LIMIT_T unknown_releases;
};

ChannelPtr startDeviceChannel(boost::asio::io_context &io, const LIMITS_T &limits,
                              boost::asio::ip::tcp::socket socket,
                              const std::shared_ptr<TLS_CONTEXT_T> &tls, CHANNEL_EVENTS_T events);

void closeDeviceChannel(DEVICE_CHANNEL_T &channel, std::uint16_t code, const std::string &reason);

// Null when the device did not announce it.
const SERVICE_T *findService(const DEVICE_CHANNEL_T &channel, const std::string &name);

// Asks the device for a session and carries the client over it. A device takes DEVICE_SESSIONS_MAX
// sessions: when they are in use, the one that lingers longest makes room.
SessionPtr requestSession(DEVICE_CHANNEL_T &channel, CLIENT_T client, const SERVICE_T &service);

// Has the device check one of its local accounts. The callback is called exactly once, not from
// within the call unless the request cannot be sent.
void requestAccountCheck(DEVICE_CHANNEL_T &channel, const std::string &user,
                         const std::string &password, AccountCallback answered);

// What sessions use of their channel.
void sendSessionData(SESSION_T &session); // session.message, with its size set
void noteSessionFull(SESSION_T &session, bool is_full);
void takeOffChannel(const SessionPtr &session, bool tell_device);

} // namespace backend
