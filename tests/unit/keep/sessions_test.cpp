// Both ends of kept sessions over a carrier that drops, cuts and dies. The sockets are real; the
// carrier is a relay between two pairs of them, in the same thread.
#include "keep/crc32c.h"
#include "keep/sessions.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/socket.h>

using namespace keep;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::pair<UniqueFd, UniqueFd> makePair()
{
    std::array<int, 2> pair{};
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()));
    return {UniqueFd(pair[0]), UniqueFd(pair[1])};
}

Bytes someBytes(std::size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

// One direction of a carrier, as messages of the channel.
struct WAY_T {
    int from;
    int to;
    Bytes held;
};

struct RELAY_T {
    UniqueFd operator_end;
    UniqueFd keeper_end;
    std::array<WAY_T, 2> ways;
};

// What the carrier does to a message.
struct WEATHER_T {
    unsigned drop = 0; // per thousand: the whole message
    unsigned cut = 0;  // its tail
    unsigned die = 0;  // the carrier
    unsigned faults_left = 1000;
};

// A program at a local end: sends its bytes, then its end, and collects what comes.
struct PROGRAM_T {
    UniqueFd fd;
    Bytes to_send;
    std::size_t sent = 0;
    bool has_ended = false;
    Bytes got;
    bool has_got_end = false;
    std::size_t reads_at_once = 65536; // 0: it does not read
    bool keeps_open = false;

    void run()
    {
        while (sent < to_send.size()) {
            const ssize_t count = ::send(fd.get(), to_send.data() + sent, to_send.size() - sent,
                                         MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count <= 0) break;
            sent += static_cast<std::size_t>(count);
        }
        if (sent == to_send.size() && !has_ended && !keeps_open) {
            (void)::shutdown(fd.get(), SHUT_WR);
            has_ended = true;
        }
        if (reads_at_once == 0) return;
        Bytes bytes(reads_at_once);
        const ssize_t count = ::recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (count == 0) has_got_end = true;
        if (count > 0) got.insert(got.end(), bytes.begin(), bytes.begin() + count);
    }
};

class KeptTest : public testing::Test {
protected:
    explicit KeptTest(const KEPT_TIMES_T &times = SHORT)
        : operators{std::size_t{64} << 20, times}, keepers{KEEPER_BUDGET, times}
    {
    }

    // A hundredth of the usual ones.
    static constexpr KEPT_TIMES_T SHORT{Seconds(0.08), Seconds(0.05), Seconds(0.01), Seconds(0.15),
                                        Seconds(0.3)};

    struct LINK_T {
        KEPT_SESSION_T *near = nullptr;
        KEPT_SESSION_T *far = nullptr;
        PROGRAM_T client;
        PROGRAM_T service;
        std::unique_ptr<RELAY_T> relay;
        bool is_held = false; // its relay carries nothing
        unsigned lost = 0;
        bool is_near_over = false;
        bool is_far_over = false;
    };

    LINK_T &open(Bytes up, Bytes down)
    {
        LINK_T &link = links[static_cast<std::uint8_t>(links.size())];
        SessionKey key{};
        key[0] = static_cast<std::uint8_t>(links.size());
        auto [client, near_local] = makePair();
        auto [service, far_local] = makePair();
        link.client.fd = std::move(client);
        link.client.to_send = std::move(down);
        link.service.fd = std::move(service);
        link.service.to_send = std::move(up);
        link.near =
            &operators.add(SIDE::OPERATOR, key, std::move(near_local),
                           {.lost = [&link](KEPT_SESSION_T &, const char *) { ++link.lost; },
                            .over = [&link](KEPT_SESSION_T &) { link.is_near_over = true; }});
        link.far = &keepers.add(SIDE::KEEPER, key, std::move(far_local),
                                {.over = [&link](KEPT_SESSION_T &) { link.is_far_over = true; }});
        return link;
    }

    void connect(LINK_T &link)
    {
        auto [near, relay_near] = makePair();
        auto [far, relay_far] = makePair();
        const int a = relay_near.get();
        const int b = relay_far.get();
        link.relay = std::make_unique<RELAY_T>(RELAY_T{
            std::move(relay_near), std::move(relay_far), {WAY_T{a, b, {}}, WAY_T{b, a, {}}}});
        keepers.attach(*link.far, std::move(far));
        operators.attach(*link.near, std::move(near));
    }

    bool chance(unsigned per_thousand)
    {
        return weather.faults_left > 0 && random() % 1000 < per_thousand;
    }

    // False when the carrier has died.
    bool carry(WAY_T &way)
    {
        Bytes message(1 + random() % 50000);
        const ssize_t count = ::recv(way.from, message.data(), message.size(), MSG_DONTWAIT);
        if (count == 0) return false;
        if (count < 0) return true;
        message.resize(static_cast<std::size_t>(count));
        const bool dies = chance(weather.die);
        const bool is_dropped = chance(weather.drop);
        const bool is_cut = chance(weather.cut);
        if (dies || is_dropped || is_cut) --weather.faults_left;
        if (dies) return false;
        if (is_dropped) return true;
        if (is_cut) message.resize(random() % message.size());
        way.held.insert(way.held.end(), message.begin(), message.end());
        const ssize_t taken =
            ::send(way.to, way.held.data(), way.held.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (taken > 0) way.held.erase(way.held.begin(), way.held.begin() + taken);
        return true;
    }

    void runRelay(LINK_T &link)
    {
        if (link.relay && !link.is_held)
            for (WAY_T &way : link.relay->ways)
                if (!carry(way)) {
                    link.relay.reset();
                    break;
                }
        const bool is_gone = link.near->state == KEPT_STATE::AWAY && !link.is_far_over;
        if (is_gone && comes_back) connect(link);
    }

    // Until every session is over at both ends, or the time is.
    bool run(std::chrono::milliseconds most)
    {
        const auto end = Clock::now() + most;
        for (;;) {
            bool is_over = true;
            for (auto &[index, link] : links) {
                link.client.run();
                link.service.run();
                runRelay(link);
                is_over = is_over && link.is_near_over && isFarDone(link);
            }
            operators.pass({}, std::chrono::milliseconds(0));
            keepers.pass({}, std::chrono::milliseconds(0));
            if (is_over) return true;
            if (Clock::now() >= end) return false;
        }
    }

    // The last acknowledgement may be lost with its carrier: the keeper, which has sent and handed
    // over everything, then waits for somebody who has no reason to come back.
    static bool isFarDone(const LINK_T &link)
    {
        const KEPT_STREAM_T &stream = link.far->stream;
        return link.is_far_over ||
               (link.is_near_over && link.far->state == KEPT_STATE::AWAY &&
                stream.is_peer_end_passed && stream.most_sent > stream.outgoing.end());
    }

    static void expectWhole(const LINK_T &link)
    {
        EXPECT_TRUE(link.is_near_over);
        EXPECT_EQ(KEPT_END::WHOLE, link.near->end) << link.near->reason;
        if (link.is_far_over) {
            EXPECT_EQ(KEPT_END::WHOLE, link.far->end) << link.far->reason;
        }
    }

    void drainPrograms()
    {
        for (auto &[index, link] : links)
            for (int round = 0; round < 4000; ++round) {
                link.client.run();
                link.service.run();
            }
    }

    void expectSame()
    {
        drainPrograms();
        for (auto &[index, link] : links) {
            expectWhole(link);
            EXPECT_TRUE(link.service.to_send == link.client.got) << link.client.got.size();
            EXPECT_TRUE(link.client.to_send == link.service.got) << link.service.got.size();
            EXPECT_TRUE(link.client.has_got_end);
            EXPECT_TRUE(link.service.has_got_end);
        }
    }

    KeptSessions operators;
    KeptSessions keepers;
    std::map<std::uint8_t, LINK_T> links;
    WEATHER_T weather;
    bool comes_back = true;
    std::mt19937 random{7};
};

TEST_F(KeptTest, CarriesBothStreamsWithTheirEnds)
{
    connect(open(someBytes(3000000, 1), someBytes(2000000, 2)));
    connect(open({}, {}));
    connect(open(someBytes(1, 3), {}));
    ASSERT_TRUE(run(std::chrono::seconds(20)));
    expectSame();
    EXPECT_EQ(0U, links[0].lost);
}

struct STORM_T {
    const char *name;
    WEATHER_T weather;
};

class StormTest : public KeptTest, public testing::WithParamInterface<STORM_T> {};

TEST_P(StormTest, LosesDoublesAndTurnsNothing)
{
    weather = GetParam().weather;
    for (unsigned seed = 0; seed < 4; ++seed)
        connect(open(someBytes(1500000, seed), someBytes(700000, seed + 10)));
    const bool is_done = run(std::chrono::seconds(60));
    for (const auto &[index, link] : links)
        ASSERT_TRUE(is_done) << "near " << static_cast<int>(link.near->state) << ", far "
                             << static_cast<int>(link.far->state) << ", "
                             << received(link.near->stream) << " and " << received(link.far->stream)
                             << " received";
    expectSame();
    unsigned lost = 0;
    for (const auto &[index, link] : links)
        lost += link.lost;
    EXPECT_GT(lost, 0U);
}

INSTANTIATE_TEST_SUITE_P(All, StormTest,
                         testing::Values(STORM_T{"drops", {.drop = 20, .faults_left = 40}},
                                         STORM_T{"cuts", {.cut = 20, .faults_left = 40}},
                                         STORM_T{"dies", {.die = 20, .faults_left = 40}},
                                         STORM_T{"all", {20, 20, 20, 60}}),
                         [](const auto &storm) { return storm.param.name; });

// Nothing follows the last message, so no gap shows that it is missing.
TEST_F(KeptTest, ALostLastMessageIsMissedAfterAWhile)
{
    LINK_T &link = open(someBytes(10, 1), {});
    link.service.keeps_open = link.client.keeps_open = true;
    connect(link);
    weather = {.drop = 1000, .faults_left = 0};
    (void)run(std::chrono::milliseconds(200));
    ASSERT_EQ(10U, link.client.got.size());
    link.service.to_send = someBytes(20, 2);
    weather.faults_left = 1;
    (void)run(std::chrono::milliseconds(5));
    EXPECT_EQ(10U, link.client.got.size());
    (void)run(std::chrono::milliseconds(500));
    EXPECT_EQ(20U, link.client.got.size());
    EXPECT_EQ(1U, link.lost);
}

// The end that waits behind unread bytes is not acknowledged: it comes again after a loss.
TEST_F(KeptTest, AnEndThatWaitsForItsReaderComesAgain)
{
    LINK_T &link = open(someBytes(30000, 1), {});
    const int size = 4096;
    (void)::setsockopt(link.near->local.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    link.client.reads_at_once = 0;
    connect(link);
    (void)run(std::chrono::milliseconds(50));
    ASSERT_TRUE(link.near->stream.has_peer_end);
    ASSERT_FALSE(link.near->stream.is_peer_end_passed);
    link.relay.reset();
    (void)run(std::chrono::milliseconds(50));
    link.client.reads_at_once = 65536;
    ASSERT_TRUE(run(std::chrono::seconds(5)));
    expectSame();
    EXPECT_EQ(1U, link.lost);
}

// A reader that stops stops its own session alone, and bounds what waits for it.
TEST_F(KeptTest, AReaderThatStopsHoldsUpNobodyElse)
{
    LINK_T &stalled = open(someBytes(4000000, 1), {});
    LINK_T &other = open(someBytes(4000000, 2), {});
    stalled.client.reads_at_once = 0;
    connect(stalled);
    connect(other);
    (void)run(std::chrono::seconds(1));
    EXPECT_TRUE(other.client.got == other.service.to_send);
    EXPECT_LE(stalled.near->stream.incoming.size() + stalled.far->stream.outgoing.size(),
              std::size_t{3} * INITIAL_WINDOW + (std::size_t{1} << 20));
    stalled.client.reads_at_once = 65536;
    ASSERT_TRUE(run(std::chrono::seconds(20)));
    expectSame();
}

class DeafTest : public KeptTest {
protected:
    DeafTest() : KeptTest({SHORT.greeting, SHORT.closing, SHORT.ask_least, SHORT.ask_most, LONG}) {}

    static constexpr Seconds LONG{60};
};

// What is under way on a carrier that has gone silent is in nobody else's way.
TEST_F(DeafTest, ASilentCarrierHoldsUpNobodyElse)
{
    LINK_T &silent = open({}, {});
    silent.service.keeps_open = silent.client.keeps_open = true;
    connect(silent);
    (void)run(std::chrono::milliseconds(20));
    ASSERT_EQ(KEPT_STATE::RUNNING, silent.far->state);
    silent.is_held = true;
    silent.service.to_send = someBytes(400000, 1);
    (void)run(std::chrono::milliseconds(20));
    LINK_T &other = open(someBytes(400000, 2), {});
    connect(other);
    (void)run(std::chrono::seconds(1));
    EXPECT_TRUE(other.is_near_over);
    EXPECT_EQ(KEPT_STATE::RUNNING, silent.far->state);
    silent.is_held = false;
    silent.service.keeps_open = silent.client.keeps_open = false;
    ASSERT_TRUE(run(std::chrono::seconds(20)));
    expectSame();
    EXPECT_EQ(0U, silent.lost);
}

TEST_F(KeptTest, WhileItIsAwayTheServiceIsReadOnlyAsFarAsTheBufferGoes)
{
    LINK_T &link = open(someBytes(4000000, 1), someBytes(4000000, 2));
    comes_back = false;
    connect(link);
    (void)run(std::chrono::milliseconds(5));
    link.relay.reset();
    (void)run(std::chrono::milliseconds(100));
    EXPECT_EQ(KEPT_STATE::AWAY, link.far->state);
    EXPECT_LE(link.far->stream.outgoing.size(), KEEPER_BUDGET + std::size_t{2} * INITIAL_WINDOW);
    comes_back = true;
    ASSERT_TRUE(run(std::chrono::seconds(20)));
    expectSame();
}

// Both have ended their sending, or not, and one is gone: the other must not talk to nobody for
// ever, and gets what was sent to it.
TEST_F(KeptTest, WhoIsGoneBehindItsEndEndsTheSession)
{
    LINK_T &client_gone = open(someBytes(8000000, 1), someBytes(10, 2));
    LINK_T &service_gone = open(someBytes(10, 3), someBytes(8000000, 4));
    connect(client_gone);
    connect(service_gone);
    (void)run(std::chrono::milliseconds(5));
    client_gone.client.fd.reset();
    service_gone.service.fd.reset();
    ASSERT_TRUE(run(std::chrono::seconds(10)));
    EXPECT_EQ(KEPT_END::BROKEN, client_gone.far->end);
    drainPrograms();
    EXPECT_TRUE(service_gone.client.got == service_gone.service.to_send);
}

TEST_F(KeptTest, ABrokenServiceBreaksTheClient)
{
    LINK_T &link = open({}, someBytes(100, 1));
    link.client.keeps_open = link.service.keeps_open = true;
    connect(link);
    (void)run(std::chrono::milliseconds(50));
    keepers.end(*link.far, KEPT_END::BROKEN, "the service's connection broke: test");
    ASSERT_TRUE(run(std::chrono::seconds(5)));
    EXPECT_EQ(KEPT_END::BROKEN, link.near->end);
    EXPECT_EQ("the service's connection broke: test", link.near->reason);
}

// Frames of a hostile other end: each is the carrier's end, and nothing else.
TEST_F(KeptTest, FramesThatMustNotComeEndTheCarrierOnly)
{
    const std::vector<FRAME_T> frames{
        {FRAME::DATA, 0, 4, 0, 0, 0, 0},                   // CRC of the payload
        {FRAME::ACK, 0, 0, 0, 0, 1, 0},                    // acknowledges what was not sent
        {FRAME::ACK, 0, 0, 0, 5, 0, 0},                    // behind a gap
        {FRAME::DONE, 0, 0, 0, 0, 0, 0},                   // too early
        {FRAME::WELCOME, 0, 0, 0, 0, 0, 0},                // the keeper's
        {FRAME::END, 0, 4, crc32c(someBytes(4, 1)), 0, 0}, // with a payload
    };
    for (const FRAME_T &frame : frames) {
        auto [near, far] = makePair();
        auto [service, local] = makePair();
        SessionKey key{};
        key[1] = 1;
        unsigned lost = 0;
        KeptSessions set(KEEPER_BUDGET);
        KEPT_SESSION_T &session =
            set.add(SIDE::KEEPER, key, std::move(local),
                    {.lost = [&lost](KEPT_SESSION_T &, const char *) { ++lost; }});
        set.attach(session, std::move(far));
        const Bytes version{PROTOCOL_VERSION};
        const FrameHeader hello =
            buildHeader({FRAME::HELLO, 0, 1, crc32c(version), 0, 0, INITIAL_WINDOW});
        const FrameHeader header = buildHeader(frame);
        const Bytes payload = someBytes(frame.size, 1);
        for (const std::span<const std::uint8_t> part :
             {std::span<const std::uint8_t>(hello), std::span<const std::uint8_t>(version),
              std::span<const std::uint8_t>(header), std::span<const std::uint8_t>(payload)})
            EXPECT_EQ(static_cast<ssize_t>(part.size()),
                      ::send(near.get(), part.data(), part.size(), 0));
        set.pass({}, std::chrono::milliseconds(10));
        EXPECT_EQ(1U, lost) << static_cast<int>(frame.kind);
        EXPECT_EQ(KEPT_STATE::AWAY, session.state);
        std::array<char, 8> got{};
        EXPECT_EQ(-1, ::recv(service.get(), got.data(), got.size(), MSG_DONTWAIT));
    }
}

} // namespace
