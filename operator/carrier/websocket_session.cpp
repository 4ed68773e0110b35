#include "operator/carrier/websocket_session.h"

#include "operator/carrier/api_routes.h"
#include "operator/carrier/byte_stream.h"
#include "operator/carrier/https_client.h"
#include "operator/carrier/https_connection.h"
#include "operator/carrier/request_error.h"

#include <array>
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>
#include <thread>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using nlohmann::json;
using std::chrono::seconds;
using std::chrono::steady_clock;
using WebSocket = websocket::stream<TlsStream>;

namespace {

constexpr char SUBPROTOCOL[] = "remote-access.v1";
constexpr char SESSION_HEADER[] = "Remote-Access-Session";
constexpr char KEPT_HEADER[] = "Remote-Access-Kept";
constexpr char NO_MORE[] = R"({"end":"sending"})";
constexpr std::size_t COPY_SIZE = 65536;
constexpr std::size_t FRAME_ROOM = 16; // for a header, so that a frame is sent as one piece
constexpr std::size_t TEXT_MAX = 65536;
constexpr auto SILENCE_MAX = seconds(60);
constexpr auto PING_AFTER = seconds(20);
constexpr auto WATCH_PERIOD = seconds(5);
constexpr auto CLOSE_TIME = seconds(2);

// Whether the other end's system has acknowledged something lately: it does even while the server
// takes no bytes because the device takes none.
bool isLineAlive(int socket)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
    return std::chrono::milliseconds(info.tcpi_last_ack_recv) < SILENCE_MAX;
}

class WebSocketSession : public Session {
public:
    WebSocketSession(std::unique_ptr<HTTPS_CONNECTION_T> connection)
        : connection_{std::move(connection)}, socket_{std::move(*connection_->stream)},
          input_{connection_->io}, output_{connection_->io}, watch_{connection_->io}
    {
        connection_->stream.reset();
    }

    WebSocket &socket()
    {
        return socket_;
    }
    asio::io_context &io()
    {
        return connection_->io;
    }

    void begin(std::string id, bool is_kept, SESSION_ENDS_T &ends)
    {
        id_ = std::move(id);
        is_kept_ = is_kept;
        in_ = openInput(ends.in.get());
        out_ = openOutput(ends.out ? ends.out.get() : ends.in.get());
        input_.assign(in_.fd.release());
        output_.assign(out_.fd.release());
        ends_ = std::move(ends);
    }

    const std::string &id() const override
    {
        return id_;
    }

    bool isKept() const override
    {
        return is_kept_;
    }

    void abandon() override
    {
        asio::post(io(), [this] { endWith("it was given up"); });
    }

    SESSION_END_T carry(SESSION_COUNTS_T &counts) override
    {
        counts_ = &counts;
        heard();
        socket_.control_callback([this](websocket::frame_type type, boost::beast::string_view) {
            heard();
            if (type == websocket::frame_type::close && has_ended_) leave();
        });
        readFrames();
        waitForInput();
        watchLine();
        io().restart();
        io().run();
        if (!end_.is_whole && !ends_.out) resetClient();
        return end_;
    }

private:
    void heard()
    {
        last_heard_ = steady_clock::now();
    }

    void leave()
    {
        io().stop();
    }

    void endWith(const std::string &reason)
    {
        if (!has_ended_) end_.reason = reason;
        has_ended_ = true;
        leave();
    }

    // So that it does not take what has come for the whole.
    void resetClient() const
    {
        const linger reset{1, 0};
        (void)::setsockopt(ends_.in.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    }

    // ---- from the back end to the output

    void readFrames()
    {
        is_reading_ = true;
        socket_.async_read_some(asio::buffer(from_server_),
                                [this](error_code fault, std::size_t count) {
                                    is_reading_ = false;
                                    heard();
                                    takeFrame(fault, count);
                                });
    }

    void takeFrame(error_code fault, std::size_t count)
    {
        if (fault) return endWith(lossReason(fault));
        if (socket_.got_text()) return takeText(count);
        out_start_ = 0;
        out_end_ = count;
        writeOutput();
    }

    std::string lossReason(error_code fault)
    {
        const auto &reason = socket_.reason().reason;
        if (fault == websocket::error::closed && !reason.empty())
            return {reason.data(), reason.size()};
        const bool is_gone = fault == websocket::error::closed || fault == asio::error::eof ||
                             fault == asio::ssl::error::stream_truncated ||
                             fault == asio::error::connection_reset;
        return is_gone ? "the back end went away" : "the connection failed: " + fault.message();
    }

    void takeText(std::size_t count)
    {
        if (text_.size() + count > TEXT_MAX) return endWith("the back end's message is too long");
        text_.append(from_server_.data(), count);
        if (socket_.is_message_done()) {
            takeMessage(json::parse(text_, nullptr, false));
            text_.clear();
        }
        readFrames();
    }

    void takeMessage(const json &message)
    {
        if (!message.is_object() || !message.contains("ended") || has_ended_) return;
        end_.reason = message.value("ended", "");
        end_.is_whole = message.value("whole", false);
        end_.is_final = message.value("final", false);
        end_.bytes_up = message.value("bytes_up", 0.0);
        end_.bytes_down = message.value("bytes_down", 0.0);
        has_ended_ = true;
        // All bytes have come before it. The close frame follows, and need not.
        watch_.expires_after(CLOSE_TIME);
        watch_.async_wait([this](error_code fault) {
            if (!fault) leave();
        });
    }

    void writeOutput()
    {
        while (out_start_ < out_end_) {
            const ssize_t count = writeTo(out_, output_.native_handle(),
                                          from_server_.data() + out_start_, out_end_ - out_start_);
            if (count < 0 && errno == EAGAIN)
                return output_.async_wait(asio::posix::stream_descriptor::wait_write,
                                          [this](error_code) { writeOutput(); });
            if (count < 0) return failOutput(errno);
            out_start_ += static_cast<std::size_t>(count);
            counts_->up += static_cast<std::uint64_t>(count);
        }
        readFrames();
    }

    void failOutput(int error)
    {
        end_.output_fault = error;
        endWith("the client went away");
    }

    // ---- from the input to the back end

    void waitForInput()
    {
        // Files and the like cannot be waited for: they are always ready.
        input_.async_wait(asio::posix::stream_descriptor::wait_read,
                          [this](error_code) { readInput(); });
    }

    void readInput()
    {
        const ssize_t count =
            readFrom(in_, input_.native_handle(), from_input_.data(), from_input_.size());
        if (count < 0 && errno == EAGAIN) return waitForInput();
        // A socket whose other end is gone; of a pipe or a file the rest is an end like another.
        if (count < 0 && in_.is_socket) return endWith("the client went away");
        if (count <= 0) return sendNoMore();
        counts_->down += static_cast<std::uint64_t>(count);
        is_sending_ = true;
        socket_.binary(true);
        socket_.async_write(asio::buffer(from_input_.data(), static_cast<std::size_t>(count)),
                            [this](error_code fault, std::size_t) {
                                is_sending_ = false;
                                if (!fault) waitForInput(); // else the reader hears of it
                            });
    }

    void sendNoMore()
    {
        is_sending_ = true;
        socket_.text(true);
        socket_.async_write(asio::buffer(NO_MORE, sizeof NO_MORE - 1),
                            [this](error_code, std::size_t) { is_sending_ = false; });
    }

    // ---- the line

    void watchLine()
    {
        watch_.expires_after(WATCH_PERIOD);
        watch_.async_wait([this](error_code fault) {
            if (fault || has_ended_) return;
            if (judgeLine()) watchLine();
        });
    }

    // False when it is dead.
    bool judgeLine()
    {
        if (!is_reading_) heard(); // what has come meanwhile is not seen
        const auto silence = steady_clock::now() - last_heard_;
        const int socket = boost::beast::get_lowest_layer(socket_).socket().native_handle();
        // A ping waits behind what is being sent, and cannot be answered before.
        if (silence > SILENCE_MAX && !(is_sending_ && isLineAlive(socket))) {
            endWith("the back end has not been heard of for " +
                    std::to_string(SILENCE_MAX.count()) + " s");
            return false;
        }
        if (silence > PING_AFTER && !is_pinging_) {
            is_pinging_ = true;
            socket_.async_ping({}, [this](error_code) { is_pinging_ = false; });
        }
        return true;
    }

    std::unique_ptr<HTTPS_CONNECTION_T> connection_;
    WebSocket socket_;
    SESSION_ENDS_T ends_;
    BYTE_STREAM_T in_;
    BYTE_STREAM_T out_;
    asio::posix::stream_descriptor input_;
    asio::posix::stream_descriptor output_;
    asio::steady_timer watch_;
    std::string id_;
    bool is_kept_ = false;
    SESSION_COUNTS_T *counts_ = nullptr;
    SESSION_END_T end_;
    steady_clock::time_point last_heard_;
    bool has_ended_ = false;
    bool is_reading_ = false;
    bool is_sending_ = false;
    bool is_pinging_ = false;
    std::string text_;
    std::size_t out_start_ = 0; // of from_server_
    std::size_t out_end_ = 0;
    std::array<char, COPY_SIZE> from_server_;
    std::array<char, COPY_SIZE> from_input_;
};

HTTPS_ANSWER_T answerOf(const websocket::response_type &response)
{
    const auto text = [&response](http::field name) {
        const auto value = response[name];
        return std::string(value.data(), value.size());
    };
    return {response.result_int(),           std::string(response.reason()),
            text(http::field::content_type), text(http::field::location),
            text(http::field::retry_after),  response.body()};
}

[[noreturn]] void tellFailure(const HTTPS_CLIENT_T &client, error_code fault,
                              const websocket::response_type &response, seconds time)
{
    if (fault == websocket::error::upgrade_declined) checkAnswer(client, answerOf(response));
    const std::string url = "https://" + hostHeaderOf(client);
    if (fault == boost::beast::error::timeout)
        throw RequestError(url + ": the back end has not answered for " +
                               std::to_string(time.count()) + " s",
                           true);
    throw RequestError(url + ": no session: " + fault.message(), true);
}

std::unique_ptr<Session> openOnce(HTTPS_CLIENT_T &client, const json &request, SESSION_ENDS_T &ends,
                                  seconds time)
{
    auto session =
        std::make_unique<WebSocketSession>(takeConnection(client, steady_clock::now() + time));
    WebSocket &socket = session->socket();
    boost::beast::get_lowest_layer(socket).expires_never(); // the WebSocket has its own time
    socket.set_option(websocket::stream_base::timeout{time, websocket::stream_base::none(), false});
    socket.set_option(websocket::stream_base::decorator([&client](websocket::request_type &asked) {
        asked.set(http::field::sec_websocket_protocol, SUBPROTOCOL);
        if (!authorizationOf(client).empty())
            asked.set(http::field::authorization, authorizationOf(client));
    }));
    socket.auto_fragment(false);
    socket.write_buffer_bytes(COPY_SIZE + FRAME_ROOM);
    socket.read_message_max(0); // bytes are passed on as they come; text has a limit of its own
    websocket::response_type response;
    const std::string target = targetOf(client, apiRequest(request).target);
    const error_code fault = waitFor(session->io(), [&](auto handler) {
        socket.async_handshake(response, hostHeaderOf(client), target, std::move(handler));
    });
    if (fault) tellFailure(client, fault, response, time);
    const auto id = response[SESSION_HEADER];
    session->begin(id.empty() ? "?" : std::string(id), !response[KEPT_HEADER].empty(), ends);
    return session;
}

} // namespace

std::unique_ptr<Session> openWebSocketSession(HTTPS_CLIENT_T &client, const json &request,
                                              SESSION_ENDS_T &ends, seconds time)
{
    const auto end = steady_clock::now() + time;
    for (;;) {
        const auto left = std::chrono::ceil<seconds>(end - steady_clock::now());
        try {
            return openOnce(client, request, ends, left);
        } catch (const RequestError &refusal) {
            // A browser behind a forwarded port asks for many sessions at once.
            if (refusal.retry_after <= seconds(0) || refusal.retry_after >= left) throw;
            std::this_thread::sleep_for(refusal.retry_after);
        }
    }
}
