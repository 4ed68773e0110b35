#include "backend/sessions/socket_client.h"

#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace backend {

namespace asio = boost::asio;
using boost::system::error_code;
using Socket = asio::generic::stream_protocol::socket;

class SocketClient final : public SessionClient {
public:
    explicit SocketClient(Socket socket) : socket_(std::move(socket))
    {
        error_code ignored; // a client that is gone already shows in the first read; Unix sockets
                            // have no such option
        socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
        socket_.non_blocking(true, ignored);
    }

    std::size_t readSome(std::span<std::uint8_t> bytes, Error &error) override
    {
        return socket_.read_some(asio::buffer(bytes.data(), bytes.size()), error);
    }

    void asyncRead(std::span<std::uint8_t> bytes, Done done) override
    {
        socket_.async_read_some(asio::buffer(bytes.data(), bytes.size()), std::move(done));
    }

    std::size_t writeSome(std::span<const std::uint8_t> bytes, Error &error) override
    {
        return socket_.write_some(asio::buffer(bytes.data(), bytes.size()), error);
    }

    void asyncWrite(std::span<const std::uint8_t> bytes, Done done) override
    {
        socket_.async_write_some(asio::buffer(bytes.data(), bytes.size()), std::move(done));
    }

    // Closing before the peer has closed too could turn what it has not read yet into a reset.
    END_WAIT endSending() override
    {
        error_code ignored; // a broken connection ends the read
        socket_.shutdown(Socket::shutdown_send, ignored);
        return END_WAIT::FOR_CLIENT;
    }

    void close(const SESSION_END_T & /*end*/, bool is_orderly) override
    {
        error_code ignored;
        if (!is_orderly) socket_.set_option(asio::socket_base::linger(true, 0), ignored);
        socket_.close(ignored);
    }

private:
    Socket socket_;
};

SessionClientPtr makeSocketClient(Socket socket)
{
    return std::make_unique<SocketClient>(std::move(socket));
}

} // namespace backend
