// The channel once it is open: the same cases over plain TCP and over TLS.
#include "scripted_server.h"

#include <cstring>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <poll.h>

using testing::HasSubstr;

namespace {

constexpr int FIN = 0x80;
constexpr int TEXT = 1;
constexpr int BINARY = 2;
constexpr int CLOSE = 8;
constexpr int PING = 9;
constexpr int PONG = 10;
constexpr std::size_t MESSAGE_SIZE = 50 * 1024;
constexpr std::size_t HUGE_SIZE = 16 * 1024 * 1024; // more than the sockets of both ends hold

enum TRANSPORT : int { PLAIN, TLS };

const IDENTITY_T &sharedIdentity()
{
    static const IDENTITY_T identity = makeIdentity({.names = "IP:127.0.0.1"});
    return identity;
}

class Channel : public testing::TestWithParam<TRANSPORT> {
protected:
    void dial(CLIENT_T &from, const ScriptedServer &to)
    {
        from.dial("127.0.0.1", to.port(), identity ? optionsFor(ca_path.c_str()) : nullptr);
        ASSERT_TRUE(nopoll_conn_is_ok(from.conn.get())) << from.log;
    }

    void start(ScriptedServer::Answer answer)
    {
        server.acceptOne(std::move(answer));
        ASSERT_NO_FATAL_FAILURE(dial(client, server));
        conn = client.conn.get();
    }

    void open()
    {
        ASSERT_NO_FATAL_FAILURE(start(properAnswer));
        ASSERT_TRUE(nopoll_conn_wait_until_connection_ready(conn, PATIENCE_S)) << client.log;
        server.settle();
    }

    int send(const std::string &message)
    {
        return nopoll_conn_send_binary(conn, message.data(), static_cast<long>(message.size()));
    }

    // What a client logs about a server that gives this answer; it must end the channel by itself.
    std::string refusalOf(ScriptedServer::Answer answer, std::string *last_words = nullptr)
    {
        ScriptedServer liar{identity};
        CLIENT_T other;
        liar.acceptOne(std::move(answer));
        dial(other, liar);
        const bool ready = nopoll_conn_wait_until_connection_ready(other.conn.get(), PATIENCE_S);
        EXPECT_EQ(ready, last_words != nullptr);
        EXPECT_EQ(awaitPiece(other.conn.get()), nullptr);
        EXPECT_FALSE(nopoll_conn_is_ok(other.conn.get()));
        EXPECT_EQ(nopoll_conn_socket(other.conn.get()), -1);
        liar.settle();
        if (last_words) *last_words = liar.readFrame().payload;
        return other.log;
    }

    // Sends three messages and one that stays pending; how much of its payload has left.
    int sendUntilBlocked()
    {
        for (unsigned i = 0; i < 3; ++i)
            EXPECT_EQ(send(patternOf(MESSAGE_SIZE, i)), static_cast<int>(MESSAGE_SIZE));
        int left = std::max(send(patternOf(HUGE_SIZE, 3)), 0);
        int more = 0;
        while ((more = nopoll_conn_complete_pending_write(conn)) > 0)
            left += more;
        EXPECT_EQ(more, -2);
        return left;
    }

    void expectWhatWasSent()
    {
        for (unsigned i = 0; i < 4; ++i)
            EXPECT_TRUE(server.readFrame().payload ==
                        patternOf(i < 3 ? MESSAGE_SIZE : HUGE_SIZE, i))
                << i;
    }

    int drainPending()
    {
        int left = 0;
        while (nopoll_conn_is_ok(conn) && nopoll_conn_pending_write_bytes(conn) > 0)
            left += std::max(nopoll_conn_complete_pending_write(conn), 0);
        return left;
    }

    void awaitReadable()
    {
        pollfd entry{nopoll_conn_socket(conn), POLLIN, 0};
        ASSERT_EQ(poll(&entry, 1, PATIENCE_S * 1000), 1);
    }

    TemporaryDirectory directory;
    std::string ca_path = directory.write("ca.pem", pemOf(sharedIdentity()));
    const IDENTITY_T *identity = GetParam() == TLS ? &sharedIdentity() : nullptr;
    ScriptedServer server{identity};
    CLIENT_T client;
    noPollConn *conn = nullptr;
};

std::string bytesOf(std::initializer_list<int> values)
{
    std::string bytes;
    for (const int value : values)
        bytes += static_cast<char>(value);
    return bytes;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Transports, Channel, testing::Values(PLAIN, TLS),
                         [](const auto &row) { return row.param == TLS ? "Tls" : "Plain"; });

TEST_P(Channel, OpensWithTheDefaultRequest)
{
    open();
    EXPECT_EQ(server.request().find("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n"), 0U)
        << server.request();
    EXPECT_THAT(server.request(), HasSubstr("\r\nOrigin: http://127.0.0.1\r\n"));
    EXPECT_THAT(server.request(), HasSubstr("\r\nSec-WebSocket-Version: 13\r\n"));
    EXPECT_EQ(nopoll_conn_is_tls_on(conn), GetParam() == TLS);
    EXPECT_STREQ(nopoll_conn_get_requested_url(conn), "/");
    EXPECT_STREQ(nopoll_conn_get_origin(conn), "http://127.0.0.1");
    const int flags = fcntl(nopoll_conn_socket(conn), F_GETFD);
    EXPECT_TRUE(flags & FD_CLOEXEC);
}

TEST_P(Channel, WaitsInVainForAServerThatDoesNotAnswer)
{
    start([](const std::string &) { return std::string{}; });
    EXPECT_FALSE(nopoll_conn_wait_until_connection_ready(conn, 1));
    EXPECT_TRUE(nopoll_conn_is_ok(conn));
    EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
    EXPECT_EQ(send("too early"), -1);
    server.settle();
    server.hangUp();
    EXPECT_FALSE(nopoll_conn_wait_until_connection_ready(conn, PATIENCE_S));
    EXPECT_EQ(nopoll_conn_socket(conn), -1);
}

TEST_P(Channel, SeesBytesThatCameBehindTheAnswer)
{
    start([](const std::string &request) {
        return properAnswer(request) + serverFrame(FIN | BINARY, "early") +
               serverFrame(FIN | BINARY, "next");
    });
    ASSERT_TRUE(nopoll_conn_wait_until_connection_ready(conn, PATIENCE_S));
    EXPECT_GT(nopoll_conn_read_pending(conn), 0);
    EXPECT_EQ(awaitMessage(conn), "early");
    EXPECT_GT(nopoll_conn_read_pending(conn), 0);
    EXPECT_EQ(awaitMessage(conn), "next");
    EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
    EXPECT_EQ(nopoll_conn_read_pending(conn), 0);
}

TEST_P(Channel, RefusesAWrongAnswer)
{
    struct ROW_T {
        const char *what;
        const char *wrong; // replaced in a proper answer by `by`
        const char *by;
        const char *logged;
    };
    const ROW_T rows[] = {
        {"200 with upgrade headers", "101 Switching Protocols", "200 OK", "HTTP/1.1 200 OK"},
        {"403", "101 Switching Protocols", "403 For\x1b[2Jbidden", "403 For?[2Jbidden"},
        {"longer status", "101 ", "1010 ", "refused the upgrade"},
        {"no accept", "Sec-WebSocket-Accept", "X-Accept", "Sec-WebSocket-Accept"},
        {"wrong accept", "Accept: ", "Accept: A", "Sec-WebSocket-Accept"},
        {"no upgrade", "upgrade: ", "X-upgrade: ", "Upgrade"},
        {"no connection", ", upgrade", "", "Connection"},
        {"extension", "\r\n\r\n", "\r\nSec-WebSocket-Extensions: permessage-deflate\r\n\r\n",
         "extension"},
        {"sub-protocol", "\r\n\r\n", "\r\nSec-WebSocket-Protocol: chat\r\n\r\n", "sub-protocol"},
        {"line without colon", "\r\n\r\n", "\r\nnonsense\r\n\r\n", "malformed header"},
    };
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.what);
        const auto answer = [&row](const std::string &request) {
            std::string text = properAnswer(request);
            return text.replace(text.find(row.wrong), strlen(row.wrong), row.by);
        };
        EXPECT_THAT(refusalOf(answer), HasSubstr(row.logged));
    }
    const auto endless = [](const std::string &) {
        return "HTTP/1.1 101 \r\nX: " + std::string(9000, 'x');
    };
    EXPECT_THAT(refusalOf(endless), HasSubstr("too long"));
}

TEST_P(Channel, AssemblesFragments)
{
    struct ROW_T {
        const char *what;
        std::string bytes;
        std::string message;
    };
    const ROW_T rows[] = {
        {"one frame", serverFrame(FIN | BINARY, "abc"), "abc"},
        {"text", serverFrame(FIN | TEXT, "abc"), "abc"},
        {"empty message", serverFrame(FIN | BINARY, ""), ""},
        {"three fragments",
         serverFrame(BINARY, "ab") + serverFrame(0, "cd") + serverFrame(FIN, "ef"), "abcdef"},
        {"single bytes", serverFrame(BINARY, "a") + serverFrame(0, "b") + serverFrame(FIN, "c"),
         "abc"},
        {"empty final continuation",
         serverFrame(BINARY, "ab") + serverFrame(0, "cd") + serverFrame(FIN, ""), "abcd"},
        {"empty frames all over",
         serverFrame(BINARY, "") + serverFrame(0, "ab") + serverFrame(0, "") + serverFrame(0, "c") +
             serverFrame(FIN, ""),
         "abc"},
        {"nothing in three frames",
         serverFrame(BINARY, "") + serverFrame(0, "") + serverFrame(FIN, ""), ""},
        {"control frames between",
         serverFrame(BINARY, "ab") + serverFrame(FIN | PING, "p") +
             serverFrame(FIN | PONG, "unasked") + serverFrame(FIN, "cd"),
         "abcd"},
        {"longer length forms", serverFrame(BINARY, "ab", 2) + serverFrame(FIN, "cd", 8), "abcd"},
    };
    open();
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.what);
        server.write(row.bytes);
        EXPECT_EQ(awaitMessage(conn), row.message);
        for (std::size_t cut = 1; cut < row.bytes.size(); ++cut) { // the same in two segments
            std::string begun;
            server.write(row.bytes.substr(0, cut));
            awaitReadable();
            while (noPollMsg *piece = nopoll_conn_get_msg(conn)) {
                begun += textOf(piece);
                EXPECT_FALSE(nopoll_msg_is_final(piece));
            }
            server.write(row.bytes.substr(cut));
            EXPECT_EQ(awaitMessage(conn, begun), row.message) << cut;
        }
    }
    EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
}

TEST_P(Channel, TakesAFrameThatComesByteByByte)
{
    open();
    for (const std::size_t size : {5U, 300U, 70000U}) {
        SCOPED_TRACE(size);
        const std::string payload = patternOf(size, 1);
        const std::string bytes = serverFrame(FIN | BINARY, payload);
        const std::size_t header = bytes.size() - size;
        for (std::size_t i = 0; i < header; ++i) {
            server.write(bytes.substr(i, 1));
            awaitReadable();
            EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
            EXPECT_EQ(nopoll_conn_read_pending(conn), 0)
                << "an incomplete header was tried already";
        }
        server.write(bytes.substr(header, 3));
        server.write(bytes.substr(header + 3));
        EXPECT_EQ(awaitMessage(conn), payload);
    }
}

TEST_P(Channel, HandsOutALongFrameInPieces)
{
    open();
    const std::string payload = patternOf(1024 * 1024, 2);
    auto writing =
        std::async(std::launch::async, [&] { server.write(serverFrame(FIN | BINARY, payload)); });
    EXPECT_EQ(awaitMessage(conn), payload);
}

TEST_P(Channel, AnswersAPingAndGoesOnWithTheNextFrame)
{
    open();
    const std::string longest(125, 'p');
    server.write(serverFrame(FIN | PING, "\x82\x05payload") + serverFrame(FIN | PING, longest) +
                 serverFrame(FIN | BINARY, "data"));
    awaitReadable();
    EXPECT_EQ(awaitMessage(conn), "data");
    for (const std::string &payload : {std::string{"\x82\x05payload"}, longest}) {
        const CLIENT_FRAME_T pong = server.readFrame();
        EXPECT_EQ(pong.opcode, PONG);
        EXPECT_EQ(pong.payload, payload);
    }
}

TEST_P(Channel, RefusesAFrameAgainstTheProtocol)
{
    struct ROW_T {
        std::string bytes;
        const char *logged;
    };
    const ROW_T rows[] = {
        {bytesOf({FIN | 0x40 | BINARY, 0}), "reserved bits"},
        {bytesOf({FIN | 0x10 | BINARY, 0}), "reserved bits"},
        {bytesOf({FIN | 3, 0}), "reserved opcode"},
        {bytesOf({FIN | 0xB, 0}), "reserved opcode"},
        {bytesOf({FIN | BINARY, 0x80 | 1, 1, 2, 3, 4, 5}), "masked"},
        {serverFrame(FIN | PING, std::string(126, 'p')), "oversize control"},
        {serverFrame(PING, "p"), "fragmented control"},
        {serverFrame(FIN, "p"), "continuation of nothing"},
        {serverFrame(BINARY, "") + serverFrame(FIN | BINARY, "p"),
         "new message inside a fragmented"},
        {bytesOf({FIN | BINARY, 127, 0x80, 0, 0, 0, 0, 0, 0, 1}), "frame length above"},
        {serverFrame(FIN | CLOSE, "x"), "close frame with half a code"},
    };
    for (const ROW_T &row : rows) {
        std::string last_words;
        const auto answer = [&row](const std::string &request) {
            return properAnswer(request) + row.bytes;
        };
        EXPECT_THAT(refusalOf(answer, &last_words),
                    HasSubstr(std::string{"protocol error from the server: "} + row.logged));
        EXPECT_EQ(last_words, "\x03\xEA") << row.logged; // 1002
    }
}

TEST_P(Channel, AnswersACloseAndEnds)
{
    open();
    server.write(serverFrame(FIN | BINARY, "last") +
                 serverFrame(FIN | CLOSE, "\x03\xE9 going\naway"));
    EXPECT_EQ(awaitMessage(conn), "last");
    EXPECT_EQ(awaitPiece(conn), nullptr);
    EXPECT_EQ(nopoll_conn_socket(conn), -1);
    EXPECT_THAT(client.log, HasSubstr("1001  going?away"));
    const CLIENT_FRAME_T answer = server.readFrame();
    EXPECT_EQ(answer.opcode, CLOSE);
    EXPECT_EQ(answer.payload, "\x03\xE9");
    EXPECT_EQ(send("late"), -1);
}

TEST_P(Channel, SaysGoodbyeWhenItIsClosed)
{
    open();
    client.conn.reset();
    EXPECT_EQ(server.readFrame().opcode, CLOSE);
    EXPECT_EQ(server.read(1), "");
}

TEST_P(Channel, EndsWhenTheServerIsGone)
{
    open();
    server.hangUp();
    EXPECT_EQ(awaitPiece(conn), nullptr);
    EXPECT_EQ(nopoll_conn_socket(conn), -1);
    EXPECT_THAT(client.log, HasSubstr("ended the TCP connection"));
}

TEST_P(Channel, KeepsTheDescriptorWhenASendFails)
{
    for (const auto leave : {&ScriptedServer::reset, &ScriptedServer::hangUp}) {
        ScriptedServer leaving{identity};
        CLIENT_T other;
        leaving.acceptOne(properAnswer);
        dial(other, leaving);
        noPollConn *left = other.conn.get();
        ASSERT_TRUE(nopoll_conn_wait_until_connection_ready(left, PATIENCE_S));
        leaving.settle();
        const int fd = nopoll_conn_socket(left);
        (leaving.*leave)(); // after the second of them a signal would come, were it not prevented
        int result = 0;
        for (int i = 0; i < 1000 && result != -1; ++i)
            result = nopoll_conn_send_binary(left, "into the void", 13);
        EXPECT_EQ(result, -1);
        EXPECT_FALSE(nopoll_conn_is_ok(left));
        EXPECT_EQ(nopoll_conn_socket(left), -1);
        EXPECT_NE(fcntl(fd, F_GETFD), -1) << "its number may be another socket's by now";
        EXPECT_EQ(nopoll_conn_complete_pending_write(left), -1);
        EXPECT_EQ(nopoll_conn_get_msg(left), nullptr);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

TEST_P(Channel, KeepsFramesWholeAndInOrderBehindAStalledReader)
{
    open();
    const int left = sendUntilBlocked();
    const int pending = nopoll_conn_pending_write_bytes(conn);
    if (identity) { // over TLS nothing of a frame counts before all of it
        EXPECT_EQ(left, 0);
    } else {
        EXPECT_EQ(left + pending, static_cast<int>(HUGE_SIZE));
    }
    EXPECT_EQ(send("not taken"), -2);
    const int rest = nopoll_conn_pending_write_bytes(conn);
    EXPECT_LE(rest, pending);

    auto reading = std::async(std::launch::async, [&] {
        expectWhatWasSent();
        EXPECT_EQ(server.readFrame().payload, "after");
    });
    EXPECT_EQ(drainPending(), identity ? static_cast<int>(HUGE_SIZE) : rest);
    EXPECT_EQ(nopoll_conn_complete_pending_write(conn), 0);
    EXPECT_EQ(send("after"), 5);
}

TEST_P(Channel, AnswersTheNewestPingBehindAPendingFrame)
{
    open();
    sendUntilBlocked();
    for (const char *payload : {"first", "second", "third"}) {
        server.write(serverFrame(FIN | PING, payload));
        awaitReadable();
        EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
    }
    auto reading = std::async(std::launch::async, [&] {
        expectWhatWasSent();
        const CLIENT_FRAME_T pong = server.readFrame();
        EXPECT_EQ(pong.opcode, PONG);
        EXPECT_EQ(pong.payload, "third");
        EXPECT_EQ(server.readFrame().payload, "after");
    });
    drainPending();
    EXPECT_EQ(send("after"), 5);
}

TEST_P(Channel, ReturnsDuringAFloodOfControlFrames)
{
    open();
    std::string flood;
    for (int i = 0; i < 3000; ++i)
        flood += serverFrame(FIN | PONG, std::string(125, 'p'));
    server.write(flood + serverFrame(FIN | BINARY, "through")); // the sockets hold as much
    awaitReadable();
    EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr) << "one call took the whole flood";
    EXPECT_EQ(awaitMessage(conn), "through");
}

TEST_P(Channel, SurvivesAChangeOfKeys)
{
    if (GetParam() == PLAIN) return; // nothing of the kind there
    open();
    server.requestKeyUpdate();
    server.write(serverFrame(FIN | BINARY, "down"));
    EXPECT_EQ(awaitMessage(conn), "down");
    EXPECT_EQ(send("up"), 2);
    EXPECT_EQ(server.readFrame().payload, "up");
}
