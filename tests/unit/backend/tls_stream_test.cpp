#include "backend/net/tls_stream.h"
#include "tests/support/test_certificates.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

using namespace backend;
namespace asio = boost::asio;
using boost::system::error_code;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

// A stream and, in the same thread, a peer whose bytes reach it in pieces of a chosen size.
struct PAIR_T {
    PAIR_T()
    {
        const IDENTITY_T identity = makeIdentity({});
        SSL_CTX_use_certificate(server_context.native_handle(), identity.certificate.get());
        SSL_CTX_use_PrivateKey(server_context.native_handle(), identity.key.get());
        tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
        wire.connect(acceptor.local_endpoint());
        tcp::socket socket = acceptor.accept();
        socket.set_option(asio::socket_base::send_buffer_size(1)); // for short writes
        wire.non_blocking(true);
        stream.emplace(std::move(socket), server_context.native_handle());
        peer = SSL_new(client_context.native_handle());
        SSL_set_bio(peer, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_connect_state(peer);
    }
    ~PAIR_T()
    {
        SSL_free(peer);
    }
    PAIR_T(const PAIR_T &) = delete;
    PAIR_T &operator=(const PAIR_T &) = delete;

    void run(std::chrono::milliseconds time)
    {
        io.restart();
        io.run_for(time);
    }

    void send(const std::string &bytes)
    {
        asio::write(wire, asio::buffer(bytes), ignored);
        run(0ms);
    }

    // What the peer has to say goes out, what has come is given to it.
    void pumpUntil(const std::function<bool()> &is_done, int piece = 65536)
    {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        std::string bytes(65536, '\0');
        while (!is_done() && std::chrono::steady_clock::now() < deadline) {
            for (int size = 0; (size = BIO_read(SSL_get_wbio(peer), bytes.data(), piece)) > 0;)
                send(bytes.substr(0, static_cast<std::size_t>(size)));
            run(1ms);
            const std::size_t size = wire.read_some(asio::buffer(bytes), ignored);
            if (size > 0) BIO_write(SSL_get_rbio(peer), bytes.data(), static_cast<int>(size));
        }
        ASSERT_TRUE(is_done());
    }

    // With which a read, or the handshake, ends.
    error_code errorOf(bool is_greeted, const std::function<void()> &meanwhile)
    {
        std::optional<error_code> done;
        const auto note = [&](const error_code &error, std::size_t = 0) { done = error; };
        if (is_greeted)
            stream->async_read_some(asio::buffer(storage), note);
        else
            stream->async_handshake([note](const error_code &error) { note(error); });
        meanwhile();
        pumpUntil([&] { return done.has_value(); });
        return done.value_or(error_code());
    }

    asio::io_context io;
    asio::ssl::context server_context{asio::ssl::context::tls_server};
    asio::ssl::context client_context{asio::ssl::context::tls_client};
    tcp::socket wire{io};
    std::optional<TlsStream> stream;
    SSL *peer = nullptr;
    std::string storage = std::string(100000, '\0');
    error_code ignored;
};

static void greet(PAIR_T &pair, int piece = 65536)
{
    std::optional<error_code> greeted;
    pair.stream->async_handshake([&](const error_code &error) { greeted = error; });
    pair.pumpUntil([&] { return SSL_do_handshake(pair.peer) == 1 && greeted; }, piece);
    EXPECT_EQ(greeted, error_code());
}

TEST(TlsStream, CarriesEveryByteHoweverRecordsAreCut)
{
    PAIR_T pair;
    const int piece = 13;
    greet(pair, piece);
    std::string sent(50000, '\0');
    for (std::size_t i = 0; i < sent.size(); i++)
        sent[i] = static_cast<char>(i * 31 >> 3);
    std::string got;
    const std::function<void()> readOn = [&] {
        pair.stream->async_read_some(asio::buffer(pair.storage),
                                     [&](const error_code &error, std::size_t count) {
                                         got += pair.storage.substr(0, count);
                                         if (!error && got.size() < sent.size()) readOn();
                                     });
    };
    readOn();
    for (const std::size_t half : {std::size_t{0}, sent.size() / 2}) {
        SSL_write(pair.peer, sent.data() + half, static_cast<int>(sent.size() / 2));
        SSL_key_update(pair.peer, SSL_KEY_UPDATE_REQUESTED);
    }
    pair.pumpUntil([&] { return got.size() >= sent.size(); }, piece);
    EXPECT_EQ(got, sent);

    constexpr std::size_t RECORD = 16384;
    for (const std::size_t last : {std::size_t{40000}, 3 * RECORD, 3 * RECORD + 500}) {
        const std::array<asio::const_buffer, 4> parts{
            asio::buffer(sent.data(), 3), asio::buffer(sent.data(), 0),
            asio::buffer(sent.data() + 3, last - 3),
            asio::buffer(sent.data() + last, sent.size() - last)};
        std::size_t written = 0;
        got.clear();
        pair.stream->async_write_some(
            parts, [&](const error_code &, std::size_t count) { written = count; });
        pair.pumpUntil([&] {
            const int size = SSL_read(pair.peer, pair.storage.data(), 100000);
            if (size > 0) got += pair.storage.substr(0, static_cast<std::size_t>(size));
            return written > 0 && got.size() >= sent.size();
        });
        ASSERT_EQ(written, sent.size());
        ASSERT_EQ(got, sent);
    }

    EXPECT_EQ(pair.errorOf(true, [&] { SSL_shutdown(pair.peer); }), asio::error::eof);
    pair.stream->async_shutdown([](const error_code &error) { EXPECT_FALSE(error); });
    pair.pumpUntil([&] { return SSL_shutdown(pair.peer) == 1; });
}

TEST(TlsStream, PeerThatDoesNotReadHoldsTheWriteBack)
{
    PAIR_T pair;
    greet(pair);
    int written = 0;
    std::optional<error_code> failed;
    const std::function<void()> writeOn = [&] {
        pair.stream->async_write_some(asio::buffer(pair.storage),
                                      [&](const error_code &error, std::size_t) {
                                          written++;
                                          if (error) failed = error;
                                          if (!error && written < 500) writeOn();
                                      });
    };
    writeOn();
    pair.run(200ms);
    EXPECT_LT(written, 500);
    EXPECT_FALSE(failed);
    pair.stream->next_layer().close();
    pair.run(200ms);
    EXPECT_EQ(failed, asio::error::operation_aborted);
}

TEST(TlsStream, EveryOtherEndIsAnError)
{
    const struct {
        const char *what;
        bool is_greeted;
        void (*end)(PAIR_T &);
        error_code error; // none: one of TLS
    } rows[] = {
        {"no TLS", false, [](PAIR_T &pair) { pair.send("GET / HTTP/1.1\r\n\r\n"); }, {}},
        {"cut before", false, [](PAIR_T &pair) { pair.wire.close(); },
         asio::ssl::error::stream_truncated},
        {"cut", true, [](PAIR_T &pair) { pair.wire.close(); }, asio::ssl::error::stream_truncated},
        {"cut in a record", true,
         [](PAIR_T &pair) {
             pair.send({"\x17\x03\x03\x01\x00xx", 7});
             pair.wire.close();
         },
         asio::ssl::error::stream_truncated},
        {"reset", true,
         [](PAIR_T &pair) {
             pair.wire.set_option(asio::socket_base::linger(true, 0));
             pair.wire.close();
         },
         asio::error::connection_reset},
        {"closed here", true, [](PAIR_T &pair) { pair.stream->next_layer().close(); },
         asio::error::operation_aborted},
        {"forged",
         true,
         [](PAIR_T &pair) {
             pair.send(std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'x'));
         },
         {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        PAIR_T pair;
        if (row.is_greeted) greet(pair);
        const error_code error = pair.errorOf(row.is_greeted, [&] { row.end(pair); });
        if (row.error == error_code())
            EXPECT_EQ(error.category(), asio::error::get_ssl_category());
        else
            EXPECT_EQ(error, row.error);
        if (row.error != asio::error::operation_aborted) {
            EXPECT_EQ(pair.errorOf(true, [] {}), error); // and for good
        }
    }
}

TEST(TlsStream, PeerWithoutEndLeavesOthersATurn)
{
    PAIR_T pair;
    pair.stream->next_layer().set_option(asio::socket_base::receive_buffer_size(1 << 20));
    greet(pair);
    const char *bytes = nullptr;
    std::size_t size = 0;
    while (size < TlsStream::READ_SIZE + 10000) {
        SSL_key_update(pair.peer, SSL_KEY_UPDATE_NOT_REQUESTED);
        SSL_do_handshake(pair.peer);
        size = static_cast<std::size_t>(BIO_get_mem_data(SSL_get_wbio(pair.peer), &bytes));
    }
    pair.send({bytes, size});
    pair.run(100ms);
    ASSERT_EQ(pair.stream->next_layer().available(), size);
    pair.stream->async_read_some(asio::buffer(pair.storage),
                                 [](const error_code &, std::size_t) {});
    pair.io.restart();
    pair.io.run_one();
    EXPECT_EQ(pair.stream->next_layer().available(), size - TlsStream::READ_SIZE);
}
