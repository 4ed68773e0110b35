#include "src/remote_access_proxy_channel.h"
#include "tests/support/proxy_fixture.h"

namespace {

class CloudChannel : public testing::Test {
protected:
    void SetUp() override
    {
        fake_clock::reset();
        fake_websocket = {};
        fake_logger::take();
    }
    // An open connection; what opening it called is forgotten.
    void open()
    {
        SetUp();
        conn = openCloudProxyChannel("h", "1", nullptr, 0, 0);
        ASSERT_NE(nullptr, conn);
        fake_websocket.calls.clear();
    }
    void close()
    {
        closeCloudProxyChannel(std::exchange(conn, nullptr));
    }
    void TearDown() override
    {
        close();
    }

    CLOUD_CHANNEL_T *conn = nullptr;
};

} // namespace

TEST_F(CloudChannel, OpensInTheLibrarysOrder)
{
    const struct {
        const char *cert;
        int debug, tls;
        std::string calls, log;
    } rows[] = {
        {"/ca.pem", 0, 1,
         "ctx_new|opts_new|certs - - - /ca.pem|res_init|tls_new verify 1 h 443 - - - -|wait 1|",
         ""},
        {"", 1, -3,
         "ctx_new|handler on|opts_new|certs - - - |res_init|tls_new verify 1 h 443 - - - -|wait 1|",
         ""},
        {nullptr, 0, 1, "ctx_new|opts_new|res_init|tls_new verify 0 h 443 - - - -|wait 1|",
         "0 set peer verify false "},
        {"/ca.pem", 0, 0, "ctx_new|res_init|new h 443 - - - -|wait 1|", ""},
    };
    for (const auto &row : rows) {
        SetUp();
        conn = openCloudProxyChannel("h", "443", row.cert, row.debug, row.tls);
        EXPECT_NE(nullptr, conn);
        EXPECT_EQ(row.calls, fake_websocket.calls);
        EXPECT_EQ(row.log, fake_logger::take(0));
        close();
    }
    SetUp();
    fake_websocket = {.ready_on_wait = 3, .resolver_result = -1};
    conn = openCloudProxyChannel("h", "443", "", 0, 1);
    EXPECT_NE(nullptr, conn); // in time, and whatever the resolver says
    EXPECT_EQ("2 getaddrinfo res_init, ret is -1, errno is 5\n", fake_logger::take(0));
}

TEST_F(CloudChannel, ReleasesEverythingWhenOpeningFails)
{
    const std::string unusable =
        "xpected to find proper client connection status, but found error.. ";
    const struct {
        FAKE_WEBSOCKET_T script;
        int tls;
        std::string log, last_calls;
    } rows[] = {
        {{.has_ctx = false}, 1, "2 nopoll new failed", "ctx_new|"},
        {{.has_opts = false}, 1, "2 nopoll_conn_opts_new failed", "opts_new|ctx_unref|"},
        {{.has_conn = false}, 1, "2 E" + unusable, " - - - -|ctx_unref|"},
        {{.ok = false}, 1, "2 E" + unusable, " - - - -|close|ctx_unref|"},
        {{.tls_on = false},
         1,
         "2 ERROR: expected to find TLS enabled on the connection but found it isn't.. ",
         " - - - -|close|ctx_unref|"},
        {{.has_conn = false}, 0, "2 ERROR: E" + unusable, " - - - -|ctx_unref|"},
        {{.ok = false}, 0, "2 ERROR: E" + unusable, " - - - -|close|ctx_unref|"},
        {{.ready_on_wait = 0},
         0,
         "2 ERROR: connection not ready ",
         " - - - -|wait 1|wait 1|wait 1|close|ctx_unref|"},
        {{.ok = false, .failure = "100%s"},
         0,
         "2 ERROR: E" + unusable + "|2 no channel to h port 443: 100%s",
         " - - - -|close|ctx_unref|"},
    };
    for (const auto &row : rows) {
        fake_websocket = row.script;
        EXPECT_EQ(nullptr, openCloudProxyChannel("h", "443", "/ca.pem", 0, row.tls));
        EXPECT_EQ(row.log, fake_logger::take(0));
        EXPECT_EQ("openCloudProxyChannel", fake_logger::owners());
        EXPECT_TRUE(fake_websocket.calls.ends_with(row.last_calls)) << fake_websocket.calls;
    }
}

TEST_F(CloudChannel, ClosesInTheLibrarysOrder)
{
    open();
    close();
    closeCloudProxyChannel(nullptr);
    EXPECT_EQ("close|loop_stop|ctx_unref|cleanup|", fake_websocket.calls);
    EXPECT_EQ("1 close cloud channel!|1 close cloud channel!", fake_logger::take(0));
}

TEST_F(CloudChannel, RoutesTheLibrarysLogWhileSwitchedOn)
{
    open();
    setCloudProxyChannelDebug(conn, 2);
    for (const auto level : {NOPOLL_LEVEL_DEBUG, NOPOLL_LEVEL_INFO, NOPOLL_LEVEL_CRITICAL})
        fake_websocket.handler(nullptr, level, "100%s", nullptr);
    EXPECT_EQ("0 100%s|2 100%s|2 100%s", fake_logger::take(0));
    EXPECT_EQ("websocketLog", fake_logger::owners());
    setCloudProxyChannelDebug(conn, 0);
    setCloudProxyChannelDebug(nullptr, 1);
    EXPECT_EQ("handler on|handler off|", fake_websocket.calls);
}

TEST_F(CloudChannel, ReadsPieces)
{
    open();
    DATA_BUFFER_T buffer{};
    ASSERT_EQ(0, initDataBuffer(&buffer, 10));
    const struct {
        PIECE_T piece;
        int result, fin; // fin is 7 before the first read
        const char *log, *content;
    } rows[] = {
        {{""}, 0, 7, "2 can not get cloud message size!", ""},
        {{"abc", false}, 3, 0, "", "abc"},
        {{"def", true, false}, 0, 0, "2 can not get cloud message payload!", "abc"},
        {{"12345678"}, -1, 0, "2 write the cloud channel buffer error!", "abc"},
        {{"1234567"}, 7, 1, "", "abc1234567"},
    };
    int fin = 7;
    for (const auto &row : rows) {
        fake_websocket.incoming.push_back(row.piece);
        EXPECT_EQ(row.result, readCloudProxyChannel(conn, &buffer, &fin));
        EXPECT_EQ(row.fin, fin);
        EXPECT_EQ(row.log, fake_logger::take(0));
        EXPECT_STREQ(row.content, buffer.data);
    }
    EXPECT_EQ(-2, readCloudProxyChannel(conn, &buffer, &fin));
    EXPECT_EQ(1, fin);
    EXPECT_EQ("0 not receive full package of websocket! OR receive PONG package from cloud.",
              fake_logger::take(0));
    freeDataBuffer(&buffer);
}

TEST_F(CloudChannel, WritesWithinItsBounds)
{
    const struct {
        const char *what;
        int timeout_ms, pending;
        std::deque<WRITE_STEP_T> sends, completions;
        int result;
        std::size_t sent; // messages handed over
        int sleeps;       // of 50 ms
    } rows[] = {
        {"all goes out", 100, 0, {}, {}, 10, 1, 0},
        {"send fails", 100, 0, {{-1}}, {}, -1, 1, 0},
        {"flushed at once", 100, 4, {}, {{4}}, 10, 1, 0},
        {"flushed by the third attempt", 100, 4, {}, {{-2, 4}, {1, 3}, {3}}, 10, 1, 2},
        {"never flushed", 100, 4, {}, {}, 0, 0, 3},
        {"dies while flushing", 100, 4, {}, {{-1, 4, false}}, 0, 0, 0},
        {"part left, the rest follows", 100, 0, {{4, 6}}, {{-2, 6}, {6}}, 10, 1, 1},
        {"part left, no more does", 100, 0, {{4, 6}}, {}, 4, 1, 2},
        {"nothing left, no more does", 100, 0, {{-2, 10}}, {}, 0, 1, 2},
        {"progress is counted", 100, 0, {{4, 6}}, {{3, 3}, {-2, 3}}, 7, 1, 2},
        {"completion says that nothing was pending", 100, 0, {{4, 6}}, {{0, 6}}, 10, 1, 0},
        {"gone before the first attempt", 100, 0, {{4, 0}}, {}, 10, 1, 0},
        {"dies with part of it out", 1000, 0, {{4, 6}}, {{-1, 6, false}}, 4, 1, 1},
        {"died, nothing pending any more", 1000, 0, {{4, 6}}, {{-1, 0, false}}, 4, 1, 0},
        {"0 ms is one attempt", 0, 0, {{4, 6}}, {}, 4, 1, 1},
        {"negative is one attempt", -5, 0, {{4, 6}}, {}, 4, 1, 1},
        {"149 ms is two", 149, 0, {{4, 6}}, {}, 4, 1, 2},
        {"60 s is 200", 60000, 0, {{4, 6}}, {}, 4, 1, 200},
    };
    for (const auto &row : rows) {
        open();
        fake_websocket.pending = row.pending;
        fake_websocket.sends = row.sends;
        fake_websocket.completions = row.completions;
        EXPECT_EQ(row.result, writeCloudProxyChannel(conn, "0123456789", 10, row.timeout_ms))
            << row.what;
        EXPECT_EQ(std::vector<std::string>(row.sent, "0123456789"), fake_websocket.sent)
            << row.what;
        std::string sleeps;
        for (int i = 0; i < row.sleeps; ++i)
            sleeps += "50 ";
        EXPECT_EQ(sleeps, fake_clock::takeSleeps()) << row.what;
        EXPECT_EQ("", fake_logger::take(0)) << row.what;
        close();
    }
}
