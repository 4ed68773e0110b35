// The channel of one device: its handshake, its messages, and the sessions on it. A channel begins
// with the first byte of a connection, which has a place until the handshake is accepted.
// Afterwards it ends when the connection does, when a newer channel of the same device replaces it,
// or when the device answers nothing it is sent. Its sessions end with it at once: a device that
// starts again gives out the same identifiers once more, so no session may outlive its channel.
// Ownership  the server holds the channels; the channel owns its link, its sessions and its queue.
// Threads    the thread of the io_context.
// Limits     LIMITS_T. Session data to the device is bounded by not reading clients. The channel is
//            always read: what waits for a client is bounded by the session's own limit.
// Failure    every fault is logged here; that a device comes, is refused or goes is told by the
//            owner of the events. A message that cannot be read is dropped, and the channel stays,
//            as the device does it on its side.
#pragma once

#include "backend/devices/channel_stream.h"
#include "backend/devices/handshake.h"
#include "backend/limits.h"
#include "backend/net/admission.h"
#include "backend/net/send_queue.h"
#include "backend/net/websocket_link.h"
#include "backend/observe/log.h"

#include <chrono>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

namespace backend {

enum class CHANNEL_STATE {
    HANDSHAKE,
    CHECKING, // the handshake has come, and its check goes on; nothing is read meanwhile
    CONNECTED,
    REFUSED,
    CLOSED,
};

struct DEVICE_CHANNEL_T;
using ChannelPtr = std::shared_ptr<DEVICE_CHANNEL_T>;

struct CHANNEL_EVENTS_T {
    // Checks a handshake and calls answered once: within the call, or later on the same thread.
    std::function<void(const DEVICE_CHANNEL_T &, const MESSAGE_T &, HandshakeAnswer answered)>
        check;
    // remark: what of its handshake was left out; empty for nothing.
    std::function<void(const ChannelPtr &, const std::string &remark)> connected;
    // The device is what the handshake claimed; nothing of it is proved.
    std::function<void(const DEVICE_CHANNEL_T &, const HANDSHAKE_RESULT_T &)> refused;
    // Once for each channel, with the reason in words.
    std::function<void(const ChannelPtr &, const std::string &)> closed;
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
    // Handshake, then the delayed close of a refused device, or the next look at a silent one.
    boost::asio::steady_timer timer;
    std::optional<std::chrono::steady_clock::time_point> pinged; // and nothing heard since
    CHANNEL_STATE state = CHANNEL_STATE::HANDSHAKE;
    std::string peer; // address and port
    DEVICE_KEY_T device;
    std::vector<SERVICE_T> services; // without keepers
    std::optional<SERVICE_T> keeper; // the first; operators do not get to see it
    std::time_t connected_at = 0;    // 0: its handshake was not accepted
    std::string proved_secret;       // that its handshake was signed with

    SEND_QUEUE_T outgoing{limits};

    std::unordered_map<std::string, StreamPtr> streams; // by token
    std::unordered_map<std::string, StreamPtr> opening; // by the request's msg_id
    std::unordered_map<std::string, ACCOUNT_REQUEST_T> accounts;
    std::list<std::string> releasing; // tokens released here whose data may still be under way
    bool read_active = false;
    boost::asio::steady_timer pace; // until then nothing is read
    bool is_paced = false;
    std::uint64_t next_id = 1;
    LINE_LIMIT_T fault_lines{"lines of this device"};
    RATE_LIMIT_T unknown_releases;
};

ChannelPtr startDeviceChannel(boost::asio::io_context &io, const LIMITS_T &limits,
                              boost::asio::ip::tcp::socket socket, PlacePtr place,
                              const std::shared_ptr<TLS_CONTEXT_T> &tls, CHANNEL_EVENTS_T events);

void closeDeviceChannel(DEVICE_CHANNEL_T &channel, std::uint16_t code, const std::string &reason);

// How long nothing has come from the device: any byte counts, because an answer may wait behind
// half a minute of data.
std::chrono::milliseconds silenceOf(const DEVICE_CHANNEL_T &channel);

// Sends a ping when the device has been silent for a while.
void askForLife(DEVICE_CHANNEL_T &channel);

// Whether it has not answered a ping for LIMITS_T::answering_time.
bool isSilent(const DEVICE_CHANNEL_T &channel);

// Null when the device did not announce it.
const SERVICE_T *findService(const DEVICE_CHANNEL_T &channel, const std::string &name);

// Streams that are sessions of operators.
std::size_t countSessions(const DEVICE_CHANNEL_T &channel);

// Makes room for one more stream: a device takes DEVICE_SESSIONS_MAX, and when they are in use the
// one that is idle longest is given up. False when the channel has too many already.
bool makeRoomForStream(DEVICE_CHANNEL_T &channel);

// Asks the device to connect the service; the stream is told the answer. False when the channel
// cannot ask any more.
bool requestStream(DEVICE_CHANNEL_T &channel, const StreamPtr &stream, const SERVICE_T &service);

// Has the device check one of its local accounts. The callback is called exactly once, not from
// within the call unless the request cannot be sent.
void requestAccountCheck(DEVICE_CHANNEL_T &channel, const std::string &user,
                         const std::string &password, AccountCallback answered);

// Reads nothing for that long, or until resumeReading: the device's kernel then slows the device
// down. It drops what it cannot send in time, so the pause has to be a small part of that.
void pauseReading(DEVICE_CHANNEL_T &channel, std::chrono::milliseconds pause);
void resumeReading(DEVICE_CHANNEL_T &channel);

// message: a session's bytes with their size set.
void sendStreamData(DEVICE_CHANNEL_T &channel, const std::string &token, OutMessagePtr message);

// token: empty while the device has not answered.
void takeOffChannel(DEVICE_CHANNEL_T &channel, const ChannelStream &stream,
                    const std::string &token, bool tell_device);

} // namespace backend
