#include "src/remote_access_cloud_dispatch.h"
#include "src/remote_access_service_catalogue.h"
#include "tests/support/proxy_fixture.h"
#include "utility/message_id.h"

#include <cstdlib>
#include <sys/socket.h>

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

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
    void fillTable()
    {
        while (getSessionTableSize(&proxy.session_table) < MAX_SESSIONS)
            EXPECT_EQ(0, addOneSessionToTable(&proxy.session_table, generateMsgId(), 0, nullptr));
    }
    // The id that will be drawn as the nth from now on.
    static std::string comingId(int nth)
    {
        std::string id;
        for (std::srand(1); nth > 0; --nth)
            id = generateMsgId();
        std::srand(1);
        return id;
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
    for (const auto &row : rows) {
        setChannelState(&proxy, row.state);
        proxy.ping_count = 2;
        EXPECT_EQ(row.line, receive(wire(row.type, row.id, "s1", "{\"code\":0}")));
        EXPECT_EQ(row.state, channelState(&proxy)) << row.line;
        EXPECT_EQ(row.line == pong ? 0 : 2, proxy.ping_count) << row.line;
    }
    EXPECT_EQ("", sent() + drain(far.get()));
}

TEST_F(Dispatch, RefusesASessionThatCannotBeConnectedOrKept)
{
    const int dead_port = LISTENER_T{}.port; // nobody listens there any more
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

TEST_F(Dispatch, HandlesFragmentsOnceTheLastIsThere)
{
    const UniqueFd far = addSession("s1");
    const std::string message = wire(22, "m1", "s1", "payload");
    const std::string part = "0 this websocket message not have Fin flag!|";
    fake_websocket.incoming = {{""}, {message.substr(0, 5), false}, {message.substr(5, 50), false}};
    cloudDataProc(&proxy); // the rest comes with a later pass
    EXPECT_EQ("2 can not get cloud message size!|" + part + part + part +
                  "0 not receive full package of websocket! OR receive PONG package from cloud.",
              fake_logger::take(0));
    EXPECT_EQ("", drain(far.get()));
    receive(message.substr(55));
    EXPECT_EQ("payload", drain(far.get()));
    for (int i = 0; i < 100; ++i)
        fake_websocket.incoming.push_back({wire(22, "m1", "s1", "x")});
    fake_websocket.incoming.push_back({""}); // parsed as a message of its own
    cloudDataProc(&proxy);
    EXPECT_EQ(std::string(100, 'x'), drain(far.get()));
    EXPECT_EQ("2 can not get cloud message size!|2 header json formate error:   |"
              "2 parse proxy header failed: ",
              fake_logger::take(2));
}

TEST_F(Dispatch, DropsWhatIsNotAWholeMessageAndGoesOn)
{
    const UniqueFd far = addSession("s1");
    const std::string whole = wire(22, "m1", "s1", "payload");
    const std::string header = whole.substr(0, whole.size() - 7);
    const std::string wrong = "2 payload length info is error!payloadlen:7, datalen:";
    const std::pair<std::string, std::string> rows[] = {
        {whole + "x", wrong + "8"},
        {header + "payloa", wrong + "6"},
        {header.substr(0, header.size() - 1), wrong + "-1"},
        {header.substr(0, header.size() - 4), wrong + "-4"}, // ends at the brace
        {" " + whole,
         "2 header json formate error:   " + whole + " |2 parse proxy header failed:  " + whole}};
    for (const auto &[message, line] : rows) {
        EXPECT_EQ(line, receive(message));
        receive(whole);
        EXPECT_EQ("payload", drain(far.get())) << line;
    }
    fake_websocket.incoming = {{header}};
    fake_logger::take();
    cloudDataProc(&proxy);
    EXPECT_EQ("1 header len:" + std::to_string(header.size()) + "|1 header: " + header + "|" +
                  wrong + "0",
              fake_logger::take());
    EXPECT_EQ("cloudDataProc", fake_logger::owners());
}

TEST_F(Dispatch, MessageThatEndsAtItsBraceHasNoPayload)
{
    const UniqueFd far = addSession("s1");
    fillTable();
    for (const char *type : {"0", "4", "5", "6", "22", "257"})
        EXPECT_THAT(receive(std::string{"{\"msg_type\":"} + type +
                            ",\"payload_len\":\"-4\",\"token\":\"s1\",\"msg_id\":\"m1\"}"),
                    Not(HasSubstr("payload length info")));
    EXPECT_EQ(response("", 101604, "socketfd insert error") + "|" +
                  response("s1", 0, "release session response", "{\"session_id\": \"s1\"}") + "|" +
                  response("", 101601, "parse VerifyAccount failed"),
              sent());
    EXPECT_EQ("EOF", drain(far.get()));
}

TEST_F(Dispatch, TakesMessagesUpToTheBuffersSize)
{
    const UniqueFd far = addSession("s1");
    const std::size_t room = 51200 - wire(22, "m1", "s1", std::string(51100, 'x')).size() + 51100;
    for (const std::size_t excess : {0U, 1U}) {
        const std::string message = wire(22, "m1", "s1", std::string(room + excess, 'x'));
        for (std::size_t at = 0; at < message.size(); at += 16384)
            fake_websocket.incoming.push_back(
                {message.substr(at, 16384), at + 16384 >= message.size()});
        cloudDataProc(&proxy);
        EXPECT_EQ(excess == 0 ? "" : "2 write the cloud channel buffer error!",
                  fake_logger::take(2));
        EXPECT_EQ(excess == 0 ? room : 0, drain(far.get()).size());
    }
    // What follows of a message that was too long does not parse; the next message does.
    fake_websocket.incoming = {{std::string(51200, 'x'), false}, {"x", false}, {"rest"}};
    cloudDataProc(&proxy);
    EXPECT_EQ(1U, fake_websocket.incoming.size()); // left for the next pass
    cloudDataProc(&proxy);
    EXPECT_THAT(fake_logger::take(), EndsWith("|2 parse proxy header failed: rest"));
    receive(wire(22, "m1", "s1", "next"));
    EXPECT_EQ("next", drain(far.get()));

    std::string all_header = "{\"msg_type\":0,\"payload_len\":51200,\"x\":\"";
    all_header.resize(51200 - 2, 'x'); // its separator lies behind the buffer
    all_header += "\"}";
    EXPECT_EQ("1 recv release session response.payload:" + all_header, receive(all_header));
}
