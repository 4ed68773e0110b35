#include "backend/api/session_socket.h"
#include "backend/limits.h"
#include "backend/net/tls_stream.h"
#include "backend/operations/fault.h"
#include "tests/support/test_certificates.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace backend;
namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr std::size_t MUCH = std::size_t{8} << 20;

static std::string pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; i++)
        bytes[i] = static_cast<char>(i * 31 >> 5);
    return bytes;
}

// A client and, in the same thread, the door that has read its request.
class SessionSocketTest : public testing::Test {
protected:
    SessionSocketTest()
    {
        const IDENTITY_T identity = makeIdentity({});
        SSL_CTX_use_certificate(server_context.native_handle(), identity.certificate.get());
        SSL_CTX_use_PrivateKey(server_context.native_handle(), identity.key.get());
        tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
        client.next_layer().next_layer().connect(acceptor.local_endpoint());
        stream = std::make_shared<TlsStream>(acceptor.accept(), server_context.native_handle());
        client.set_option(websocket::stream_base::decorator([](websocket::request_type &request) {
            request.set(http::field::sec_websocket_protocol, "other, remote-access.v1");
        }));
        client.auto_fragment(false);
        client.read_message_max(0);
        client.binary(true);
        limits.drain_time = 300ms;
        ask();
    }

    void ask()
    {
        stream->async_handshake([this](const error_code &) {
            http::async_read_header(*stream, behind, parser,
                                    [this](const error_code &, std::size_t) { is_asked = true; });
        });
        client.next_layer().async_handshake(
            asio::ssl::stream_base::client, [this](const error_code &) {
                client.async_handshake(answer, "h", "/", [this](const error_code &it) {
                    is_answered = true;
                    client_error = it;
                });
            });
        runUntil([this] { return is_asked; });
        checkUpgrade(parser.get().base());
        socket = makeSessionSocket(stream, parser.get().base(), limits);
        session = takeSessionClient(socket);
        EXPECT_EQ(takeSessionClient(socket), nullptr);
    }

    void open()
    {
        openSessionSocket(socket, "n1", true);
        runUntil([this] { return is_answered; });
        ASSERT_EQ(client_error, error_code());
        EXPECT_EQ(answer[SESSION_NUMBER_HEADER], "n1");
        EXPECT_EQ(answer[SESSION_KEPT_HEADER], "1");
        EXPECT_EQ(answer[http::field::sec_websocket_protocol], SESSION_PROTOCOL);
    }

    void runFor(std::chrono::milliseconds time)
    {
        io.restart();
        io.run_for(time);
    }

    void runUntil(const std::function<bool()> &is_true)
    {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (!is_true() && std::chrono::steady_clock::now() < deadline) {
            io.restart();
            io.run_one_for(10ms);
        }
        EXPECT_TRUE(is_true());
    }

    // ---- the session's part

    void readSession()
    {
        session->asyncRead(storage, [this](const error_code &error, std::size_t count) {
            received.append(storage.begin(), storage.begin() + static_cast<std::ptrdiff_t>(count));
            read_error = error;
            if (!error) readSession();
        });
    }

    void writeSession(std::size_t from = 0)
    {
        const auto *first = reinterpret_cast<const std::uint8_t *>(sent.data());
        session->asyncWrite({first + from, sent.size() - from},
                            [this, from](const error_code &error, std::size_t count) {
                                written = from + count;
                                write_error = error;
                                if (!error && written < sent.size()) writeSession(written);
                            });
    }

    // ---- the client's part

    void send(const std::string &message, bool is_text = false)
    {
        bool is_sent = false;
        client.binary(!is_text);
        client.async_write(asio::buffer(message),
                           [&](const error_code &, std::size_t) { is_sent = true; });
        runUntil([&] { return is_sent; });
    }

    void readClient()
    {
        client.async_read(in, [this](const error_code &error, std::size_t) {
            client_error = error;
            if (error) return;
            (client.got_text() ? texts : bytes) +=
                std::string(static_cast<const char *>(in.data().data()), in.size());
            in.consume(in.size());
            readClient();
        });
    }

    bool isClosed()
    {
        return bool(client_error);
    }

    asio::io_context io;
    asio::ssl::context server_context{asio::ssl::context::tls_server};
    asio::ssl::context client_context{asio::ssl::context::tls_client};
    websocket::stream<asio::ssl::stream<tcp::socket>> client{io, client_context};
    websocket::response_type answer;
    LIMITS_T limits;
    std::shared_ptr<TlsStream> stream;
    boost::beast::flat_buffer behind, in;
    http::request_parser<http::empty_body> parser;
    SessionSocketPtr socket;
    bool is_asked = false, is_answered = false;
    std::vector<std::uint8_t> storage = std::vector<std::uint8_t>(48000);
    std::string sent, received, bytes, texts;
    std::size_t written = 0;
    error_code read_error, write_error, client_error;
    SessionClientPtr session;
};

TEST_F(SessionSocketTest, CarriesAllBytesBothWaysAndTellsTheEnd)
{
    sent = pattern(MUCH);
    writeSession(); // the device is quick: before the client has its answer
    readSession();
    open();
    readClient();
    for (std::size_t from = 0; from < MUCH; from += 65536)
        send(sent.substr(from, 65536));
    send("");
    send(R"({ "end" : "sending" })", true);
    runUntil([this] { return read_error && bytes.size() == MUCH; });
    EXPECT_EQ(read_error, asio::error::eof);
    EXPECT_TRUE(received == sent);
    EXPECT_TRUE(bytes == sent);
    EXPECT_EQ(session->endSending(), END_WAIT::NOTHING);
    session->close({"the service closed", true, 7, 8}, true);
    runUntil([this] { return isClosed(); });
    EXPECT_EQ(texts, R"({"bytes_down":8,"bytes_up":7,"ended":"the service closed","whole":true})");
    EXPECT_EQ(client.reason().code, 1000);
    EXPECT_EQ(client.reason().reason.c_str(), std::string("the service closed"));
    session.reset();
    socket.reset();
    runUntil([this] { return stream.use_count() == 1; });
}

TEST_F(SessionSocketTest, CutOffIsToldBehindTheBytesUnderWay)
{
    open();
    sent = pattern(60000);
    writeSession();
    const std::string reason = std::string(122, 'a') + "\xc3\xa4 and a byte \xff";
    session->close({reason.c_str(), false, 1, 2, true}, false);
    readSession(); // fails at once
    runFor(10ms);
    EXPECT_EQ(read_error, asio::error::operation_aborted);
    readClient();
    runUntil([this] { return isClosed(); });
    EXPECT_EQ(bytes, sent);
    EXPECT_THAT(texts,
                HasSubstr("a\xc3\xa4 and a byte \xef\xbf\xbd\",\"final\":true,\"whole\":false"));
    EXPECT_EQ(client.reason().code, 4000);
    EXPECT_EQ(client.reason().reason.c_str(), std::string(122, 'a'));
}

TEST_F(SessionSocketTest, WhatIsNotReadIsNotTaken)
{
    open();
    sent = pattern(8 * MUCH);
    writeSession();
    bool is_sent = false;
    const std::string message(60000, 'x');
    std::size_t messages = 0;
    const std::function<void()> sendOn = [&] {
        client.async_write(asio::buffer(message), [&](const error_code &error, std::size_t) {
            if (!error && ++messages < 1000) return sendOn();
            is_sent = true;
        });
    };
    sendOn();
    runFor(500ms);
    EXPECT_FALSE(is_sent);
    EXPECT_LT(written, sent.size());
    EXPECT_FALSE(write_error);
    // A client that does not read its end is cut off.
    const auto before = std::chrono::steady_clock::now();
    session->close({"the client does not read", false, 0, 0}, false);
    runUntil([&] { return write_error && is_sent; });
    EXPECT_GT(std::chrono::steady_clock::now() - before, limits.drain_time - 50ms);
}

TEST_F(SessionSocketTest, PausedClientLosesNothing)
{
    open();
    sent = pattern(2 * MUCH);
    writeSession();
    runFor(300ms);
    EXPECT_LT(written, sent.size());
    readClient();
    runUntil([this] { return bytes.size() == sent.size(); });
    EXPECT_TRUE(bytes == sent);
}

TEST_F(SessionSocketTest, RefusedSessionLeavesTheConnectionToItsDoor)
{
    readSession();
    session->close({"the device did not answer", false, 0, 0}, false);
    session.reset();
    openSessionSocket(socket, "n1", false);
    runFor(10ms);
    EXPECT_EQ(read_error, asio::error::operation_aborted);
    http::response<http::string_body> problem(http::status::gateway_timeout, 11, "no");
    problem.prepare_payload();
    http::async_write(*stream, problem,
                      [](const error_code &error, std::size_t) { EXPECT_FALSE(error); });
    runUntil([this] { return is_answered; });
    EXPECT_EQ(client_error, websocket::error::upgrade_declined);
    EXPECT_EQ(answer.result_int(), 504U);
}

struct BreachRow {
    const char *name;
    std::vector<std::string> texts; // sent first
    std::string binary;             // if not empty
    std::string raw;                // as TLS records without a frame
    unsigned code;
    const char *reason;
};

class SessionSocketBreach : public SessionSocketTest,
                            public testing::WithParamInterface<BreachRow> {};

TEST_P(SessionSocketBreach, ClosesWithItsCode)
{
    const BreachRow &row = GetParam();
    open();
    readSession();
    readClient();
    for (const std::string &text : row.texts)
        send(text, true);
    if (!row.binary.empty()) send(row.binary);
    if (!row.raw.empty()) asio::write(client.next_layer(), asio::buffer(row.raw));
    runUntil([this] { return isClosed() && read_error; });
    EXPECT_EQ(client_error, websocket::error::closed); // and no reset on top
    EXPECT_EQ(client.reason().code, row.code);
    EXPECT_STREQ(session->lossReason(), row.reason);
    writeSession(); // a session that no longer reads learns it so
    runUntil([this] { return bool(write_error); });
}

constexpr char SENDING_ENDS[] = R"({"end":"sending"})";
constexpr char UNKNOWN_CONTROL[] = "the client sent a control message that is unknown";
constexpr char NO_FRAME[] = "the client sent what is no WebSocket frame";
INSTANTIATE_TEST_SUITE_P(
    Rows, SessionSocketBreach,
    testing::Values(
        BreachRow{"unknown", {R"({"end":"all"})"}, "", "", 1008, UNKNOWN_CONTROL},
        BreachRow{"no_json", {"{\"end\":"}, "", "", 1008, UNKNOWN_CONTROL},
        BreachRow{"long", {std::string(300, ' ') + SENDING_ENDS}, "", "", 1008, UNKNOWN_CONTROL},
        BreachRow{"bytes_behind_the_end",
                  {SENDING_ENDS},
                  "x",
                  "",
                  1008,
                  "the client sent more after the end of its sending"},
        BreachRow{"second_end",
                  {SENDING_ENDS, SENDING_ENDS},
                  "",
                  "",
                  1008,
                  "the client sent more after the end of its sending"},
        BreachRow{"big",
                  {},
                  std::string(65537, 'x'),
                  "",
                  1009,
                  "the client sent a message of more than 64 KiB"},
        BreachRow{"no_utf8", {"\xff"}, "", "", 1007, NO_FRAME},
        BreachRow{"unmasked", {}, "", "\x82\x01x", 1002, NO_FRAME},
        BreachRow{"garbage", {}, "", std::string(400000, '\xfe'), 1002, NO_FRAME}),
    [](const auto &row) { return row.param.name; });

TEST_F(SessionSocketTest, ClientThatLeavesEndsTheSession)
{
    open();
    readSession();
    readClient();
    client.async_close(websocket::close_code::normal, [](const error_code &) {});
    runUntil([this] { return bool(read_error); });
    EXPECT_NE(read_error, asio::error::eof); // only its end of sending is one
    EXPECT_STREQ(session->lossReason(), "the client has closed its connection");
}

TEST_F(SessionSocketTest, VanishedClientEndsTheSession)
{
    open();
    readSession();
    runFor(10ms);
    client.next_layer().next_layer().close();
    runUntil([this] { return bool(read_error); });
    EXPECT_NE(read_error, asio::error::eof);
    EXPECT_STREQ(session->lossReason(), "the client's connection is lost");
    session->close({"", false, 0, 0}, false);
    session.reset();
    socket.reset();
    runUntil([this] { return stream.use_count() == 1; });
}

TEST(SessionUpgrade, OnlyFittingRequestsPass)
{
    const struct {
        http::field field;
        const char *value; // null: left out
        std::optional<FAULT> fault;
    } rows[] = {
        {http::field::host, "h:1", {}},
        {http::field::host, nullptr, FAULT::BAD_REQUEST},
        {http::field::upgrade, "h2c", FAULT::BAD_REQUEST},
        {http::field::connection, "keep-alive", FAULT::BAD_REQUEST},
        {http::field::sec_websocket_version, "8", FAULT::BAD_REQUEST},
        {http::field::sec_websocket_key, "short", FAULT::BAD_REQUEST},
        {http::field::sec_websocket_protocol, "remote-access.v2", FAULT::BAD_REQUEST},
        {http::field::sec_websocket_protocol, "x, remote-access.v1", {}},
        {http::field::origin, "https://H:1", {}},
        {http::field::origin, "https://other", FAULT::DENIED},
        {http::field::origin, "http://h:1", FAULT::DENIED},
        {http::field::origin, "null", FAULT::DENIED},
    };
    for (const auto &row : rows) {
        http::request<http::empty_body> request(http::verb::get, "/", 11);
        request.set(http::field::host, "h:1");
        request.set(http::field::upgrade, "websocket");
        request.set(http::field::connection, "keep-alive, Upgrade");
        request.set(http::field::sec_websocket_version, "13");
        request.set(http::field::sec_websocket_key, "dGhlIHNhbXBsZSBub25jZQ==");
        request.erase(row.field);
        if (row.value != nullptr) request.set(row.field, row.value);
        std::optional<FAULT> fault;
        try {
            checkUpgrade(request.base());
        } catch (const OperationFault &it) {
            fault = it.fault;
        }
        EXPECT_EQ(fault, row.fault) << row.field << ": " << (row.value ? row.value : "none");
    }
}
