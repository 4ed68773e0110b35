// The bytes of openings and frames.
#include "keep/byte_order.h"
#include "keep/crc32c.h"
#include "keep/fair_queue.h"
#include "keep/frame.h"
#include "keep/opening.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <numeric>
#include <string_view>
#include <vector>

using namespace keep;

namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}

TEST(Crc32cTest, IsTheOneOfTheStandardWithAndWithoutTheInstruction)
{
    std::vector<std::uint8_t> rising(32);
    std::iota(rising.begin(), rising.end(), std::uint8_t{0});
    const std::vector<std::pair<std::vector<std::uint8_t>, std::uint32_t>> known{
        // RFC 3720, B.4
        {std::vector<std::uint8_t>(32, 0), 0x8a9136aa},
        {std::vector<std::uint8_t>(32, 0xff), 0x62a8ab43},
        {rising, 0x46dd794e},
        {{'1', '2', '3', '4', '5', '6', '7', '8', '9'}, 0xe3069283}};
    for (const auto &[bytes, value] : known) {
        EXPECT_EQ(value, crc32c(bytes));
        EXPECT_EQ(value, crc32cByTable(bytes));
        for (std::size_t cut = 0; cut <= bytes.size(); ++cut)
            EXPECT_EQ(value,
                      crc32c(std::span(bytes).subspan(cut), crc32c(std::span(bytes).first(cut))));
    }
}

TEST(Crc32cTest, LongBytesHaveTheSameValueByBothWays)
{
    std::vector<std::uint8_t> bytes(20000);
    for (std::size_t at = 0; at < bytes.size(); ++at)
        bytes[at] = static_cast<std::uint8_t>((at * 2654435761U) >> 13);
    for (const std::size_t size : {1023U, 3071U, 3072U, 3073U, 6144U, 9300U, 16384U, 20000U})
        EXPECT_EQ(crc32cByTable(std::span(bytes).first(size)), crc32c(std::span(bytes).first(size)))
            << size;
}

OPENING_T anOpening()
{
    return {OPENING::RESUME, {1, 2, 3}, 3600, {"SSH", "ssh_localhost", "127.0.0.1", 22}, "alice"};
}

TEST(OpeningTest, ComesBackAsItWasWritten)
{
    const auto bytes = buildOpening(anOpening());
    OPENING_T read;
    ASSERT_EQ(bytes.size(), openingSize(std::span(bytes).first(OPENING_PREFIX)));
    ASSERT_EQ(OPENING_FAULT::NONE, parseOpening(bytes, read));
    EXPECT_EQ(OPENING::RESUME, read.kind);
    EXPECT_EQ(anOpening().key, read.key);
    EXPECT_EQ(3600U, read.longest_s);
    EXPECT_EQ(anOpening().service, read.service);
    EXPECT_EQ("alice", read.who);
}

TEST(OpeningTest, LongTextsAreCutToWhatFits)
{
    OPENING_T opening = anOpening();
    opening.who.assign(1000, 'a');
    opening.service.name.assign(1000, 'n');
    OPENING_T read;
    ASSERT_EQ(OPENING_FAULT::NONE, parseOpening(buildOpening(opening), read));
    EXPECT_EQ(OPERATOR_MAX, read.who.size());
}

// Whatever byte is changed, and wherever it is cut.
TEST(OpeningTest, EveryDamageIsSeen)
{
    const auto whole = buildOpening(anOpening());
    OPENING_T read;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        auto damaged = whole;
        damaged[at] ^= 0x10;
        EXPECT_NE(OPENING_FAULT::NONE, parseOpening(damaged, read)) << at;
        EXPECT_NE(OPENING_FAULT::NONE, parseOpening(std::span(whole).first(at), read)) << at;
    }
    EXPECT_EQ(0U, openingSize(bytesOf("SSH-2.0-OpenSSH")));
}

TEST(OpeningTest, ALaterVersionIsToldFromDamage)
{
    const auto whole = buildOpening(anOpening());
    const std::size_t inner = whole.size() - 4;
    std::array<std::uint8_t, OPENING_MAX> later{};
    std::copy(whole.begin(), whole.end(), later.begin());
    later[4] = 2;
    writeNumber(&later[inner], crc32c(std::span(later).first(inner)));
    OPENING_T read;
    EXPECT_EQ(OPENING_FAULT::NEWER, parseOpening(std::span(later).first(whole.size()), read));
}

TEST(KeyTest, IsHexadecimalOnly)
{
    SessionKey key{};
    EXPECT_TRUE(parseKey("00112233445566778899aabbccddeeff", key));
    EXPECT_EQ("00112233445566778899aabbccddeeff", keyText(key));
    for (const char *wrong :
         {"", "00112233445566778899aabbccddeef", "0011223344556677889AABBCCDDEEFF0",
          "00112233445566778899aabbccddeeffff", "0x112233445566778899aabbccddeeff"})
        EXPECT_FALSE(parseKey(wrong, key)) << wrong;
}

TEST(FrameTest, EveryDamageOfAHeaderIsSeen)
{
    const FRAME_T sent{FRAME::DATA, WINDOW_IS_SHORT, 777,  0x01020304,
                       1ULL << 40,  1ULL << 33,      65536};
    const FrameHeader header = buildHeader(sent);
    FRAME_T read;
    ASSERT_TRUE(parseHeader(header, read));
    EXPECT_EQ(sent.offset, read.offset);
    EXPECT_EQ(sent.acknowledged, read.acknowledged);
    EXPECT_EQ(sent.window, read.window);
    EXPECT_EQ(sent.size, read.size);
    for (std::size_t at = 0; at < HEADER_SIZE; ++at) {
        FrameHeader damaged = header;
        damaged[at] ^= 1;
        EXPECT_FALSE(parseHeader(damaged, read)) << at;
    }
    EXPECT_FALSE(parseHeader(buildHeader({FRAME::DATA, 0, PAYLOAD_MAX + 1}), read));
    EXPECT_FALSE(parseHeader(buildHeader({static_cast<FRAME>(9)}), read));
    EXPECT_FALSE(parseHeader(buildHeader({static_cast<FRAME>(0)}), read));
}

struct SENDER_T {
    FLOW_T flow;
};

// The one that was idle is next, whatever the others have; and it cannot keep that by pausing.
TEST(FairQueueTest, WhoSendsLittleComesFirstOnce)
{
    std::array<SENDER_T, 3> bulk;
    SENDER_T key;
    FairQueue<SENDER_T> queue;
    std::array<std::size_t, 3> sent{};
    for (SENDER_T &sender : bulk)
        queue.add(sender, 1000);
    for (int turn = 0; turn < 300; ++turn) {
        SENDER_T *const front = queue.front(1000);
        ++sent[static_cast<std::size_t>(front - bulk.data())];
        queue.charge(500);
    }
    for (const std::size_t count : sent)
        EXPECT_NEAR(100, static_cast<double>(count), 2);
    queue.add(key, 1000);
    EXPECT_EQ(&key, queue.front(1000));
    EXPECT_TRUE(queue.isFrontFresh());
    queue.rest();
    EXPECT_NE(&key, queue.front(1000)) << "it is behind the others now";
    for (SENDER_T &sender : bulk)
        queue.leave(sender);
    EXPECT_EQ(&key, queue.front(1000));
    queue.rest();
    EXPECT_EQ(nullptr, queue.front(1000));
}

} // namespace
