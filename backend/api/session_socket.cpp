#include "backend/api/session_socket.h"

#include "backend/api/session_frames.h"
#include "backend/limits.h"
#include "backend/net/kept.h"
#include "backend/net/peer_options.h"
#include "backend/net/tls_stream.h"
#include "backend/operations/fault.h"

#include <array>
#include <chrono>
#include <exception>
#include <optional>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/websocket.hpp>

namespace backend {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using boost::system::error_code;
using Done = SessionClient::Done;

constexpr std::size_t CLIENT_MESSAGE_MAX = std::size_t{64} * 1024;
// With its header of four bytes a frame is four full TLS records, which go with one send.
constexpr std::size_t FRAME_MAX = std::size_t{64} * 1024 - 4;
constexpr auto PING_TIME = std::chrono::seconds(30); // a NAT forgets an idle line after minutes
constexpr auto UNANSWERED_TIME = std::chrono::seconds(60);

constexpr char LOST[] = "the client's connection is lost";
constexpr char HAS_CLOSED[] = "the client has closed its connection";
constexpr char UNANSWERED[] = "the client does not answer";
constexpr char TOO_BIG[] = "the client sent a message of more than 64 KiB";
constexpr char MALFORMED[] = "the client sent what is no WebSocket frame";
constexpr char BAD_CONTROL[] = "the client sent a control message that is unknown";
constexpr char AFTER_END[] = "the client sent more after the end of its sending";

// ---- the request

static bool offers(const UpgradeRequest &request, std::string_view protocol)
{
    const auto range = request.equal_range(http::field::sec_websocket_protocol);
    for (auto it = range.first; it != range.second; ++it)
        if (http::token_list{it->value()}.exists({protocol.data(), protocol.size()})) return true;
    return false;
}

// "https://HOST" is the site of "Host: HOST"; the port may be left out where it is the usual one.
static bool isOwnSite(std::string_view origin, std::string_view host)
{
    constexpr std::string_view SCHEME = "https://";
    constexpr std::string_view USUAL_PORT = ":443";
    if (!origin.starts_with(SCHEME)) return false;
    origin.remove_prefix(SCHEME.size());
    if (origin.ends_with(USUAL_PORT)) origin.remove_suffix(USUAL_PORT.size());
    if (host.ends_with(USUAL_PORT)) host.remove_suffix(USUAL_PORT.size());
    return beast::iequals({origin.data(), origin.size()}, {host.data(), host.size()});
}

static std::string_view valueOf(const UpgradeRequest &request, http::field field)
{
    const auto value = request[field];
    return {value.data(), value.size()};
}

void checkUpgrade(const UpgradeRequest &request)
{
    const auto require = [](bool is_right, FAULT fault, const char *text) {
        if (!is_right) throw OperationFault(fault, text);
    };
    require(websocket::is_upgrade(request) && request.count(http::field::host) == 1 &&
                valueOf(request, http::field::sec_websocket_version) == "13" &&
                valueOf(request, http::field::sec_websocket_key).size() == 24,
            FAULT::BAD_REQUEST, "a session needs an upgrade to WebSocket, version 13");
    require(request.count(http::field::sec_websocket_protocol) == 0 ||
                offers(request, SESSION_PROTOCOL),
            FAULT::BAD_REQUEST, "the WebSocket protocol of a session is remote-access.v1");
    require(
        request.count(http::field::origin) == 0 ||
            isOwnSite(valueOf(request, http::field::origin), valueOf(request, http::field::host)),
        FAULT::DENIED, "pages of other sites may not open sessions");
}

// ---- the socket

class SessionSocket : public std::enable_shared_from_this<SessionSocket> {
    // For an operation's end: keeps the socket; what throws costs this connection.
    template <class Call> auto handler(Call call)
    {
        return [kept = Kept<SessionSocket>(shared_from_this()),
                call = std::move(call)](auto... results) mutable {
            const auto self = kept.release();
            try {
                call(*self, results...);
            } catch (const std::exception &) {
                self->shut();
                throw; // to be logged
            }
        };
    }

public:
    SessionSocket(std::shared_ptr<TlsStream> stream, const UpgradeRequest &request,
                  const LIMITS_T &limits)
        : stream_(std::move(stream)), request_(request), limits_(limits),
          timer_(stream_->get_executor())
    {
    }

    // True once.
    bool take()
    {
        return !std::exchange(is_taken_, true);
    }

    void open(const std::string &number, bool is_kept)
    {
        if (state_ != STATE::WAITING) return;
        state_ = STATE::ACCEPTING;
        endAfter(limits_.stall_time);
        socket_.emplace(*stream_);
        setPeerOptions(stream_->next_layer());
        setSocketOptions(number, is_kept);
        socket_->async_accept(
            http::request<http::empty_body>(std::move(request_)),
            handler([](SessionSocket &self, const error_code &error) { self.accepted(error); }));
    }

    void read(std::span<std::uint8_t> bytes, Done done)
    {
        if (state_ == STATE::OPEN) return readOn(bytes, std::move(done));
        if (state_ == STATE::WAITING || state_ == STATE::ACCEPTING)
            early_read_ = {bytes, std::move(done)};
        else
            failLater(std::move(done));
    }

    void write(std::span<const std::uint8_t> bytes, Done done)
    {
        if (state_ == STATE::OPEN) return writeOn(bytes, std::move(done));
        if (state_ == STATE::WAITING || state_ == STATE::ACCEPTING)
            early_write_ = {bytes, std::move(done)};
        else
            failLater(std::move(done));
    }

    // Without a call of open the connection is the door's, as before.
    void close(const SESSION_END_T &end)
    {
        if (state_ == STATE::WAITING) return leave();
        if (state_ != STATE::ACCEPTING && state_ != STATE::OPEN) return;
        end_ = endFrames(end);
        closing_time_ = end.is_whole ? limits_.stall_time : limits_.drain_time;
        if (state_ == STATE::OPEN) beginEnd();
    }

    // The session is gone without a word.
    void drop() noexcept
    {
        if (state_ == STATE::WAITING) return leave();
        if (state_ == STATE::OPEN || (state_ == STATE::ACCEPTING && !end_)) shut();
    }

    // What is under way ends with an error.
    void shut() noexcept
    {
        error_code ignored; // it may be closed already
        stream_->next_layer().close(ignored);
        leave();
    }

    void whenLost(std::function<void(const char *reason)> lost)
    {
        lost_ = std::move(lost);
    }

    const char *lossReason() const
    {
        return loss_;
    }

private:
    enum class STATE {
        WAITING,   // for the session to be open: the connection is the door's
        ACCEPTING, // the answer is being written
        OPEN,
        CLOSING, // the end is being told, or has been
        CLOSED,
    };

    template <class Bytes> struct EARLY_T {
        Bytes bytes;
        Done done;
    };

    void setSocketOptions(const std::string &number, bool is_kept)
    {
        const bool is_offered = offers(request_, SESSION_PROTOCOL);
        socket_->set_option(websocket::stream_base::decorator(
            [number, is_kept, is_offered](websocket::response_type &response) {
                response.set(http::field::server, "remote_access_backend");
                response.set(SESSION_NUMBER_HEADER, number);
                if (is_kept) response.set(SESSION_KEPT_HEADER, "1");
                if (is_offered) response.set(http::field::sec_websocket_protocol, SESSION_PROTOCOL);
            }));
        // The library would take a client for dead whose pongs are not read.
        socket_->set_option(websocket::stream_base::timeout{websocket::stream_base::none(),
                                                            websocket::stream_base::none(), false});
        socket_->read_message_max(CLIENT_MESSAGE_MAX);
        socket_->auto_fragment(false);
        socket_->binary(true);
    }

    void failLater(Done done)
    {
        asio::post(stream_->get_executor(),
                   [done = std::move(done)] { done(asio::error::operation_aborted, 0); });
    }

    void leave() noexcept
    {
        state_ = STATE::CLOSED;
        const auto read = std::exchange(early_read_, std::nullopt);
        const auto write = std::exchange(early_write_, std::nullopt);
        try {
            timer_.cancel();
            if (read) failLater(read->done);
            if (write) failLater(write->done);
        } catch (const std::exception &) { // no memory for that: the session ends with its channel
            return;
        }
    }

    void endAfter(std::chrono::milliseconds time)
    {
        timer_.expires_after(time);
        timer_.async_wait(handler([](SessionSocket &self, const error_code &stopped) {
            if (!stopped) self.shut();
        }));
    }

    void lose(const char *reason) noexcept
    {
        loss_ = reason;
        shut();
        const auto lost = std::exchange(lost_, nullptr);
        if (!lost) return;
        try { // not within what the library or the session is doing
            asio::post(stream_->get_executor(), [lost, reason] { lost(reason); });
        } catch (const std::exception &) { // no memory: the session ends by its own time
            return;
        }
    }

    // A read or a write has failed.
    void noteError(const error_code &error)
    {
        if (state_ != STATE::OPEN) return; // it has ended already, and its end is under way
        if (error == websocket::error::closed) return lose(HAS_CLOSED);
        if (error == websocket::error::message_too_big) return drain(TOO_BIG);
        if (error.category() == make_error_code(websocket::error::closed).category())
            return drain(MALFORMED);
        lose(LOST);
    }

    // ---- the beginning

    void accepted(const error_code &error)
    {
        request_.clear();
        if (state_ != STATE::ACCEPTING) return;
        if (error) return lose(LOST);
        state_ = STATE::OPEN;
        timer_.cancel();
        if (end_) return beginEnd();
        pingAfterPause();
        auto read = std::exchange(early_read_, std::nullopt);
        auto write = std::exchange(early_write_, std::nullopt);
        if (read) readOn(read->bytes, std::move(read->done));
        if (write) writeOn(write->bytes, std::move(write->done));
    }

    void pingAfterPause()
    {
        timer_.expires_after(PING_TIME);
        timer_.async_wait(handler([](SessionSocket &self, const error_code &stopped) {
            if (!stopped && self.state_ == STATE::OPEN) self.ping();
        }));
    }

    void ping()
    {
        if (isUnanswered(stream_->next_layer(), UNANSWERED_TIME)) return lose(UNANSWERED);
        if (!std::exchange(is_pinging_, true)) // one waits while a client does not read
            socket_->async_ping({}, handler([](SessionSocket &self, const error_code &) {
                                    self.is_pinging_ = false; // a broken connection shows elsewhere
                                }));
        pingAfterPause();
    }

    // ---- from the client

    void readOn(std::span<std::uint8_t> bytes, Done done)
    {
        socket_->async_read_some(
            asio::buffer(bytes.data(), bytes.size()),
            handler([bytes, done = std::move(done)](SessionSocket &self, const error_code &error,
                                                    std::size_t count) mutable {
                self.gotSome(error, bytes.first(count), bytes, std::move(done));
            }));
    }

    void gotSome(const error_code &error, std::span<const std::uint8_t> got,
                 std::span<std::uint8_t> bytes, Done done)
    {
        if (error) noteError(error);
        if (error || state_ != STATE::OPEN) return done(asio::error::operation_aborted, 0);
        if (socket_->got_text())
            takeText(got);
        else if (!got.empty())
            return done({}, got.size());
        if (state_ != STATE::OPEN) return done(asio::error::connection_aborted, 0);
        if (!client_ended_) return readOn(bytes, std::move(done));
        watch();
        done(asio::error::eof, 0);
    }

    void takeText(std::span<const std::uint8_t> got)
    {
        if (text_.size() + got.size() > CONTROL_TEXT_MAX) return refuse(BAD_CONTROL);
        text_.append(got.begin(), got.end());
        if (!socket_->is_message_done()) return;
        client_ended_ = isEndOfSending(text_);
        text_.clear();
        if (!client_ended_) refuse(BAD_CONTROL);
    }

    // The session reads no more. Pings are answered, and the client's close is seen.
    void watch()
    {
        socket_->async_read_some(
            asio::buffer(unwanted_),
            handler([](SessionSocket &self, const error_code &error, std::size_t count) {
                if (error) return self.noteError(error);
                if (self.state_ != STATE::OPEN) return;
                if (count > 0 || self.socket_->got_text()) return self.refuse(AFTER_END);
                self.watch();
            }));
    }

    // ---- for the client

    void writeOn(std::span<const std::uint8_t> bytes, Done done)
    {
        is_writing_ = true;
        socket_->async_write(
            asio::buffer(bytes.data(), std::min(bytes.size(), FRAME_MAX)),
            handler([done = std::move(done)](SessionSocket &self, const error_code &error,
                                             std::size_t count) {
                self.is_writing_ = false;
                if (error) self.noteError(error);
                if (self.end_ && self.state_ == STATE::CLOSING) self.tellEnd();
                done(error, count);
            }));
    }

    // ---- the end

    void beginEnd()
    {
        state_ = STATE::CLOSING;
        endAfter(closing_time_);
        if (!is_writing_) tellEnd();
    }

    void tellEnd()
    {
        socket_->text(true);
        socket_->async_write(asio::buffer(end_->text),
                             handler([](SessionSocket &self, const error_code &error, std::size_t) {
                                 if (error) return self.shut();
                                 self.sendClose(self.end_->code, self.end_->reason);
                             }));
    }

    // The library reads on until the client's close frame. Its TLS then says goodbye too: that must
    // find the connection open, or a reset overtakes the end that the client has yet to read.
    void sendClose(std::uint16_t code, const std::string &reason)
    {
        socket_->async_close(websocket::close_reason(static_cast<websocket::close_code>(code),
                                                     {reason.data(), reason.size()}),
                             handler([](SessionSocket &self, const error_code &error) {
                                 if (error) return self.shut();
                                 self.takeRest();
                             }));
    }

    // The client breaks the protocol of sessions.
    void refuse(const char *reason)
    {
        loss_ = reason;
        state_ = STATE::CLOSING;
        endAfter(limits_.drain_time);
        sendClose(websocket::close_code::policy_error, reason);
    }

    // It breaks that of WebSocket: the library has closed it, and reads no more. What it still
    // sends would turn into a reset, before it has read why.
    void drain(const char *reason)
    {
        loss_ = reason;
        state_ = STATE::CLOSING;
        takeRest();
    }

    // Until the client closes its side, or the time for that is over.
    void takeRest()
    {
        endAfter(limits_.drain_time);
        error_code ignored;
        stream_->next_layer().shutdown(asio::socket_base::shutdown_send, ignored);
        dropBytes();
    }

    void dropBytes()
    {
        stream_->next_layer().async_read_some(
            asio::buffer(unwanted_),
            handler([](SessionSocket &self, const error_code &error, std::size_t) {
                if (error) return self.shut();
                self.dropBytes();
            }));
    }

    std::shared_ptr<TlsStream> stream_;
    std::optional<websocket::stream<TlsStream &, false>> socket_; // false: without compression
    UpgradeRequest request_;                                      // empty once it is answered
    const LIMITS_T &limits_;
    asio::steady_timer timer_; // of the next ping, or for a client that does not take the end
    STATE state_ = STATE::WAITING;
    std::optional<EARLY_T<std::span<std::uint8_t>>> early_read_; // before it is open
    std::optional<EARLY_T<std::span<const std::uint8_t>>> early_write_;
    std::optional<END_FRAMES_T> end_;
    std::chrono::milliseconds closing_time_{};
    std::string text_; // of a control message that has come in part
    std::array<char, 1024> unwanted_;
    const char *loss_ = LOST;
    std::function<void(const char *reason)> lost_;
    bool is_taken_ = false;
    bool is_writing_ = false;
    bool is_pinging_ = false;
    bool client_ended_ = false;
};

class SessionSocketClient final : public SessionClient {
public:
    explicit SessionSocketClient(SessionSocketPtr socket) : socket_(std::move(socket)) {}
    SessionSocketClient(const SessionSocketClient &) = delete;
    SessionSocketClient &operator=(const SessionSocketClient &) = delete;
    ~SessionSocketClient() override
    {
        socket_->drop();
    }

    // Neither can be had at once: frames and records are between.
    std::size_t readSome(std::span<std::uint8_t> /*bytes*/, Error &error) override
    {
        error = asio::error::would_block;
        return 0;
    }
    std::size_t writeSome(std::span<const std::uint8_t> /*bytes*/, Error &error) override
    {
        error = asio::error::would_block;
        return 0;
    }

    void asyncRead(std::span<std::uint8_t> bytes, Done done) override
    {
        socket_->read(bytes, std::move(done));
    }
    void asyncWrite(std::span<const std::uint8_t> bytes, Done done) override
    {
        socket_->write(bytes, std::move(done));
    }
    END_WAIT endSending() override
    {
        return END_WAIT::NOTHING;
    }
    const char *lossReason() const override
    {
        return socket_->lossReason();
    }
    void close(const SESSION_END_T &end, bool /*is_orderly*/) override
    {
        socket_->close(end);
    }

private:
    SessionSocketPtr socket_;
};

SessionSocketPtr makeSessionSocket(std::shared_ptr<TlsStream> stream, const UpgradeRequest &request,
                                   const LIMITS_T &limits)
{
    return std::make_shared<SessionSocket>(std::move(stream), request, limits);
}

SessionClientPtr takeSessionClient(const SessionSocketPtr &socket)
{
    return socket->take() ? std::make_unique<SessionSocketClient>(socket) : nullptr;
}

void whenLost(SessionSocket &socket, std::function<void(const char *reason)> lost)
{
    socket.whenLost(std::move(lost));
}

void openSessionSocket(const SessionSocketPtr &socket, const std::string &number, bool is_kept)
{
    socket->open(number, is_kept);
}

} // namespace backend
