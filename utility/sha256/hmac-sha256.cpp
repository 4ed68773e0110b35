#include "utility/sha256/hmac-sha256.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace {

constexpr std::uint32_t INITIAL_STATE[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                            0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

constexpr std::uint32_t ROUND_CONSTANTS[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::uint32_t LENGTH_OFFSET = 56; // of the bit count in the last block
constexpr std::uint8_t INNER_PAD = 0x36;
constexpr std::uint8_t OUTER_PAD = 0x5c;

void report_failed_check(const char *condition, const char *function, const char *file, int line)
{
    (void)std::fprintf(stderr, "API check '%s' failed at %s (%s:%d)\n", condition, function, file,
                       line);
    (void)std::fflush(stderr);
}

void store_big_endian(std::uint8_t *out, std::uint32_t word)
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<std::uint8_t>(word >> (24 - 8 * i));
}

void expand_schedule(std::uint32_t (&schedule)[64], const std::uint32_t words[16])
{
    std::copy_n(words, 16, schedule);
    for (int i = 16; i < 64; ++i) {
        const std::uint32_t a = schedule[i - 15];
        const std::uint32_t b = schedule[i - 2];
        const std::uint32_t sigma0 = std::rotr(a, 7) ^ std::rotr(a, 18) ^ (a >> 3);
        const std::uint32_t sigma1 = std::rotr(b, 17) ^ std::rotr(b, 19) ^ (b >> 10);
        schedule[i] = schedule[i - 16] + sigma0 + schedule[i - 7] + sigma1;
    }
}

// One pass of the construction: the padded key, then the message.
void hash_keyed(std::uint8_t *out, const std::uint8_t *key, std::uint32_t key_len, std::uint8_t pad,
                const void *data, std::uint32_t data_len)
{
    std::uint8_t block[SHA256_BLOCK_SIZE];
    for (std::uint32_t i = 0; i < SHA256_BLOCK_SIZE; ++i) {
        block[i] = i < key_len ? static_cast<std::uint8_t>(key[i] ^ pad) : pad;
    }
    sha256_context context;
    sha256_init(&context);
    sha256_update(&context, block, sizeof block);
    sha256_update(&context, data, data_len);
    sha256_final(&context, out);
    ::explicit_bzero(block, sizeof block); // it gives the key away
}

} // namespace

void sha256_init(sha256_context *context)
{
    std::ranges::copy(INITIAL_STATE, context->state);
    context->byte_count = 0;
}

void sha256_update(sha256_context *context, const void *bytes, std::uint32_t length)
{
    const auto *input = static_cast<const std::uint8_t *>(bytes);
    for (std::uint32_t i = 0; i < length; ++i) {
        const std::uint64_t position = context->byte_count % SHA256_BLOCK_SIZE;
        context->block[position] = input[i];
        context->byte_count += 1;
        if (position == SHA256_BLOCK_SIZE - 1) sha256_process_block(context);
    }
}

void sha256_final(sha256_context *context, std::uint8_t out[SHA256_DIGEST_SIZE])
{
    std::uint64_t position = context->byte_count % SHA256_BLOCK_SIZE;
    context->block[position++] = 0x80;
    while (position != LENGTH_OFFSET) {
        if (position == SHA256_BLOCK_SIZE) {
            sha256_process_block(context);
            position = 0;
        } else {
            context->block[position++] = 0;
        }
    }
    const std::uint64_t bit_count = context->byte_count * 8;
    store_big_endian(context->block + LENGTH_OFFSET, static_cast<std::uint32_t>(bit_count >> 32));
    store_big_endian(context->block + LENGTH_OFFSET + 4, static_cast<std::uint32_t>(bit_count));
    sha256_process_block(context);
    for (std::size_t i = 0; i < std::size(context->state); ++i) {
        store_big_endian(out + 4 * i, context->state[i]);
    }
    sha256_init(context);
}

void sha256_process_block(sha256_context *context)
{
    std::uint32_t words[16];
    for (std::size_t i = 0; i < std::size(words); ++i) {
        const std::uint8_t *bytes = context->block + 4 * i;
        words[i] = (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
                   (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
    }
    sha256_transform(context->state, words);
}

void sha256_transform(std::uint32_t state[8], const std::uint32_t words[16])
{
    std::uint32_t schedule[64];
    expand_schedule(schedule, words);
    // NOLINTBEGIN(readability-isolate-declaration): as the standard writes the working variables
    std::uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    std::uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    // NOLINTEND(readability-isolate-declaration)
    for (int i = 0; i < 64; ++i) {
        const std::uint32_t sum1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
        const std::uint32_t choice = (e & f) ^ (~e & g);
        const std::uint32_t t1 = h + sum1 + choice + ROUND_CONSTANTS[i] + schedule[i];
        const std::uint32_t sum0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
        const std::uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + sum0 + majority;
    }
    const std::uint32_t working[8] = {a, b, c, d, e, f, g, h};
    for (int i = 0; i < 8; ++i)
        state[i] += working[i];
}

void sha256(std::uint8_t out[SHA256_DIGEST_SIZE], const void *bytes, std::uint32_t length)
{
    sha256_context context;
    sha256_init(&context);
    sha256_update(&context, bytes, length);
    sha256_final(&context, out);
}

// A macro, because the report quotes the condition's text and its line.
#define API_CHECK(condition)                                                                       \
    if (!(condition)) {                                                                            \
        report_failed_check(#condition, __func__, __FILE__, __LINE__);                             \
        return;                                                                                    \
    }

void hmac_sha256(std::uint8_t *out, const void *data, std::uint32_t data_len, const void *key,
                 std::uint32_t key_len)
{
    API_CHECK(out)
    API_CHECK(data)
    API_CHECK(key)
    API_CHECK(key_len <= 64)
    const auto *key_bytes = static_cast<const std::uint8_t *>(key);
    hash_keyed(out, key_bytes, key_len, INNER_PAD, data, data_len);
    hash_keyed(out, key_bytes, key_len, OUTER_PAD, out, SHA256_DIGEST_SIZE);
}
