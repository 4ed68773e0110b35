#include "src/channel_state.h"
#include "src/remote_access_proxy_thread.h"
#include "tests/support/proxy_fixture.h"

#include "common/task_scheduler.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

constexpr char CLOSING[] = "1 end the cloud channel.|1 close cloud channel!";

int g_task_failures = 0; // before the configuration task succeeds

class ChannelState : public ProxyTest {
protected:
    void TearDown() override
    {
        fake_clock::reset();
        cloudChannelClosedStateProc(&proxy, 0); // forgets the failures counted so far
        ProxyTest::TearDown();
    }
    // Passes until as many openings have failed; returns the seconds at which they began.
    std::vector<std::int64_t> failOpenings(std::size_t count)
    {
        std::vector<std::int64_t> seconds;
        fake_websocket = {.has_conn = false};
        while (seconds.size() < count) {
            const std::int64_t began = fake_clock::seconds();
            runChannelState(&proxy, 1);
            if (!std::exchange(fake_websocket.calls, {}).empty()) seconds.push_back(began);
        }
        return seconds;
    }
    void passUntil(std::int64_t seconds)
    {
        while (fake_clock::seconds() < seconds)
            runChannelState(&proxy, 1);
    }
    // State, retry count and ping count.
    std::string standing() const
    {
        return std::to_string(channelState(&proxy)) + " " + std::to_string(proxy.retry_count) +
               " " + std::to_string(proxy.ping_count);
    }
};

} // namespace

// The task scheduler of this program.
int getOneTaskResult(const char *name)
{
    EXPECT_STREQ("get_config_params_task", name);
    return g_task_failures-- > 0 ? -1 : 0;
}

TEST_F(ChannelState, OpeningSendsTheHandshakeAndWatchesThePeer)
{
    const UniqueFd socket{::socket(AF_INET, SOCK_STREAM, 0)};
    fake_websocket.socket_fd = socket.get();
    proxy.recv_buffer.write_offset = 5;
    fake_clock::advance(2);
    EXPECT_EQ(0, createRemoteProxy(&proxy));
    EXPECT_EQ("1 0 0", standing());
    EXPECT_EQ(1002, proxy.last_active_time.tv_sec);
    EXPECT_EQ(0, proxy.recv_buffer.write_offset + proxy.send_buffer.write_offset);
    EXPECT_THAT(fake_logger::take(), testing::StartsWith("1 start to create cloud channel...|"));
    EXPECT_THAT(sent(), HasSubstr(proxy.services_info.load()));
    const struct {
        int level, option, value;
    } rows[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                {IPPROTO_TCP, TCP_KEEPIDLE, 15},
                {IPPROTO_TCP, TCP_KEEPINTVL, 5},
                {IPPROTO_TCP, TCP_KEEPCNT, 3},
                {IPPROTO_TCP, TCP_USER_TIMEOUT, 30000}};
    for (const auto &row : rows) {
        int value = -1;
        socklen_t size = sizeof value;
        EXPECT_EQ(0, ::getsockopt(socket.get(), row.level, row.option, &value, &size));
        EXPECT_EQ(row.value, value) << row.option;
    }
    EXPECT_EQ(0, createRemoteProxy(&proxy)); // already open: nothing happens
    EXPECT_EQ("", sent());
}

TEST_F(ChannelState, OpeningThatFailsLeavesNothingBehind)
{
    const std::pair<FAKE_WEBSOCKET_T, std::string> rows[] = {
        {{.has_conn = false}, "|2 cloud channel open failed|1 close cloud channel!"},
        {{.socket_fd = FD_SETSIZE},
         "|2 no channel: descriptor 1024 is past what select can hold|2 cloud channel open failed"
         "|1 close cloud channel!"},
        {{.sends = {{-1}}},
         "|2 send cloud channel HandShake request error!|1 close cloud channel!"}};
    for (const auto &[script, lines] : rows) {
        fake_websocket = script;
        const UniqueFd far = addSession("s1");
        proxy.send_buffer.write_offset = proxy.recv_buffer.write_offset = 5;
        EXPECT_EQ(-1, createRemoteProxy(&proxy));
        EXPECT_THAT(("|" + fake_logger::take()), EndsWith(lines));
        EXPECT_EQ("0 0 0", standing());
        EXPECT_EQ(nullptr, proxy.conn);
        EXPECT_EQ("EOF", drain(far.get()));
        EXPECT_EQ(0, proxy.recv_buffer.write_offset + proxy.send_buffer.write_offset);
    }
}

TEST_F(ChannelState, BackOffDoublesEveryFifthRetry)
{
    const std::pair<std::int32_t, std::int64_t> rows[] = {
        {0, 1},   {4, 1},   {5, 2},   {9, 2},   {10, 4},  {15, 8},
        {20, 16}, {25, 32}, {29, 32}, {30, 64}, {35, 64}, {1000000, 64}};
    for (const auto &[retries, seconds] : rows) {
        proxy.retry_count = retries - 1;
        recordChannelRetry(&proxy);
        EXPECT_EQ(retries, proxy.retry_count);
        fake_clock::advance(seconds - 1);
        EXPECT_EQ(-1, checkRetryInterval(&proxy)) << retries;
        fake_clock::advance(1);
        EXPECT_EQ(0, checkRetryInterval(&proxy)) << retries;
    }
    recordChannelRetry(&proxy);
    resetChannelRetry(&proxy);
    EXPECT_EQ("0 0 0", standing());
    EXPECT_EQ(0, checkRetryInterval(&proxy));
}

TEST_F(ChannelState, FailedOpeningsCountInARowOnly)
{
    failOpenings(1);
    EXPECT_EQ("300 ", fake_clock::takeSleeps());
    failOpenings(4);
    fake_websocket = {};
    fake_clock::advance(64);
    runChannelState(&proxy, 1);
    EXPECT_EQ("1 5 0", standing());
    releaseRemoteProxy(&proxy);
    failOpenings(5);
    runChannelState(&proxy, 0); // being switched off forgets them too
    failOpenings(5);
    EXPECT_EQ("0 15 0", standing());
    fake_clock::takeSleeps();
    runChannelState(&proxy, 1); // the back-off
    EXPECT_EQ("300 ", fake_clock::takeSleeps());
    EXPECT_EQ("", fake_websocket.calls);
}

TEST_F(ChannelState, LeavesEachStateForAReason)
{
    constexpr int NO_SOCKET = -2;
    const struct {
        int state, remote_switch;
        int waited, socket; // s since the last activity; 0 = as it is
        std::string standing, log, sleeps;
    } rows[] = {
        {1, 0, 0, 0, "0 0 0", CLOSING, ""},
        {2, 0, 0, 0, "0 0 0", CLOSING, ""},
        {9, 0, 0, 0, "0 0 0", std::string{"2 cloud channel state error! state:9|"} + CLOSING, ""},
        {9, 1, 0, 0, "0 0 0", std::string{"2 cloud channel state error! state:9|"} + CLOSING, ""},
        {1, 1, 0, 0, "1 3 2", "", ""},
        {1, 1, 1, 0, "1 3 2", "", ""}, // the pass itself waits for a second
        {1, 1, 2, 0, "0 4 0", CLOSING, ""},
        {1, 1, 0, NO_SOCKET, "0 4 0", CLOSING, ""},
        {1, 1, 3, NO_SOCKET, "0 5 0", CLOSING, ""}, // lost and timed out counts twice
        {2, 1, 70, 0, "2 3 2", "", ""},
        {2, 1, 100, NO_SOCKET, "0 0 0", CLOSING, "500 "},
    };
    for (const auto &row : rows) {
        fake_clock::reset();
        openChannel(static_cast<CHANNEL_STATE>(row.state));
        const UniqueFd far = addSession("s1");
        proxy.retry_count = 3;
        proxy.ping_count = 2;
        proxy.recv_buffer.write_offset = proxy.send_buffer.write_offset = 5;
        if (row.socket == NO_SOCKET) fake_websocket.socket_fd = -1;
        fake_clock::advance(row.waited);
        runChannelState(&proxy, row.remote_switch);
        EXPECT_EQ(row.standing, standing()) << row.state;
        EXPECT_EQ(row.log, fake_logger::take());
        EXPECT_EQ(row.sleeps, fake_clock::takeSleeps());
        const bool closed = channelState(&proxy) == CHANNEL_STATE_CLOSED;
        EXPECT_EQ(closed, proxy.conn == nullptr);
        EXPECT_EQ(closed ? "EOF" : "", drain(far.get()));
        EXPECT_EQ(closed ? 0 : 10, proxy.recv_buffer.write_offset + proxy.send_buffer.write_offset);
        EXPECT_EQ("", sent()); // no message is sent
        releaseRemoteProxy(&proxy);
    }
    fake_logger::take();
    EXPECT_EQ(0, releaseRemoteProxy(&proxy));
    EXPECT_EQ("", fake_logger::take());
}

TEST_F(ChannelState, WhatArrivesPostponesTheEndOfTheHandshake)
{
    openChannel(CHANNEL_STATE_HANDSHAKE);
    fake_clock::advance(2);
    ASSERT_EQ(1, ::write(channel_far.get(), "x", 1));
    runChannelState(&proxy, 1);
    EXPECT_EQ(0, static_cast<int>(::recv(channel_near.get(), nullptr, 0, 0)));
    EXPECT_EQ("x", drain(channel_near.get()));
    passUntil(1004);
    EXPECT_EQ("1 0 0", standing());
    passUntil(1005);
    EXPECT_EQ("0 1 0", standing());
}

TEST_F(ChannelState, PingPeriodIsComparedUnsigned)
{
    openChannel(CHANNEL_STATE_CONNECTED);
    proxy.ping_period = static_cast<std::uint32_t>(-1);
    fake_clock::advance(1000000);
    EXPECT_EQ(0, checkKeepalive(&proxy));
    EXPECT_EQ("2 0 0", standing());
    proxy.ping_period = 0;
    fake_websocket.sends = {{-1}}; // a ping that fails is not looked at
    EXPECT_EQ(0, checkKeepalive(&proxy) + checkKeepalive(&proxy));
    EXPECT_EQ("2 0 2", standing());
    EXPECT_EQ(fake_clock::seconds(), proxy.last_active_time.tv_sec);
}

TEST_F(ChannelState, FollowsTheRecord)
{
    const struct {
        std::int32_t mark, remote_switch, retries;
    } rows[] = {{0, 1, 5}, {1, 0, 5}, {1, 1, 0}};
    for (const auto &row : rows) {
        record.debug_switch = row.mark + 4;
        record.switch_changed = row.mark;
        record.remote_access_switch = row.remote_switch;
        proxy.retry_count = 5;
        syncProxyConfig(&proxy, &record);
        EXPECT_EQ(row.retries, proxy.retry_count);
        EXPECT_EQ(row.mark + 4, proxy.debug_switch);
        EXPECT_EQ(0, record.switch_changed);
    }
}

TEST_F(ChannelState, ThreadWaitsForTheConfigurationAndCountsItsPasses)
{
    static REMOTE_ACCESS_CONFIG_T thread_record; // the thread keeps its address
    list_init(&thread_record.service_list);
    g_task_failures = 2;
    g_remote_proxy.heartbeat = 65533;
    std::string sleeps;
    fake_clock::onSleep([&] {
        sleeps += fake_clock::takeSleeps();
        if (sleeps.ends_with("300 300 300 "))
            thread_record.proxy_thread.run_state = THREAD_STATE_STOPPING;
    });
    EXPECT_EQ(nullptr, remoteProxyThread(&thread_record));
    EXPECT_EQ("1000 1000 300 300 300 ", sleeps);
    EXPECT_EQ("1 remote proxy thread start!|1 remote proxy thread exit!", fake_logger::take());
    EXPECT_EQ(1, g_remote_proxy.heartbeat); // 65534, then 0, then 1
}
