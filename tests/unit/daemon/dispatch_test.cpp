#include "src/channel_dispatch.h"
#include "src/channel_state.h"
#include "tests/support/proxy_fixture.h"

#include <sys/socket.h>

namespace {

using testing::HasSubstr;

constexpr CHANNEL_STATE CLOSED = CHANNEL_STATE_CLOSED;
constexpr CHANNEL_STATE HANDSHAKE = CHANNEL_STATE_HANDSHAKE;
constexpr CHANNEL_STATE CONNECTED = CHANNEL_STATE_CONNECTED;

std::string newSessionTo(int port, const std::string &name = "x", const char *ip = "127.0.0.1")
{
    return wire(4, "m1", "",
                R"({"service_type":"SSH","service_name":")" + name + R"(","service_ip":")" + ip +
                    R"(","service_port":)" + std::to_string(port) + "}");
}

class Dispatch : public ProxyTest {
protected:
    void SetUp() override
    {
        ProxyTest::SetUp();
        openChannel(CONNECTED);
    }
    LISTENER_T listener;
};

} // namespace

TEST_F(Dispatch, WorksOnlyInTheStateOfEachType)
{
    const std::string busy = "2 cloud channel does not finish handshake!";
    const std::string answer = "1 recv release session response.payload:{\"code\":0}";
    const std::string state = "2 cloud channel handshake in a error state, now state:";
    const std::string unknown = "2 recv error websocket package! msgType:";
    const std::string pong = "1 recv keepalive pong,messagID=m1,timestamp:1600000000";
    const struct {
        int type;
        const char *id;
        CHANNEL_STATE state;
        std::string line;
    } rows[] = {
        {4, "m1", HANDSHAKE, busy},
        {4, "m1", CLOSED, busy},
        {5, "m1", HANDSHAKE, busy},
        {6, "m1", HANDSHAKE, busy},
        {22, "m1", HANDSHAKE, busy},
        {257, "m1", HANDSHAKE,
         "2 recv keepalive pong, but cloud channel does not finish handshake!"},
        {257, "m1", CONNECTED, pong},
        {0, "m1", HANDSHAKE, answer},
        {0, "msg_id_for_handshake2", CONNECTED, answer},
        {0, "msg_id_for_handshake", CONNECTED, state + "2"},
        {0, "msg_id_for_handshake", CLOSED, state + "0"},
        {1, "m1", CONNECTED, unknown + "1 "},
        {21, "m1", HANDSHAKE, unknown + "21 "},
        {256, "m1", CONNECTED, unknown + "256 "},
    };
    const UniqueFd far = addSession("s1");
    (void)receive(wire(22, "m1", "s1", std::string(200, 'x'))); // which stays in no later text
    EXPECT_EQ(std::string(200, 'x'), drain(far.get()));
    EXPECT_EQ("1 recv release session response.payload:",
              receive(R"({"msg_type":0,"payload_len":"-4"})")); // ends before its separator
    for (const auto &row : rows) {
        setChannelState(&proxy, row.state);
        proxy.ping_count = 2;
        EXPECT_EQ(row.line, receive(wire(row.type, row.id, "s1", "{\"code\":0}")));
        EXPECT_EQ(row.state, channelState(&proxy)) << row.line;
        EXPECT_EQ(row.line == pong ? 0 : 2, proxy.ping_count) << row.line;
    }
    EXPECT_EQ("", sent() + drain(far.get()));
}

TEST_F(Dispatch, HandsNoHeaderOnAsPayload)
{
    const UniqueFd far = addSession("s1");
    std::string text = R"({"msg_type":22,"payload_len":51200,"token":"s1","x":")";
    text.resize(MESSAGE_BUFFER_SIZE - 2, 'x'); // the separator would lie behind the buffer
    receive(text + "\"}");
    EXPECT_EQ("", drain(far.get()));
}

TEST_F(Dispatch, RefusesASessionThatCannotBeConnectedOrKept)
{
    const int dead_port = LISTENER_T{}.port; // nothing listens there any more
    EXPECT_THAT(receive(newSessionTo(dead_port)),
                HasSubstr("|1 unblock mode sockfd is connecting...|2 connection failed after "
                          "select with the error: 111|2 failed to connect to local service|"));
    EXPECT_EQ(response("", 101671, "BL local service is not available"), sent());
    EXPECT_THAT(receive(newSessionTo(1, "x", "256.1.1.1")),
                HasSubstr("|2 unknown hostAddr: 256.1.1.1|2 failed to connect to local service|"));
    EXPECT_EQ(response("", 101671, "BL local service is not available"), sent());

    g_out_of_memory = true;
    EXPECT_THAT(receive(newSessionTo(listener.port)),
                HasSubstr("|2 session node create failed|2 failed to alloc new session|"));
    EXPECT_EQ(response("", 101604, "memory error"), sent());
    const UniqueFd service{::accept(listener.socket.get(), nullptr, nullptr)};
    EXPECT_EQ("EOF", drain(service.get())); // the socket is not left behind
    EXPECT_EQ(0U, getSessionTableSize(&proxy.session_table));
}

// A request found in the rest of a message too long for the buffer was never one.
TEST_F(Dispatch, CarriesNothingOutOfTheRestOfAMessageThatIsTooLong)
{
    const std::string filler(MESSAGE_BUFFER_SIZE + 1, 'f');
    const std::string request = newSessionTo(listener.port);
    const std::string overflow = "2 write the cloud channel buffer error!";
    const std::string unreadable =
        "|2 header json formate error:  " + request + " |2 parse proxy header failed: " + request;
    const std::string empty = "2 can not get cloud message size!|2 header json formate error:   "
                              "|2 parse proxy header failed: ";
    const struct {
        std::vector<PIECE_T> pieces;
        std::vector<std::string> lines; // of each pass
    } rows[] = {
        {{{filler, false}, {request, true}}, {overflow, unreadable.substr(1)}},
        {{{filler, false}, {filler, false}, {request, true}},
         {overflow, overflow, unreadable.substr(1)}},
        {{{filler, true}}, {overflow}},
        {{{filler, false}, {"", true}}, {overflow, empty}},
    };
    for (const auto &row : rows) {
        fake_websocket.incoming.assign(row.pieces.begin(), row.pieces.end());
        fake_logger::take();
        for (const std::string &lines : row.lines) {
            cloudDataProc(&proxy);
            EXPECT_EQ(lines, fake_logger::take());
        }
        EXPECT_TRUE(fake_websocket.incoming.empty() && sent().empty());
        EXPECT_THAT(receive(wire(257, "m1", "")), HasSubstr("1 recv keepalive pong"));
    }
    fake_websocket.incoming.push_back({filler, false});
    cloudDataProc(&proxy);
    releaseRemoteProxy(&proxy); // the rest went with that channel
    openChannel(CONNECTED);
    EXPECT_THAT(receive(wire(257, "m1", "")), HasSubstr("1 recv keepalive pong"));
}

TEST_F(Dispatch, DrainsUntilNothingIsLeftOrRemoteAccessIsOffOrTheBoundIsReached)
{
    const auto left = [&](std::size_t count, const std::string &payload) {
        const PIECE_T piece{wire(22, "m1", "s1", payload)};
        fake_websocket.incoming.assign(count, piece);
        cloudDataProc(&proxy);
        fake_logger::take();
        return std::exchange(fake_websocket.incoming, {}).size();
    };
    const std::string large(50000, 'x');
    const std::size_t in_bound = 1 + DRAIN_BYTES / wire(22, "m1", "s1", large).size();
    EXPECT_EQ(0U, left(DRAIN_MESSAGES, "x")); // to an unknown session: each is one line
    EXPECT_EQ(1U, left(DRAIN_MESSAGES + 1, "x"));
    EXPECT_EQ(0U, left(in_bound, large));
    EXPECT_EQ(1U, left(in_bound + 1, large));

    const UniqueFd far = addSession("s1"); // nothing reads there
    const int smallest = 1;
    const int near = findOneSessionFromTable(&proxy.session_table, "s1")->socket_fd;
    (void)::setsockopt(near, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest);
    int naps = 0;
    fake_clock::onSleep([&] { // each message that the service does not take costs three naps
        fake_clock::advance(1);
        if (++naps == 29) record.remote_access_switch.store(0);
    });
    EXPECT_EQ(90U, left(100, large)); // the message under way is the last
    EXPECT_EQ(30, naps);
}
