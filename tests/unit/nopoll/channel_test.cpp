// The channel once it is open: the same cases over plain TCP and over TLS.
#include "scripted_server.h"

#include <cstring>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <poll.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr int FIN = 0x80;
constexpr int BINARY = 2;
constexpr int CLOSE = 8;
constexpr int PING = 9;
constexpr int PONG = 10;
constexpr std::size_t MESSAGE_SIZE = std::size_t{50} * 1024;
constexpr std::size_t HUGE_SIZE =
    std::size_t{16} * 1024 * 1024; // more than the sockets of both ends hold

// One for all: making it takes longer than most of the cases.
const IDENTITY_T &sharedIdentity()
{
    static const IDENTITY_T identity = makeIdentity({.names = "IP:127.0.0.1"});
    return identity;
}

// Over TLS if the parameter says so.
class Channel : public testing::TestWithParam<bool> {
protected:
    void dial(CLIENT_T &from, const ScriptedServer &to)
    {
        from.dial("127.0.0.1", to.port.c_str(), identity ? optionsFor(ca.path.c_str()) : nullptr);
        ASSERT_TRUE(nopoll_conn_is_ok(from.conn.get())) << from.log;
    }

    void open(ScriptedServer::Answer answer = properAnswer)
    {
        server.acceptOne(std::move(answer));
        ASSERT_NO_FATAL_FAILURE(dial(client, server));
        conn = client.conn.get();
        ASSERT_TRUE(nopoll_conn_wait_until_connection_ready(conn, PATIENCE_S)) << client.log;
        server.settle();
    }

    int send(const std::string &message)
    {
        return nopoll_conn_send_binary(conn, message.data(), static_cast<long>(message.size()));
    }

    // What a client logs, and keeps, about a server that gives this answer; it must end the channel
    // by itself, with these last words if the channel was open.
    std::string refusalOf(ScriptedServer::Answer answer, const char *last_words = nullptr)
    {
        ScriptedServer liar{identity};
        CLIENT_T other;
        liar.acceptOne(std::move(answer));
        dial(other, liar);
        EXPECT_EQ(nopoll_conn_send_binary(other.conn.get(), "too early", 9), -1);
        const bool ready =
            nopoll_conn_wait_until_connection_ready(other.conn.get(), PATIENCE_S) == nopoll_true;
        EXPECT_EQ(ready, last_words != nullptr);
        EXPECT_EQ(awaitPiece(other.conn.get()), nullptr);
        EXPECT_FALSE(nopoll_conn_is_ok(other.conn.get()));
        EXPECT_EQ(nopoll_conn_socket(other.conn.get()), -1);
        liar.settle();
        if (last_words) {
            EXPECT_EQ(liar.readFrame(), (CLIENT_FRAME_T{CLOSE, last_words}));
        }
        const std::string failure = nopoll_ctx_failure(other.context.get());
        EXPECT_THAT(other.log, HasSubstr(failure));
        return failure;
    }

    void awaitReadable()
    {
        pollfd entry{nopoll_conn_socket(conn), POLLIN, 0};
        ASSERT_EQ(poll(&entry, 1, PATIENCE_S * 1000), 1);
    }

    PEM_FILE_T ca = pemFile({&sharedIdentity()});
    const IDENTITY_T *identity = GetParam() ? &sharedIdentity() : nullptr;
    ScriptedServer server{identity};
    CLIENT_T client;
    noPollConn *conn = nullptr;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Transports, Channel, testing::Bool(),
                         [](const auto &row) { return row.param ? "Tls" : "Plain"; });

TEST_P(Channel, OpensWithTheDefaultRequestAndSaysGoodbye)
{
    open();
    EXPECT_THAT(server.request, StartsWith("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
    EXPECT_THAT(server.request, HasSubstr("\r\nOrigin: http://127.0.0.1\r\n"));
    EXPECT_TRUE(fcntl(nopoll_conn_socket(conn), F_GETFD) & FD_CLOEXEC);
    client.conn.reset();
    EXPECT_EQ(server.readFrame().opcode, CLOSE);
    EXPECT_EQ(server.read(1), "");
}

TEST_P(Channel, SeesBytesThatCameBehindTheAnswer)
{
    open([](const std::string &request) {
        return properAnswer(request) + serverFrame(FIN | BINARY, "early") +
               serverFrame(FIN | BINARY, "next");
    });
    for (const char *message : {"early", "next"}) {
        EXPECT_GT(nopoll_conn_read_pending(conn), 0);
        EXPECT_EQ(awaitMessage(conn), message);
    }
    EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
    EXPECT_EQ(nopoll_conn_read_pending(conn), 0);
}

TEST_P(Channel, RefusesAWrongAnswer)
{
    struct ROW_T {
        const char *wrong; // replaced in a proper answer by `by`
        const char *by;
        const char *logged;
    };
    const ROW_T rows[] = {
        {"101 Switching Protocols", "403 For\x1b[2Jbidden", "403 For?[2Jbidden"},
        {"101 ", "1010 ", "refused the upgrade"},
        {"Sec-WebSocket-Accept", "X-Accept", "Sec-WebSocket-Accept"},
        {"Accept: ", "Accept: A", "Sec-WebSocket-Accept"},
        {"upgrade: ", "X-upgrade: ", "Upgrade"},
        {", upgrade", "", "Connection"},
        {"\r\n\r\n", "\r\nSec-WebSocket-Extensions: permessage-deflate\r\n\r\n", "extension"},
        {"\r\n\r\n", "\r\nSec-WebSocket-Protocol: chat\r\n\r\n", "sub-protocol"},
        {"\r\n\r\n", "\r\nnonsense\r\n\r\n", "malformed header"},
    };
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.by);
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
    const auto none = [](const std::string &) { return std::string{}; };
    EXPECT_THAT(refusalOf(none), HasSubstr("ended the TCP connection"));
}

TEST_P(Channel, HoldsAnIncompleteFrameUntilItsRestComes)
{
    const std::string bytes = serverFrame(BINARY, "ab") + serverFrame(FIN | PING, "p") +
                              serverFrame(0, "c", 8) + serverFrame(FIN, "");
    open();
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) { // whole, and in two segments
        SCOPED_TRACE(cut);
        std::string begun;
        server.write(bytes.substr(0, cut));
        if (cut > 0) awaitReadable();
        while (noPollMsg *piece = nopoll_conn_get_msg(conn))
            begun += textOf(piece);
        EXPECT_EQ(nopoll_conn_read_pending(conn), 0) << "what is incomplete was tried already";
        server.write(bytes.substr(cut));
        EXPECT_EQ(awaitMessage(conn, begun), "abc");
    }
}

TEST_P(Channel, CarriesEveryLengthBothWays)
{
    open();
    for (const std::size_t size : {0U, 1U, 125U, 126U, 65535U, 65536U}) {
        SCOPED_TRACE(size);
        const std::string message = patternOf(size, 3);
        EXPECT_EQ(send(message), static_cast<int>(size)); // the sockets hold as much
        EXPECT_TRUE(server.readFrame() == (CLIENT_FRAME_T{BINARY, message}));
        server.write(serverFrame(FIN | BINARY, message));
        EXPECT_TRUE(awaitMessage(conn) == message);
    }
}

TEST_P(Channel, AnswersAPingAndGoesOnWithTheNextFrame)
{
    open();
    const std::string longest(125, 'p');
    server.write(serverFrame(FIN | PING, "\x82\x05payload") + serverFrame(FIN | PING, longest) +
                 serverFrame(FIN | BINARY, "data"));
    awaitReadable();
    EXPECT_EQ(awaitMessage(conn), "data");
    EXPECT_EQ(server.readFrame(), (CLIENT_FRAME_T{PONG, "\x82\x05payload"}));
    EXPECT_EQ(server.readFrame(), (CLIENT_FRAME_T{PONG, longest}));
}

TEST_P(Channel, EndsForACloseAndForAFrameAgainstTheProtocol)
{
    struct ROW_T {
        std::string bytes;
        const char *logged;
        const char *last_words = "\x03\xEA"; // 1002
    };
    const ROW_T rows[] = {
        {serverFrame(FIN | 0x40 | BINARY, ""), "reserved bits"},
        {serverFrame(FIN | 0x10 | BINARY, ""), "reserved bits"},
        {serverFrame(FIN | 3, ""), "reserved opcode"},
        {serverFrame(FIN | 0xB, ""), "reserved opcode"},
        {"\x82\x81maskx", "masked"},
        {serverFrame(FIN | PING, std::string(126, 'p')), "oversize control"},
        {serverFrame(PING, "p"), "fragmented control"},
        {serverFrame(FIN, "p"), "continuation of nothing"},
        {serverFrame(BINARY, "") + serverFrame(FIN | BINARY, "p"),
         "new message inside a fragmented"},
        {std::string("\x82\x7f\x80\0\0\0\0\0\0\1", 10), "frame length above"},
        {serverFrame(FIN | CLOSE, "x"), "close frame with half a code"},
        {serverFrame(FIN | CLOSE, "\3\xE7"), "close code 999"},
        {serverFrame(FIN | CLOSE, "\3\xED"), "close code 1005"},
        {serverFrame(FIN | CLOSE, "\3\xEE"), "close code 1006"},
        {serverFrame(FIN | CLOSE, "\3\xF7"), "close code 1015"},
        {serverFrame(FIN | CLOSE, "\x13\x88"), "close code 5000"},
        {serverFrame(FIN | CLOSE, "\x03\xE9 going\naway"), "1001  going?away", "\x03\xE9"},
        {serverFrame(FIN | CLOSE, "\x13\x87"), "the server closed the channel: 4999", "\x13\x87"},
    };
    for (const ROW_T &row : rows) {
        SCOPED_TRACE(row.logged);
        const auto answer = [&row](const std::string &request) {
            return properAnswer(request) + row.bytes;
        };
        EXPECT_THAT(refusalOf(answer, row.last_words), HasSubstr(row.logged));
    }
}

TEST_P(Channel, KeepsTheDescriptorWhenASendFails)
{
    open();
    const int fd = nopoll_conn_socket(conn);
    server.hangUp();
    int result = 0;
    for (int i = 0; i < 1000 && result != -1; ++i) // the second one would raise a signal
        result = send("into the void");
    EXPECT_EQ(result, -1);
    EXPECT_FALSE(nopoll_conn_is_ok(conn));
    EXPECT_EQ(nopoll_conn_socket(conn), -1);
    EXPECT_NE(fcntl(fd, F_GETFD), -1) << "its number may be another socket's by now";
    EXPECT_EQ(nopoll_conn_complete_pending_write(conn), -1);
    EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_P(Channel, KeepsFramesWholeAndInOrderBehindAStalledReader)
{
    open();
    for (unsigned i = 0; i < 3; ++i)
        EXPECT_EQ(send(patternOf(MESSAGE_SIZE, i)), static_cast<int>(MESSAGE_SIZE));
    int left = std::max(send(patternOf(HUGE_SIZE, 3)), 0);
    int more = 0;
    while ((more = nopoll_conn_complete_pending_write(conn)) > 0)
        left += more;
    EXPECT_EQ(more, -2);
    // Over TLS nothing of a frame counts before all of it.
    const int pending = nopoll_conn_pending_write_bytes(conn);
    EXPECT_EQ(left, identity ? 0 : static_cast<int>(HUGE_SIZE) - pending);
    EXPECT_EQ(send("not taken"), -2);
    for (const char *payload : {"first", "newest"}) { // only one of them can be answered
        server.write(serverFrame(FIN | PING, payload));
        awaitReadable();
        EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
    }
    const int rest = nopoll_conn_pending_write_bytes(conn);

    auto reading = std::async(std::launch::async, [&] {
        for (unsigned i = 0; i < 4; ++i)
            EXPECT_TRUE(server.readFrame().payload ==
                        patternOf(i < 3 ? MESSAGE_SIZE : HUGE_SIZE, i))
                << i;
        EXPECT_EQ(server.readFrame(), (CLIENT_FRAME_T{PONG, "newest"}));
        EXPECT_EQ(server.readFrame().payload, "after");
    });
    int drained = 0;
    while (nopoll_conn_is_ok(conn) && nopoll_conn_pending_write_bytes(conn) > 0)
        drained += std::max(nopoll_conn_complete_pending_write(conn), 0);
    EXPECT_EQ(drained, identity ? static_cast<int>(HUGE_SIZE) : rest);
    EXPECT_EQ(nopoll_conn_complete_pending_write(conn), 0);
    EXPECT_EQ(send("after"), 5);
}

TEST_P(Channel, ReturnsDuringAFloodOfControlFrames)
{
    open();
    for (const int opcode : {PONG, PING}) { // a PING is answered meanwhile
        std::string flood;
        for (int i = 0; i < 3000; ++i)
            flood += serverFrame(FIN | opcode, std::string(125, 'p'));
        server.write(flood + serverFrame(FIN | BINARY, "through")); // the sockets hold as much
        awaitReadable();
        EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr) << "one call took the whole flood";
        EXPECT_EQ(awaitMessage(conn), "through");
    }
}

TEST_P(Channel, TakesNothingWhileHalfOfASessionTicketHasCome)
{
    if (!identity) return; // TLS alone has tickets
    open();
    const std::string ticket = server.longTicket();
    ASSERT_GT(ticket.size(), 1500U);
    server.sendRaw(ticket.substr(0, 1200)); // two records of it, and a part of the third
    awaitReadable();
    EXPECT_EQ(nopoll_conn_get_msg(conn), nullptr);
    EXPECT_EQ(send("too early"), -2);
    EXPECT_EQ(nopoll_conn_pending_write_bytes(conn), 0);
    ASSERT_TRUE(nopoll_conn_is_ok(conn)) << client.log;
    server.sendRaw(ticket.substr(1200));
    server.write(serverFrame(0x82, "down")); // read along with the ticket's rest, and not lost
    awaitReadable();
    EXPECT_EQ(send("in time"), 7);
    EXPECT_EQ(server.readFrame(), (CLIENT_FRAME_T{BINARY, "in time"}));
    EXPECT_EQ(awaitMessage(conn), "down");
}
