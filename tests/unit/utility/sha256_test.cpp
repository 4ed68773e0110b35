#include "utility/sha256/hmac-sha256.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <numeric>
#include <string>
#include <tuple>

namespace {

std::string hex(const std::uint8_t (&digest)[SHA256_DIGEST_SIZE])
{
    std::string text;
    char digits[3];
    for (const std::uint8_t byte : digest) {
        (void)std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

std::string hmac_hex(std::string_view key, std::string_view data)
{
    std::uint8_t out[SHA256_DIGEST_SIZE] = {};
    hmac_sha256(out, data.data(), static_cast<std::uint32_t>(data.size()), key.data(),
                static_cast<std::uint32_t>(key.size()));
    return hex(out);
}

} // namespace

TEST(Sha256, MatchesTheStandardAtEveryPaddingEdge)
{
    std::uint8_t out[SHA256_DIGEST_SIZE];
    sha256(out, "abc", 3);
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", hex(out));
    // The digest of the digests of 0 to 130 bytes, each taken in two pieces by one context.
    const std::string text(130, 'a');
    sha256_context one, all;
    sha256_init(&one);
    sha256_init(&all);
    for (std::uint32_t length = 0; length <= text.size(); ++length) {
        sha256_update(&one, text.data(), length / 3);
        sha256_update(&one, text.data(), length - length / 3);
        sha256_final(&one, out);
        sha256_update(&all, out, sizeof out);
    }
    sha256_final(&all, out);
    EXPECT_EQ("f908a43fc8456c583aacde0fb2627959f8513dc76d0c03979b7f945a7dd78f22", hex(out));
}

TEST(HmacSha256, MatchesThePublishedCases)
{
    std::string counting(25, '\0'); // 01 02 ... 19
    std::iota(counting.begin(), counting.end(), '\1');
    const std::string longest(64, 'k'), b0(20, '\x0b'), c0(20, '\x0c'), aa(20, '\xaa');
    using ROW_T = std::tuple<std::string, std::string, const char *>;
    const ROW_T rows[] = {
        {b0, "Hi There", "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {"Jefe", "what do ya want for nothing?",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {aa, std::string(50, '\xdd'),
         "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
        {counting, std::string(50, '\xcd'),
         "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
        {c0, "Test With Truncation", // published to 128 bits
         "a3b6167473100ee06e0c796c2955552bfa6f7c0a6a8aef8b93f860aab0cd20c5"},
        {longest, "data", "93244b031118b8060c6619e5900fcf916faefb2d8d020fecb22ae0f62275db08"},
        {"", "data", "e528c4d99e6177f5841f712a143b90843299a4aa181a06501422d9ca862bd2a5"},
        {std::string("key\0", 4), "", // a zero at the end is padding like any other
         "5d5d139563c95b5967b9bd9a8c9b233a9dedb45072794cd232dc1b74832607d0"},
    };
    for (const auto &[key, data, digest] : rows) {
        EXPECT_EQ(digest, hmac_hex(key, data)) << data;
    }
}

TEST(HmacSha256, RefusesWithAReportAndLeavesTheOutput)
{
    std::uint8_t out[SHA256_DIGEST_SIZE] = {0x5a};
    const std::string before = hex(out);
    const std::string key(131, '\xaa'); // as long as in the published cases 6 and 7
    using ROW_T = std::tuple<const void *, const void *, std::uint32_t, const char *>;
    const ROW_T rows[] = {{nullptr, key.data(), 1, "data"},
                          {"", nullptr, 1, "key"},
                          {"", key.data(), 65, "key_len <= 64"},
                          {"", key.data(), 131, "key_len <= 64"}};
    for (const auto &[data, key_bytes, key_len, condition] : rows) {
        testing::internal::CaptureStderr();
        hmac_sha256(out, data, 0, key_bytes, key_len);
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::MatchesRegex("API check '" + std::string(condition) +
                                          "' failed at hmac_sha256 .*hmac-sha256.cpp:[0-9]+.\n"));
        EXPECT_EQ(before, hex(out));
    }
}
