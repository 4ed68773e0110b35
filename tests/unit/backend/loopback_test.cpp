#include "backend/net/endpoint.h"
#include "backend/observe/events.h"
#include "backend/policy/policy.h"
#include "backend/server.h"
#include "backend/sessions/socket_client.h"
#include "keep/opening.h"
#include "tests/unit/backend/scripted_device.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <future>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace backend;
using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr std::size_t MUCH = std::size_t{64} << 20; // more than all socket buffers on a path take

// A server on loopback in a thread of its own, for the devices dev1 and dev2, with a forward to the
// service "ssh" and one to a service that no device announces.
class Loopback : public testing::Test {
protected:
    void start(const LIMITS_T &limits = {})
    {
        SERVER_OPTIONS_T options;
        options.listen = parseEndpoint("127.0.0.1:0");
        std::deque<REGISTERED_T> devices;
        devices.push_back({{"pk1", "dev1"}, Secrets("secret1"), {}});
        devices.push_back({{"pk1", "dev2"}, Secrets("secret2"), {}});
        options.forwards = {parseForward("0=dev1/ssh"), parseForward("0=dev1/other")};
        options.control = control;
        for (int i = 0; i < more_devices; i++)
            devices.push_back({{"pk2", std::to_string(i)}, Secrets("secret"), {}});
        options.registry = DeviceRegistry(std::move(devices));
        options.limits = limits;
        server = startServer(io, std::move(options));
        port = listenEndpoint(*server).port();
        ssh_port = forwardEndpoint(*server, 0).port();
        other_port = forwardEndpoint(*server, 1).port();
        thread = std::thread([this] { io.run(); });
    }

    void TearDown() override
    {
        if (!thread.joinable()) return;
        boost::asio::post(io, [this] { stopServer(*server); });
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (!io.stopped() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(5ms);
        EXPECT_TRUE(io.stopped()) << "something is left running after the end";
        io.stop();
        thread.join();
    }

    ScriptedDevice connectDevice(const std::string &name = "dev1", const char *more_services = "")
    {
        ScriptedDevice device(port);
        device.more_services = more_services;
        device.sendHandshake(name, name == "dev1" ? "secret1" : "secret2", time(nullptr));
        const auto answer = device.receive();
        EXPECT_TRUE(answer && answer->type() == 0 && answer->id() == "msg_id_for_handshake");
        EXPECT_EQ(answer ? answer->payload : "", "{\"code\": 0, \"message\": \"accepted\"}");
        return device;
    }

    // A client whose session the device has granted under the token.
    TcpPeer connectClient(ScriptedDevice &device, const std::string &token)
    {
        TcpPeer client(ssh_port);
        const auto request = device.receive();
        EXPECT_TRUE(request && request->type() == 4);
        EXPECT_EQ(request ? request->payload : "",
                  "{\"service_type\":\"SSH\",\"service_name\":\"ssh\","
                  "\"service_ip\":\"127.0.0.1\",\"service_port\":22}");
        grant(device, request ? request->id() : "", token);
        return client;
    }

    static void grant(ScriptedDevice &device, const std::string &id, const std::string &token)
    {
        device.send(
            0, id, token,
            "{\"code\": 0, \"message\": \"new session response\"}\r\n\r\n{\"session_id\": \"" +
                token + "\"}");
    }

    // The next message is a release of the token; a device answers it.
    static void expectRelease(ScriptedDevice &device, const std::string &token)
    {
        const auto release = device.receive();
        ASSERT_TRUE(release && release->type() == 5);
        EXPECT_EQ(release->token(), token);
        EXPECT_EQ(release->payload, "");
        device.send(0, release->id(), token,
                    "{\"code\": 0, \"message\": \"release session "
                    "response\"}\r\n\r\n{\"session_id\": \"x\"}");
    }

    // Looked at on the server's thread.
    bool sessionIs(const std::string &token, bool (*test)(SESSION_T &session))
    {
        const auto seen = std::make_shared<std::promise<bool>>();
        boost::asio::post(io, [this, token, test, seen] {
            const ChannelPtr channel = findChannel(server->directory, {"pk1", "dev1"});
            seen->set_value(channel && channel->streams.contains(token) &&
                            test(dynamic_cast<SESSION_T &>(*channel->streams.at(token))));
        });
        return seen->get_future().get();
    }

    void waitUntilLingering(const std::string &token)
    {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        const auto test = [](SESSION_T &it) { return it.state == SESSION_STATE::LINGERING; };
        while (!sessionIs(token, test) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
    }

    static void expectAlive(ScriptedDevice &device)
    {
        device.send(256, "ping1", "", "");
        const auto pong = device.receive();
        ASSERT_TRUE(pong);
        EXPECT_EQ(pong->type(), 257);
        EXPECT_EQ(pong->id(), "ping1");
    }

    boost::asio::io_context io{1};
    std::unique_ptr<SERVER_T> server;
    std::thread thread;
    std::uint16_t port = 0, ssh_port = 0, other_port = 0;
    std::string control; // path of the control socket, if there is to be one
    int more_devices = 0;
};

TEST_F(Loopback, SessionIsCutOffWhenItsLongestTimeIsOverAndEventsTellOfIt)
{
    start();
    const auto onServer = [this](std::function<void()> function) {
        std::promise<void> done;
        boost::asio::post(io, [&] {
            function();
            done.set_value();
        });
        done.get_future().wait();
    };
    std::string events;
    SubscriptionPtr subscription;
    onServer([&] {
        subscription = subscribe([&](const EVENT_T &event) {
            events += std::to_string(static_cast<int>(event.kind)) + event.device.device_name +
                      event.service + event.reason + ", ";
        });
    });
    {
        ScriptedDevice device = connectDevice();
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        onServer([&] {
            boost::asio::generic::stream_protocol::socket socket(io, {AF_UNIX, SOCK_STREAM},
                                                                 ends[0]);
            CLIENT_T client{makeSocketClient(std::move(socket)), "anna", "", false, {}, {}};
            client.max_session = 1s;
            const ChannelPtr channel = findChannel(server->directory, {"pk1", "dev1"});
            startSession(server->sessions, *channel, std::move(client), channel->services.at(0));
        });
        const auto request = device.receive();
        grant(device, request ? request->id() : "", "t1");
        const auto granted = std::chrono::steady_clock::now();
        expectRelease(device, "t1");
        EXPECT_GT(std::chrono::steady_clock::now() - granted, 900ms);
        EXPECT_TRUE(isReady(ends[1], POLLIN));
        close(ends[1]);
    }
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    bool has_left = false;
    while (!has_left && std::chrono::steady_clock::now() < deadline)
        onServer([&] { has_left = !findChannel(server->directory, {"pk1", "dev1"}); });
    onServer([&] { subscription.reset(); });
    EXPECT_THAT(events, testing::StartsWith("0dev1, 2dev1ssh, 3dev1sshthe longest session that a "
                                            "grant allows is over, 1dev1"));
}

TEST_F(Loopback, RefusedHandshakeGetsItsCodeAndIsClosed)
{
    start();
    for (const char *name : {"dev1", "nobody"}) { // a stranger cannot tell which one exists
        ScriptedDevice device(port);
        device.sendHandshake(name, "wrong", time(nullptr));
        EXPECT_EQ(device.receive().value_or(MESSAGE_SEEN_T{}).payload,
                  "{\"code\": 401, \"message\": \"unknown device or wrong signature\"}");
        EXPECT_TRUE(device.isClosed());
    }
    ScriptedDevice early(port);
    early.send(256, "ping1", "", "");
    EXPECT_EQ(early.receive().value_or(MESSAGE_SEEN_T{}).payload,
              "{\"code\": 400, \"message\": \"malformed handshake\"}");
    EXPECT_TRUE(early.isClosed());
}

TEST_F(Loopback, ConnectionsWithoutAHandshakeAreLimitedInTimeAndNumber)
{
    LIMITS_T limits;
    limits.handshake_time = 1000ms;
    limits.places = 2;
    start(limits);
    TcpPeer silent(port);
    ScriptedDevice upgraded(port);
    TcpPeer third(port);
    EXPECT_NE(silent.ending(), "open") << "the longest silent one makes room";
    EXPECT_FALSE(isReady(third.fd, POLLIN, 0)) << "it was only ended by the time";
    EXPECT_TRUE(upgraded.isClosed());
    EXPECT_EQ(third.ending(), "end");
    ScriptedDevice device = connectDevice();
    device.sendFrame(1, ScriptedDevice::message(256, "ping1", "", "")); // text
    EXPECT_TRUE(device.isClosed());
    ScriptedDevice second = connectDevice();
    second.sendFrame(2, std::string(100000, 'x'));
    EXPECT_TRUE(second.isClosed());
}

TEST_F(Loopback, NewerChannelReplacesTheOlderWithItsSessions)
{
    start();
    ScriptedDevice older = connectDevice();
    ScriptedDevice neighbour = connectDevice("dev2");
    TcpPeer client = connectClient(older, "t1");
    ScriptedDevice newer = connectDevice();
    EXPECT_EQ(client.ending(), "reset");
    EXPECT_TRUE(older.isClosed());
    TcpPeer again = connectClient(newer, "t1"); // the same identifier once more
    newer.send(21, "d1", "t1", "fresh");
    EXPECT_EQ(again.receive(5), "fresh");
    expectAlive(neighbour);
}

TEST_F(Loopback, SecondDeviceOfANameIsTurnedAway)
{
    start();
    const ScriptedDevice first = connectDevice();
    ScriptedDevice second = connectDevice(); // as one that has lost its line
    ScriptedDevice third(port);
    third.sendHandshake("dev1", "secret1", time(nullptr));
    EXPECT_THAT(third.receive().value_or(MESSAGE_SEEN_T{}).payload, HasSubstr("\"code\": 409"));
    expectAlive(second);
}

TEST_F(Loopback, ReleaseByTheDeviceFlushesThenEnds)
{
    start();
    ScriptedDevice device = connectDevice();
    TcpPeer client = connectClient(device, "t1");
    const std::string bytes(50000, 'x');
    std::size_t total = 0;
    // More than the sockets take, so that a part waits in the session.
    while (total < MUCH && !sessionIs("t1", [](SESSION_T &it) { return !it.filling.empty(); })) {
        device.send(21, "d1", "t1", bytes);
        expectAlive(device);
        total += bytes.size();
    }
    device.send(5, "r1", "t1", "");
    const auto answer = device.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->id(), "r1");
    EXPECT_TRUE(answer->payload.starts_with("{\"code\": 0,"));
    // A client that goes on sending to the end is not answered with a reset, which would take from
    // it what it has not read yet.
    std::atomic<bool> is_done{false};
    auto sender = std::async(std::launch::async, [&] {
        while (!is_done)
            client.sendUntilBlocked(std::string(1000, 'y'), 1000);
    });
    EXPECT_EQ(client.receive(total).size(), total);
    is_done = true;
    sender.get();
    EXPECT_EQ(client.ending(), "end");
    device.send(5, "r2", "t1", ""); // answered also when nothing is left to release
    EXPECT_EQ(device.receive().value_or(MESSAGE_SEEN_T{}).id(), "r2");
}

TEST_F(Loopback, ClientThatEndsItsSendingStillReceives)
{
    LIMITS_T limits;
    limits.linger_time = 300ms;
    start(limits);
    ScriptedDevice device = connectDevice();
    TcpPeer client = connectClient(device, "t1");
    client.send("question");
    client.endSending();
    EXPECT_EQ(device.receive().value_or(MESSAGE_SEEN_T{}).payload, "question");
    device.send(21, "d1", "t1", "answer");
    EXPECT_EQ(client.receive(6), "answer");
    expectRelease(device, "t1"); // once nothing has come for the linger time
    EXPECT_EQ(client.ending(), "end");
    TcpPeer unanswered = connectClient(device, "t2");
    unanswered.endSending();
    expectRelease(device, "t2");
    EXPECT_EQ(unanswered.ending(), "end");
}

TEST_F(Loopback, VanishedClientIsReleasedAndItsLateDataDropped)
{
    start();
    ScriptedDevice device = connectDevice();
    {
        TcpPeer client = connectClient(device, "t1");
        device.send(21, "d1", "t1", "unread"); // so that the close becomes a reset
        EXPECT_TRUE(isReady(client.fd, POLLIN));
    }
    const auto release = device.receive();
    ASSERT_TRUE(release && release->type() == 5);
    device.send(21, "d2", "t1", "under way");
    device.send(21, "d3", "nobody", "x");
    expectRelease(device, "nobody"); // and none for the session whose release is under way
    for (int i = 0; i < 100; i++)
        device.send(21, "d4", "flood" + std::to_string(i), "x");
    device.send(256, "ping1", "", "");
    int releases = 0;
    for (auto seen = device.receive(); seen && seen->type() == 5; seen = device.receive())
        releases++;
    EXPECT_LT(releases, 20);
}

TEST_F(Loopback, RefusedOrUnknownServiceResetsTheClient)
{
    start();
    EXPECT_EQ(TcpPeer(ssh_port).ending(), "reset"); // no device yet
    ScriptedDevice device = connectDevice();
    EXPECT_EQ(TcpPeer(other_port).ending(), "reset"); // nothing announced under that name
    for (const int code : {101604, 101671, 7}) {
        TcpPeer client(ssh_port);
        const auto request = device.receive();
        ASSERT_TRUE(request);
        device.send(0, request->id(), "",
                    "{\"code\": " + std::to_string(code) + ", \"message\": \"m\"}\r\n\r\nnull");
        EXPECT_EQ(client.ending(), "reset");
    }
    TcpPeer first = connectClient(device, "t1");
    TcpPeer second = connectClient(device, "t1"); // an identifier that is in use
    expectRelease(device, "t1");
    EXPECT_EQ(second.ending(), "reset");
}

TEST_F(Loopback, SessionPastTheLimitIsRefusedUnlessOneLingers)
{
    start();
    ScriptedDevice device = connectDevice();
    std::vector<TcpPeer> clients;
    for (int i = 0; i < 32; i++)
        clients.push_back(connectClient(device, "t" + std::to_string(i)));
    TcpPeer refused(ssh_port);
    const auto request = device.receive();
    ASSERT_TRUE(request && request->type() == 4);
    device.send(0, request->id(), "",
                "{\"code\": 101604, \"message\": \"socketfd insert error\"}\r\n\r\nnull");
    EXPECT_EQ(refused.ending(), "reset");
    for (const int i : {7, 3}) {
        clients[static_cast<std::size_t>(i)].send("last");
        clients[static_cast<std::size_t>(i)].endSending();
        EXPECT_EQ(device.receive().value_or(MESSAGE_SEEN_T{}).payload, "last");
        waitUntilLingering("t" + std::to_string(i));
    }
    TcpPeer another(ssh_port);
    expectRelease(device, "t7"); // the one that lingers longest
    const auto opened = device.receive();
    ASSERT_TRUE(opened && opened->type() == 4);
    grant(device, opened->id(), "t33");
    device.send(21, "d1", "t33", "hello");
    EXPECT_EQ(another.receive(5), "hello");
}

TEST_F(Loopback, PausedClientLosesNothingAndHoldsUpNobody)
{
    start();
    ScriptedDevice device = connectDevice();
    TcpPeer paused = connectClient(device, "t1");
    TcpPeer other = connectClient(device, "t2");
    constexpr std::size_t TOTAL = std::size_t{12} << 20;
    for (std::size_t sent = 0; sent < TOTAL; sent += 50000)
        device.send(21, "d", "t1", std::string(50000, 'x'));
    device.send(21, "d", "t2", "hello");
    EXPECT_EQ(other.receive(5), "hello");
    device.send(5, "r", "t1", "");
    EXPECT_GE(paused.receive(TOTAL).size(), TOTAL);
    EXPECT_EQ(paused.ending(), "end");
}

TEST_F(Loopback, DeviceThatDoesNotReadBlocksTheClient)
{
    start();
    ScriptedDevice device = connectDevice();
    TcpPeer client = connectClient(device, "t1");
    const std::size_t sent = client.sendUntilBlocked(std::string(65536, 'x'), MUCH);
    ASSERT_LT(sent, MUCH);
    std::size_t got = 0;
    while (got < sent) {
        const auto data = device.receive();
        ASSERT_TRUE(data);
        got += data->payload.size();
    }
    EXPECT_EQ(got, sent);
    // One that only asks, and never takes an answer, is dropped.
    const std::string pings = ScriptedDevice::frame(2, ScriptedDevice::message(256, "p", "", ""));
    EXPECT_LT(device.peer.sendUntilBlocked(pings, std::size_t{512} << 20), std::size_t{512} << 20);
    EXPECT_EQ(client.ending(), "reset");
}

TEST_F(Loopback, ClientThatNeverReadsIsCutOffAlone)
{
    LIMITS_T limits;
    for (const bool is_all : {false, true}) {
        if (is_all) limits = {.session_buffer = MUCH, .all_buffers = MUCH / 8};
        start(limits);
        ScriptedDevice device = connectDevice();
        TcpPeer client = connectClient(device, "t1");
        TcpPeer less = connectClient(device, "t2");
        device.send(21, "d", "t2", std::string(50000, 'y'));
        const std::string frame = ScriptedDevice::frame(
            2, ScriptedDevice::message(21, "d", "t1", std::string(50000, 'x')));
        for (std::size_t sent = 0; sent < MUCH && !HasFailure(); sent += frame.size())
            device.peer.send(frame);
        expectRelease(device, "t1");
        expectAlive(device);
        EXPECT_EQ(client.ending(), "reset");
        EXPECT_EQ(less.receive(50000).size(), 50000u);
        TearDown();
        io.restart();
    }
}

TEST_F(Loopback, FrozenDeviceIsNamedAndThenClosed)
{
    start({.request_silence = 0ms, .answering_time = 200ms, .silence_time = 1500ms});
    ScriptedDevice device = connectDevice();
    TcpPeer client(ssh_port);
    EXPECT_EQ(client.ending(), "reset"); // it has not read the ping
    const auto silent = [this] {
        std::promise<bool> seen;
        boost::asio::post(io, [&] {
            const ChannelPtr channel = findChannel(server->directory, {"pk1", "dev1"});
            seen.set_value(channel && isSilent(*channel));
        });
        return seen.get_future().get();
    };
    const auto deadline = std::chrono::steady_clock::now() + 1s; // before it is closed
    while (!silent() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(silent());
    device.send(256, "ping1", "", ""); // any byte counts
    for (bool is_pong = false; !is_pong && !device.has_ended;) {
        const auto message = device.receive(); // none for the WebSocket's own ping
        is_pong = message && message->type() == 257;
    }
    EXPECT_FALSE(silent());
    TcpPeer again(ssh_port);
    EXPECT_EQ(again.ending(), "reset");
    while (!device.isClosed() && !HasFailure()) {
    }
}

TEST_F(Loopback, SessionAnsweredTooLateIsReleased)
{
    LIMITS_T limits;
    limits.open_time = 200ms;
    start(limits);
    ScriptedDevice device = connectDevice();
    TcpPeer client(ssh_port);
    const auto request = device.receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(client.ending(), "reset");
    grant(device, request->id(), "t1");
    expectRelease(device, "t1");
}

TEST_F(Loopback, UnreadableMessagesAreDroppedAndTheChannelStays)
{
    start();
    ScriptedDevice device = connectDevice();
    const std::string good = ScriptedDevice::message(256, "p", "", "");
    for (const std::string &bad :
         {std::string(), std::string("x"), good + "surplus", good.substr(1),
          ScriptedDevice::message(4, "m", "", "{}"), std::string(60000, '{'),
          ScriptedDevice::message(0, "open-1", "t", "no json"),
          ScriptedDevice::message(0, "unknown", "t", "{\"code\":0}")}) {
        device.sendFrame(2, bad);
    }
    expectAlive(device);
}

TEST_F(Loopback, AccountCheckEndsUnansweredWithItsChannel)
{
    start();
    ScriptedDevice device = connectDevice();
    std::promise<bool> answered;
    boost::asio::post(io, [&] {
        requestAccountCheck(
            *findChannel(server->directory, {"pk1", "dev1"}), "root", "secret",
            [&](const ACCOUNT_RESULT_T &result) { answered.set_value(result.is_answered); });
    });
    ASSERT_TRUE(device.receive());
    const ScriptedDevice newer = connectDevice();
    EXPECT_FALSE(answered.get_future().get());
}

TEST_F(Loopback, ChangedRegistryCutsOffTheDevicesThatItChanges)
{
    start();
    ScriptedDevice same = connectDevice("dev1");
    ScriptedDevice changed = connectDevice("dev2");
    const auto replace = [this](const char *old_until) {
        boost::asio::post(io, [this, old_until] {
            replaceRegistry(server->directory, parseRegistry(R"({"devices":[
                {"product_key":"pk1","device_name":"dev1","device_secret":"new",
                 "old_secret":"secret1","old_secret_until":")" +
                                                             std::string(old_until) + R"("},
                {"product_key":"pk1","device_name":"dev2","device_secret":"new"}]})"));
        });
    };
    replace("9999-01-01T00:00:00Z");
    EXPECT_TRUE(changed.isClosed());
    expectAlive(same);
    replace("2020-01-01T00:00:00Z");
    EXPECT_TRUE(same.isClosed());
}

TEST_F(Loopback, OperatorThatTakesNoAnswerIsCutOff)
{
    control = testing::TempDir() + "control-" + std::to_string(getpid());
    more_devices = 20000; // their list is more than the socket's buffers take
    LIMITS_T limits;
    limits.answer_time = 100ms;
    start(limits);
    boost::asio::io_context own;
    boost::asio::local::stream_protocol::socket tool(own);
    tool.connect(control);
    boost::asio::write(tool, boost::asio::buffer(std::string("{\"do\":\"devices\"}\n")));
    pollfd closed{tool.native_handle(), 0, 0};
    EXPECT_EQ(poll(&closed, 1, 5000), 1);
}

// ---- kept sessions

constexpr char KEY[] = "000102030405060708090a0b0c0d0e0f";
constexpr char KEPT[] = R"("keep":"000102030405060708090a0b0c0d0e0f")";
constexpr char KEEPER[] =
    R"(,{"service_type":"KEEPER","service_name":"keeper","service_ip":"127.0.0.1",)"
    R"("service_port":7007})";

// A tool at the control socket, with the client's end of a session.
class Tool {
public:
    Tool(const std::string &control, const std::string &request)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        client = ends[0];
        EXPECT_EQ(write(client, "early", 5), 5); // before anyone can have read the opening
        socket_.connect(control);
        std::string line = "{" + request + "}\n";
        iovec part{line.data(), line.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> rights{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = rights.data();
        message.msg_controllen = rights.size();
        cmsghdr *const first = CMSG_FIRSTHDR(&message);
        first->cmsg_level = SOL_SOCKET;
        first->cmsg_type = SCM_RIGHTS;
        first->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(first), &ends[1], sizeof(int));
        EXPECT_EQ(sendmsg(socket_.native_handle(), &message, 0), static_cast<ssize_t>(line.size()));
        close(ends[1]);
    }
    Tool(const Tool &) = delete;
    Tool &operator=(const Tool &) = delete;
    ~Tool()
    {
        close(client);
    }
    // The next answer; null at the deadline.
    nlohmann::json answer()
    {
        std::string line;
        char byte = 0;
        while (isReady(socket_.native_handle(), POLLIN) &&
               recv(socket_.native_handle(), &byte, 1, 0) == 1 && byte != '\n')
            line += byte;
        return nlohmann::json::parse(line, nullptr, false);
    }
    int client;

private:
    boost::asio::io_context own_;
    boost::asio::local::stream_protocol::socket socket_{own_};
};

class KeptSession : public Loopback {
protected:
    void SetUp() override
    {
        control = testing::TempDir() + "kept-" + std::to_string(getpid());
        start();
    }

    void setPolicy(const std::string &services)
    {
        const PolicyPtr policy =
            parsePolicy(R"({"operators":[{"name":"anna","accounts":[")" + account() +
                        R"("]}],"grants":[{"name":"all","who":["anna"],"devices":["*"],)"
                        R"("services":[)" +
                        services +
                        R"(],"verbs":["list","connect","close"],)"
                        R"("max_session":"1h"}]})");
        std::promise<void> done;
        boost::asio::post(io, [&] {
            replacePolicy(server->operations, policy);
            done.set_value();
        });
        done.get_future().wait();
    }

    static std::string account()
    {
        const passwd *const entry = getpwuid(getuid());
        return entry == nullptr ? "" : entry->pw_name;
    }

    static keep::OPENING_T openingOf(const MESSAGE_SEEN_T &seen, std::size_t *size = nullptr)
    {
        const std::span bytes(reinterpret_cast<const std::uint8_t *>(seen.payload.data()),
                              seen.payload.size());
        keep::OPENING_T opening;
        const std::size_t whole = keep::openingSize(bytes);
        EXPECT_GT(whole, 0U);
        if (size != nullptr) *size = whole;
        EXPECT_EQ(keep::parseOpening(bytes.first(whole), opening), keep::OPENING_FAULT::NONE);
        return opening;
    }

    // The device grants the session that is asked of its keeper.
    static MESSAGE_SEEN_T grantKeeper(ScriptedDevice &device, const std::string &token)
    {
        const auto request = device.receive();
        EXPECT_TRUE(request && request->type() == 4);
        EXPECT_THAT(request.value_or(MESSAGE_SEEN_T{}).payload, HasSubstr("KEEPER"));
        grant(device, request ? request->id() : "", token);
        return device.receive().value_or(MESSAGE_SEEN_T{});
    }

    nlohmann::json ask(const std::string &request)
    {
        return Tool(control, request).answer();
    }

    std::string connect_ = R"("do":"connect","device":"dev1","service":)";
};

TEST_F(KeptSession, OpeningComesFirstAndTheEndForGoodIsToldToBothEnds)
{
    setPolicy(R"("*")");
    ScriptedDevice device = connectDevice("dev1", KEEPER);
    Tool tool(control, connect_ + R"("ssh","resume":true,)" + KEPT);
    std::size_t size = 0;
    const MESSAGE_SEEN_T first = grantKeeper(device, "t1");
    const keep::OPENING_T opening = openingOf(first, &size);
    EXPECT_EQ(opening.kind, keep::OPENING::RESUME);
    EXPECT_EQ(keep::keyText(opening.key), KEY);
    EXPECT_EQ(opening.longest_s, 3600U);
    EXPECT_EQ(opening.service, (keep::KEPT_SERVICE_T{"SSH", "ssh", "127.0.0.1", 22}));
    EXPECT_EQ(opening.who, "anna");
    EXPECT_EQ(first.payload.size(), size);
    EXPECT_EQ(device.receive().value_or(MESSAGE_SEEN_T{}).payload, "early");
    EXPECT_EQ(tool.answer().value("kept", false), true);
    const auto session = ask(R"("do":"sessions")")["sessions"][0];
    EXPECT_EQ(session.value("service", ""), "ssh");
    EXPECT_EQ(session.value("kept", ""), "be45cb2605bf36be"); // SHA-256 of the key's bytes
    EXPECT_EQ(session.value("resumed", false), true);

    setPolicy(R"("other")");
    expectRelease(device, "t1");
    EXPECT_EQ(tool.answer().value("final", false), true);
    const keep::OPENING_T end = openingOf(grantKeeper(device, "t2"));
    EXPECT_EQ(end.kind, keep::OPENING::END);
    EXPECT_EQ(end.key, opening.key);
    EXPECT_EQ(end.service, opening.service);
    EXPECT_EQ(end.who, "anna");
    setPolicy(R"("*")");
    EXPECT_EQ(ask(R"("do":"sessions")")["sessions"].size(), 0U);
    EXPECT_EQ(ask(R"("do":"device","device":"dev1")")["device"]["sessions"], 0);
    device.send(5, "r1", "t2", ""); // the keeper closes it
    EXPECT_EQ(device.receive().value_or(MESSAGE_SEEN_T{}).id(), "r1");
    expectAlive(device);
}

TEST_F(KeptSession, LostChannelOrToolIsNoEndForGood)
{
    ScriptedDevice device = connectDevice("dev1", KEEPER);
    Tool tool(control, connect_ + R"("ssh",)" + KEPT);
    EXPECT_EQ(openingOf(grantKeeper(device, "t1")).kind, keep::OPENING::BEGIN);
    EXPECT_TRUE(tool.answer().value("kept", false));
    ScriptedDevice newer = connectDevice("dev1", KEEPER);
    EXPECT_FALSE(tool.answer().contains("final"));
    Tool plain(control, connect_ + R"("ssh")");
    const auto request = newer.receive(); // not for the keeper
    ASSERT_TRUE(request && request->payload.find("SSH") != std::string::npos);
    grant(newer, request->id(), "t1");
    EXPECT_EQ(newer.receive().value_or(MESSAGE_SEEN_T{}).payload, "early");
    const auto begun = plain.answer();
    EXPECT_FALSE(begun.contains("kept"));
    EXPECT_TRUE(ask(R"("do":"close","session":")" + begun.value("session", "") + '"')["ok"]);
    expectRelease(newer, "t1");
    EXPECT_FALSE(plain.answer().contains("final"));
    expectAlive(newer);
}

TEST_F(KeptSession, RefusalsSayNoMoreThanTheOperatorMayKnow)
{
    setPolicy(R"("ssh", "keeper")");
    const std::string kept = KEPT;
    const auto check = [&](const std::string &rest, const char *kind) {
        EXPECT_EQ(ask(connect_ + rest).value("kind", ""), kind) << rest;
    };
    {
        ScriptedDevice device = connectDevice();
        check(R"("ssh",)" + kept, "no-keeper");
        check(R"("other",)" + kept, "not-found");
        EXPECT_FALSE(ask(R"("do":"device","device":"dev1")")["device"].contains("keeps"));
        setPolicy(R"("other")");
        check(R"("ssh",)" + kept, "not-found"); // not that there is no keeper
    }
    setPolicy(R"("ssh", "keeper")");
    std::this_thread::sleep_for(50ms);
    ScriptedDevice device = connectDevice("dev1", KEEPER);
    check(R"("keeper")", "not-found");
    check(R"("keeper",)" + kept, "not-found");
    check(R"("ssh","resume":true)", "bad-request");
    check(R"("ssh","keep":"0123")", "bad-request");
    check(R"("ssh","keep":"000102030405060708090A0B0C0D0E0F")", "bad-request");
    check(R"("ssh","keep":5)", "bad-request");
    const auto services = ask(R"("do":"services","device":"dev1")");
    EXPECT_EQ(services["services"].size(), 1U);
    EXPECT_EQ(services.value("keeps", false), true);
    const auto shown = ask(R"("do":"device","device":"dev1")")["device"];
    EXPECT_EQ(shown["services"], 1);
    EXPECT_EQ(shown.value("keeps", false), true);
    expectAlive(device); // it was asked nothing
}
