#include "src/handshake_request.h"
#include "src/remote_access_proxy_trans.h"
#include "tests/support/proxy_fixture.h"

#include <map>

namespace {

constexpr char SERVICES[] = "[{\"service_type\":\"SSH\"}]";
constexpr char ALL_LINES[] =
    "1 reponse payload:P|1 reponse header:H|1 response len:L,L|1 reponse package:M";

// A kind of message: how it is sent, what it is on the wire, and what is logged.
struct KIND_T {
    int (*send)(REMOTE_PROXY_T *proxy);
    std::string message;
    std::string lines;         // P, H, M, L: payload, header, message and its length
    std::string write_failure; // "=" at its end: the result follows
    std::string join_failure;  // empty: nothing is joined
};

class OutgoingMessage : public ProxyTest {
protected:
    void SetUp() override
    {
        ProxyTest::SetUp();
        std::vector<char> handshake(1024);
        spliceProxyProtocolHandShakePayload(handshake, "pk1", "dev1", "secret1", SERVICES);
        kinds[0].message = wire(1, "msg_id_for_handshake", "", handshake.data());
        openChannel(CHANNEL_STATE_CONNECTED);
    }
    static std::string linesOf(const KIND_T &kind)
    {
        const std::size_t header = kind.message.find("\r\n\r\n") + 4;
        const std::map<char, std::string> parts{{'P', kind.message.substr(header)},
                                                {'H', kind.message.substr(0, header)},
                                                {'M', kind.message},
                                                {'L', std::to_string(kind.message.size())}};
        std::string lines;
        for (const char c : kind.lines)
            lines += parts.contains(c) ? parts.at(c) : std::string(1, c);
        return lines;
    }
    void useBufferOf(std::size_t capacity)
    {
        freeDataBuffer(&proxy.send_buffer);
        ASSERT_EQ(0, initDataBuffer(&proxy.send_buffer, static_cast<std::int32_t>(capacity)));
    }

    std::vector<KIND_T> kinds{
        {[](REMOTE_PROXY_T *p) { return sendCloudChannelHandShakeRequest(p, SERVICES); }, "",
         "1 handshake payload:P|1 handshak  header:H|1 request len:L,L|1 request package:M",
         "2 handshake send msg failed", "2 join content before buffer error"},
        {[](REMOTE_PROXY_T *p) { return sendCloudChannelReleaseSessionRequest(p, "m1", "s1"); },
         wire(5, "m1", "s1"), "1 release session header:M",
         "2 release request send msg failed,ret=", ""},
        {[](REMOTE_PROXY_T *p) { return sendCloudChannelReleaseSessionRequest(p, nullptr, "s1"); },
         wire(5, ID, "s1"), "1 release session header:M",
         "2 release request send msg failed,ret=", ""},
        {sendCloudChannelKeepalivePing, wire(256, ID, ""),
         "1 session keepalive ping header:,keepalive accumulate number:1",
         "2 release keepalive ping send msg failed,ret=", ""},
        {[](REMOTE_PROXY_T *p) {
             return cloudChannelResponseWithError(p, 101671, "down", "m1", nullptr);
         },
         response("", 101671, "down"), "1 reponse  payload:P|1 reponse  header:H",
         "2 remoteAccess_errorResponse send msg failed", "3 join content before buffer error"},
        {[](REMOTE_PROXY_T *p) { return cloudChannelResponseNewSession(p, "m1", "s1"); },
         response("s1", 0, "new session response", "{\"session_id\": \"s1\"}"),
         "1 response len:L,L|1 reponse package:M", "2 send new session response failed!",
         "3 join content before buffer error"},
        {[](REMOTE_PROXY_T *p) { return cloudChannelResponseReleaseSession(p, "m1", "s1"); },
         response("s1", 0, "release session response", "{\"session_id\": \"s1\"}"), ALL_LINES,
         "2 send release session response failed!", "2 join content before buffer error"},
        {[](REMOTE_PROXY_T *p) { return cloudChannelResponseVerifyAccount(p, "m1", nullptr); },
         response("", 0, "verify account ok"), ALL_LINES, "2 send verifyAccout response failed!",
         "2 join content before buffer error"}};
};

} // namespace

TEST_F(OutgoingMessage, LeavesByteForByteWithItsLines)
{
    for (const KIND_T &kind : kinds) {
        EXPECT_EQ(0, kind.send(&proxy));
        EXPECT_EQ(kind.message, sent());
        EXPECT_EQ(linesOf(kind), fake_logger::take());
    }
}

TEST_F(OutgoingMessage, FailsUnlessAllOfItLeaves)
{
    proxy.trans_timeout = 50;
    for (const KIND_T &kind : kinds) {
        for (const WRITE_STEP_T step : {WRITE_STEP_T{5, 9}, {-1}, {-2, 9}}) {
            fake_websocket.pending = 0;
            fake_websocket.sends = {step};
            EXPECT_EQ(-1, kind.send(&proxy));
            const std::string result = std::to_string(step.result == -2 ? 0 : step.result);
            EXPECT_EQ(kind.write_failure + (kind.write_failure.back() == '=' ? result : ""),
                      fake_logger::take(2));
        }
    }
    EXPECT_EQ(3, proxy.ping_count); // a ping that does not leave counts too
    sent();
    fake_websocket.pending = 7; // of an earlier message: nothing is put behind it
    EXPECT_EQ(-1, sendCloudChannelKeepalivePing(&proxy));
    EXPECT_EQ("2 release keepalive ping send msg failed,ret=0", fake_logger::take(2));
    EXPECT_EQ("", sent());
}

TEST_F(OutgoingMessage, IsNotSentWithoutRoom)
{
    for (const KIND_T &kind : kinds) {
        if (kind.join_failure.empty()) continue;
        useBufferOf(kind.message.size() - 1);
        EXPECT_EQ(-1, kind.send(&proxy));
        EXPECT_EQ(kind.join_failure, fake_logger::take(2));
        useBufferOf(20);
        EXPECT_EQ(-1, kind.send(&proxy));
        EXPECT_EQ(&kind != kinds.data()
                      ? ""
                      : "3 cloud channel hand shake payload is longer than buffer|"
                        "2 splice proxy protocol handshake payload failed!",
                  fake_logger::take());
    }
    useBufferOf(51200);
    const std::string token(938, 't'); // one character more than a header has room for
    EXPECT_EQ(-1, sendCloudChannelReleaseSessionRequest(&proxy, "m1", token.c_str()));
    EXPECT_EQ("2 splice Header error!", fake_logger::take());
    EXPECT_EQ(-1, cloudChannelResponseWithError(&proxy, 1, "m", "m1", token.c_str()));
    EXPECT_EQ("", fake_logger::take() + sent());
}
