#include "backend/net/websocket_link.h"

#include "backend/net/admission.h"
#include "backend/net/buffer_pool.h"
#include "backend/net/kept.h"
#include "backend/net/memory.h"
#include "backend/net/peer_options.h"
#include "backend/net/tls_context.h"
#include "backend/net/tls_stream.h"
#include "backend/observe/log.h"

#include <chrono>
#include <exception>
#include <memory>
#include <type_traits>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/websocket.hpp>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <sys/socket.h>

namespace backend {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::system::error_code;
using tcp = asio::ip::tcp;
using PlainStream = tcp::socket;

constexpr auto CLOSE_TIME = std::chrono::seconds(1);

OUT_MESSAGE_T::~OUT_MESSAGE_T()
{
    if (is_secret) OPENSSL_cleanse(payload.data(), payload.size());
}

static constinit LINE_LIMIT_T g_given_up{"connections given up"};

static void logGivenUp(const char *reason) noexcept
{
    try {
        logLimited(g_given_up, LOG_LEVEL::WARNING, "a connection is given up: %s", reason);
    } catch (const std::exception &) { // no memory for the line either
        return;
    }
}

template <class Next>
class Link final : public WebsocketLink, public std::enable_shared_from_this<Link<Next>> {
public:
    template <class... Arguments>
    explicit Link(LINK_EVENTS_T events, PlacePtr place, Arguments &&...arguments)
        : events_(std::move(events)), stream_(std::forward<Arguments>(arguments)...),
          timer_(stream_.get_executor()), place_(std::move(place))
    {
        if constexpr (std::is_same_v<Next, TlsStream>) stream_.next_layer().setPlace(place_.get());
        setPeerOptions(beast::get_lowest_layer(stream_));
        setUserTimeout(beast::get_lowest_layer(stream_));
        stream_.set_option(websocket::stream_base::timeout{websocket::stream_base::none(),
                                                           websocket::stream_base::none(), false});
        stream_.set_option(
            websocket::stream_base::decorator([](websocket::response_type &response) {
                response.set(beast::http::field::server, "remote_access_backend");
            }));
        stream_.read_message_max(LINK_MESSAGE_MAX);
        stream_.auto_fragment(false);
        stream_.binary(true);
    }

    void accept() override
    {
        if (place_) watchPlace();
        if constexpr (std::is_same_v<Next, TlsStream>) {
            stream_.next_layer().async_handshake(handler([](Link &self, const error_code &error) {
                if (error)
                    self.accepted(error);
                else
                    self.upgrade();
            }));
        } else {
            upgrade();
        }
    }

    void leavePlace() override
    {
        if constexpr (std::is_same_v<Next, TlsStream>) stream_.next_layer().setPlace(nullptr);
        place_.reset();
    }

    void read() override
    {
        in_.consume(in_.size());
        in_.shrink_to_fit();
        stream_.async_read(in_, handler([](Link &self, const error_code &error, std::size_t) {
                               self.received(error);
                           }));
    }

    void write(OutMessagePtr message) override
    {
        out_ = std::move(message);
        const std::array<asio::const_buffer, 2> parts{
            asio::buffer(out_->header.bytes.data(), out_->header.size),
            asio::buffer(out_->payload.data(), out_->payload_size)};
        stream_.async_write(parts, handler([](Link &self, const error_code &error, std::size_t) {
                                self.written(error);
                            }));
    }

    void ping() override
    {
        if (closed_ || pinging_ || !stream_.is_open()) return;
        pinging_ = true;
        stream_.async_ping({}, handler([](Link &self, const error_code &) {
                               self.pinging_ = false; // a broken connection shows in the read
                           }));
    }

    std::chrono::milliseconds silence() override
    {
        tcp_info info{};
        socklen_t size = sizeof info;
        const int fd = beast::get_lowest_layer(stream_).native_handle();
        if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
            return std::chrono::hours(24); // closed: nobody waits for it any more
        return std::chrono::milliseconds(info.tcpi_last_data_recv);
    }

    void close(std::uint16_t code) override
    {
        if (closed_) return;
        if (!stream_.is_open()) return abort();
        closed_ = true;
        timer_.expires_after(CLOSE_TIME);
        timer_.async_wait([self = this->shared_from_this()](const error_code &error) {
            if (!error) self->abort();
        });
        stream_.async_close(websocket::close_reason(code),
                            [self = this->shared_from_this()](const error_code &) {
                                self->timer_.cancel();
                                self->abort();
                            });
    }

    void abort() override
    {
        closed_ = true;
        leavePlace();
        shut();
    }

    // What is under way ends with an error.
    void shut() noexcept
    {
        error_code ignored; // the socket may be closed already
        beast::get_lowest_layer(stream_).close(ignored);
    }

private:
    // For an operation's end: keeps the link, and guards what `call` does with it.
    template <class Call> auto handler(Call call)
    {
        return [kept = Kept<Link>(this->shared_from_this()), call](auto... results) mutable {
            const auto self = kept.release();
            self->guarded([&] { call(*self, results...); });
        };
    }

    template <class Call> void guarded(Call call)
    {
        try {
            call();
            if (!wasMemoryShort()) return;
            logGivenUp("memory has run out");
        } catch (const std::exception &fault) {
            logGivenUp(fault.what());
        }
        shut();
        if (!closed_) events_.received(asio::error::no_memory, {}, false);
        (void)takeReserve();
    }

    void expelled(const char *reason)
    {
        if (!closed_) events_.expelled(reason);
    }

    void watchPlace()
    {
        place_->whenExpelled([weak = this->weak_from_this()](const char *reason) {
            const auto self = weak.lock();
            if (self) self->guarded([&] { self->expelled(reason); });
        });
    }

    void upgrade()
    {
        if (closed_) return;
        stream_.async_accept(
            handler([](Link &self, const error_code &error) { self.accepted(error); }));
    }

    void accepted(const error_code &error)
    {
        if (place_) (void)place_->noteProgress(0);
        if (!closed_) events_.accepted(error);
    }

    void received(const error_code &error)
    {
        const auto *bytes = static_cast<const std::uint8_t *>(in_.cdata().data());
        if (!closed_) events_.received(error, {bytes, in_.size()}, stream_.got_binary());
    }

    void written(const error_code &error)
    {
        if (!closed_) events_.written(error, std::move(out_));
    }

    LINK_EVENTS_T events_;
    websocket::stream<Next, false>
        stream_; // false: the code of the compression extension is left out
    asio::steady_timer timer_;
    beast::basic_flat_buffer<BlockAllocator<char>> in_;
    OutMessagePtr out_;
    PlacePtr place_; // null once the handshake is accepted
    bool closed_ = false;
    bool pinging_ = false;
};

std::shared_ptr<WebsocketLink> makeWebsocketLink(tcp::socket socket,
                                                 const std::shared_ptr<TLS_CONTEXT_T> &tls,
                                                 PlacePtr place, LINK_EVENTS_T events)
{
    if (!tls)
        return std::make_shared<Link<PlainStream>>(std::move(events), std::move(place),
                                                   std::move(socket));
    return std::make_shared<Link<TlsStream>>(std::move(events), std::move(place), std::move(socket),
                                             nativeContext(*tls));
}

} // namespace backend
