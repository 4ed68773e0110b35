// Resumptions in orders that chance makes: many short sessions, each on carriers of its own that
// lose any run of bytes, die for one end before the other, and deliver late. What
// model/kept_session.pml shows of the rules is looked for in the code here.
#include "keep/carrier.h"
#include "keep/crc32c.h"
#include "keep/sessions.h"

#include <algorithm>
#include <array>
#include <deque>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <sys/socket.h>

using namespace keep;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t LINKS = 100;
constexpr unsigned FAULTS_MAX = 8;                       // of one session
constexpr auto SILENCE = std::chrono::milliseconds(600); // longer than an answer waits
constexpr auto STEP_MAX = std::chrono::milliseconds(5);  // a pause of the machine is no silence
constexpr std::size_t LONGEST = std::size_t{3} * INITIAL_WINDOW;

std::pair<UniqueFd, UniqueFd> makePair()
{
    std::array<int, 2> pair{};
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()));
    return {UniqueFd(pair[0]), UniqueFd(pair[1])};
}

// A carrier whose bytes the test holds. Each end has a socket as long as the end has not been lost.
struct LINE_T {
    UniqueFd near;
    UniqueFd far; // from a whole HELLO on
    Bytes up;     // under way
    Bytes down;
    bool is_refused = false;
};

struct PROGRAM_T {
    UniqueFd fd;
    Bytes to_send;
    std::size_t sent = 0;
    Bytes got;
    bool has_ended = false;
    bool has_got_end = false;
};

struct LINK_T {
    std::mt19937 random;
    KEPT_SESSION_T *near = nullptr;
    KEPT_SESSION_T *far = nullptr;
    PROGRAM_T client;
    PROGRAM_T service;
    std::deque<LINE_T> lines; // the newest behind
    unsigned faults = 0;
    unsigned faults_left = 0;
    unsigned rarity = 1; // one chance of a fault in so many has one
    unsigned carriers = 0;
    Clock::duration quiet{};
    unsigned silences = 0;
    unsigned near_ends = 0;
    unsigned far_ends = 0;
};

class ResumeTest : public testing::TestWithParam<unsigned> {
protected:
    void open(LINK_T &link, unsigned seed)
    {
        link.random.seed(seed);
        link.faults = link.faults_left = below(link, FAULTS_MAX + 1);
        link.rarity = 5 + below(link, 100);
        SessionKey key{};
        key[0] = static_cast<std::uint8_t>(seed);
        key[1] = static_cast<std::uint8_t>(seed >> 8);
        auto [client, near_local] = makePair();
        auto [service, far_local] = makePair();
        link.client = {std::move(client), someBytes(link), 0, {}};
        link.service = {std::move(service), someBytes(link), 0, {}};
        // Little room: what arrives has to wait for the program that reads it.
        for (const UniqueFd *local : {&near_local, &far_local}) {
            const int size = 4096;
            (void)::setsockopt(local->get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        }
        link.near = &operators.add(SIDE::OPERATOR, key, std::move(near_local),
                                   {.over = [&link](KEPT_SESSION_T &) { ++link.near_ends; }});
        link.far = &keepers.add(SIDE::KEEPER, key, std::move(far_local),
                                {.over = [&link](KEPT_SESSION_T &) { ++link.far_ends; }});
    }

    static unsigned below(LINK_T &link, std::size_t limit)
    {
        return static_cast<unsigned>(link.random() % limit);
    }

    // Short ones meet more faults for each byte, long ones need more than a window.
    static Bytes someBytes(LINK_T &link)
    {
        Bytes bytes(below(link, 4) == 0 ? below(link, LONGEST) : below(link, 4));
        std::generate(bytes.begin(), bytes.end(),
                      [&] { return static_cast<std::uint8_t>(link.random()); });
        return bytes;
    }

    // ---- what a carrier does

    static bool fails(LINK_T &link)
    {
        if (link.faults_left == 0 || below(link, link.rarity) != 0) return false;
        --link.faults_left;
        return true;
    }

    static void collect(LINK_T &link, const UniqueFd &fd, Bytes &held)
    {
        std::array<std::uint8_t, 65536> bytes;
        const ssize_t count = fd ? ::recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) : -1;
        if (count <= 0) return;
        link.quiet = {};
        if (fails(link)) return; // whole frames, as a rule: only the offset behind them shows it
        held.insert(held.end(), bytes.begin(), bytes.begin() + count);
    }

    static void deliver(LINK_T &link, const UniqueFd &fd, Bytes &held)
    {
        if (!fd || held.empty()) return;
        const std::size_t most = below(link, 3) == 0 ? held.size() : below(link, held.size() + 1);
        const ssize_t count = ::send(fd.get(), held.data(), most, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0) held.erase(held.begin(), held.begin() + count);
    }

    static void dropSome(LINK_T &link, Bytes &held)
    {
        if (held.empty()) return;
        const std::size_t from = below(link, held.size());
        const bool is_tail = below(link, 2) == 0;
        const std::size_t to = is_tail ? held.size() : from + 1 + below(link, held.size() - from);
        held.erase(held.begin() + static_cast<std::ptrdiff_t>(from),
                   held.begin() + static_cast<std::ptrdiff_t>(to));
    }

    static void fail(LINK_T &link, LINE_T &line)
    {
        switch (below(link, 4)) {
        case 0:
            return dropSome(link, line.up);
        case 1:
            return dropSome(link, line.down);
        case 2: // the operator's end sees it first, and what it has sent goes on
            line.near.reset();
            break;
        default:
            line.far.reset();
            break;
        }
    }

    // As the keeper takes a carrier in: only with a whole HELLO, and not one of before.
    void takeIn(LINK_T &link, LINE_T &line)
    {
        std::span<const std::uint8_t> bytes(line.up);
        FRAME_T hello;
        std::span<const std::uint8_t> payload;
        const TAKEN taken = takeFrame(bytes, hello, payload);
        if (taken == TAKEN::NONE) return;
        const KEPT_STREAM_T &stream = link.far->stream;
        const bool is_hello = taken == TAKEN::FRAME && hello.kind == FRAME::HELLO;
        const bool is_over =
            link.far->state == KEPT_STATE::CLOSING || link.far->state == KEPT_STATE::OVER;
        const bool is_fitting =
            hello.acknowledged >= stream.outgoing.begin() && hello.acknowledged <= stream.most_sent;
        if (is_hello && is_over) {
            refuse(link, line);
        } else if (!is_hello || !is_fitting) {
            line.near.reset();
        } else {
            auto [far, held] = makePair();
            line.far = std::move(held);
            const Bytes first(line.up.begin(),
                              line.up.end() - static_cast<std::ptrdiff_t>(bytes.size()));
            line.up.erase(line.up.begin(),
                          line.up.end() - static_cast<std::ptrdiff_t>(bytes.size()));
            keepers.attach(*link.far, std::move(far), first);
            return;
        }
        line.up.clear();
    }

    static void refuse(LINK_T &link, LINE_T &line)
    {
        const bool is_whole = link.far->end == KEPT_END::WHOLE;
        const std::array<std::uint8_t, 1> why{
            static_cast<std::uint8_t>(is_whole ? REFUSAL::WHOLE : REFUSAL::ENDED)};
        FRAME_T frame;
        frame.kind = FRAME::REFUSED;
        frame.size = why.size();
        frame.payload_crc = crc32c(why);
        const FrameHeader header = buildHeader(frame);
        line.down.insert(line.down.end(), header.begin(), header.end());
        line.down.push_back(why[0]);
        line.is_refused = true;
    }

    void carry(LINK_T &link)
    {
        for (LINE_T &line : link.lines) {
            collect(link, line.near, line.up);
            collect(link, line.far, line.down);
            if (fails(link)) fail(link, line);
            if (!line.far && !line.is_refused && !line.up.empty() && below(link, 2) == 0)
                takeIn(link, line);
            else
                deliver(link, line.far, line.up);
            deliver(link, line.near, line.down);
        }
        // An older one stays until the keeper has seen what it holds.
        std::erase_if(link.lines, [](const LINE_T &line) { return !line.near && line.up.empty(); });
    }

    // ---- what the ends do

    static void run(LINK_T &link, PROGRAM_T &program)
    {
        const std::size_t left = program.to_send.size() - program.sent;
        const std::size_t most = std::min<std::size_t>(left, 1 + below(link, 30000));
        const ssize_t count = ::send(program.fd.get(), program.to_send.data() + program.sent, most,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) program.sent += static_cast<std::size_t>(count);
        if (program.sent == program.to_send.size() && !program.has_ended && below(link, 4) == 0) {
            (void)::shutdown(program.fd.get(), SHUT_WR);
            program.has_ended = true;
        }
        if (below(link, 3) != 0) return; // it reads slowly
        std::array<std::uint8_t, 30000> bytes;
        const ssize_t got = ::recv(program.fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (got == 0) program.has_got_end = true;
        if (got > 0) program.got.insert(program.got.end(), bytes.begin(), bytes.begin() + got);
    }

    // Where DONE and the last acknowledgement are lost, the keeper waits for its time to be over.
    static bool waitsInVain(const LINK_T &link)
    {
        return link.near_ends > 0 && link.far->state == KEPT_STATE::AWAY;
    }

    static bool isOver(const LINK_T &link)
    {
        return link.near->state == KEPT_STATE::OVER && (link.far_ends > 0 || waitsInVain(link)) &&
               link.client.has_got_end && link.service.has_got_end;
    }

    // A silent carrier is given up, as it is after a while without this test's hurry.
    void step(LINK_T &link)
    {
        run(link, link.client);
        run(link, link.service);
        carry(link);
        link.quiet += elapsed;
        if (link.quiet > SILENCE && !link.lines.empty()) {
            link.lines.clear();
            if (link.near_ends == 0) ++link.silences;
        }
        if (link.near->state != KEPT_STATE::AWAY) return;
        for (LINE_T &line : link.lines)
            line.near.reset();
        auto [near, held] = makePair();
        link.lines.push_back({.near = std::move(held), .far = {}, .up = {}, .down = {}});
        operators.attach(*link.near, std::move(near));
        link.quiet = {};
        ++link.carriers;
    }

    static void expectWhole(const LINK_T &link, unsigned seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        EXPECT_EQ(1U, link.near_ends);
        EXPECT_EQ(KEPT_END::WHOLE, link.near->end) << link.near->reason;
        if (!waitsInVain(link)) {
            EXPECT_EQ(1U, link.far_ends);
            EXPECT_EQ(KEPT_END::WHOLE, link.far->end) << link.far->reason;
        }
        EXPECT_TRUE(link.client.to_send == link.service.got) << link.service.got.size();
        EXPECT_TRUE(link.service.to_send == link.client.got) << link.client.got.size();
        // A carrier is given up for a fault that it had, and not otherwise.
        EXPECT_LE(link.silences, link.faults);
        EXPECT_LE(link.carriers, 1 + link.faults + link.silences);
    }

    Clock::duration elapsed{}; // of the last round
    KeptSessions operators{std::size_t{64} << 20};
    KeptSessions keepers{std::size_t{64} << 20};
    std::deque<LINK_T> links; // sessions refer to them
};

TEST_P(ResumeTest, ArrivesWholeInAnyOrderOfFaults)
{
    Time before = Clock::now();
    Clock::duration spent{};
    for (unsigned index = 0; index < LINKS; ++index)
        open(links.emplace_back(), GetParam() + index);
    const auto isRunning = [](const LINK_T &link) { return !isOver(link); };
    while (std::any_of(links.begin(), links.end(), isRunning) && spent < std::chrono::seconds(20)) {
        const Time now = Clock::now();
        elapsed = std::min<Clock::duration>(now - before, STEP_MAX);
        before = now;
        spent += elapsed;
        for (LINK_T &link : links)
            if (isRunning(link)) step(link);
        operators.pass({}, std::chrono::milliseconds(0));
        keepers.pass({}, std::chrono::milliseconds(0));
    }
    for (unsigned index = 0; index < LINKS; ++index)
        expectWhole(links[index], GetParam() + index);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ResumeTest, testing::Range(0U, 800U, static_cast<unsigned>(LINKS)));

} // namespace
