// SHA-256 (FIPS 180-4) and HMAC-SHA256 (RFC 2104; a key longer than the block is refused, not
// hashed).
// Threads  no shared state. Nothing is allocated.
#pragma once

#include <cstdint>

constexpr std::uint32_t SHA256_BLOCK_SIZE = 64;
constexpr std::uint32_t SHA256_DIGEST_SIZE = 32;

struct sha256_context {
    std::uint32_t state[8];
    std::uint64_t byte_count;
    std::uint8_t block[SHA256_BLOCK_SIZE];
};

void sha256_init(sha256_context *context);
void sha256_update(sha256_context *context, const void *bytes, std::uint32_t length);
// Writes the digest and makes the context ready for another message.
void sha256_final(sha256_context *context, std::uint8_t out[SHA256_DIGEST_SIZE]);
void sha256_process_block(sha256_context *context);
void sha256_transform(std::uint32_t state[8], const std::uint32_t words[16]);
void sha256(std::uint8_t out[SHA256_DIGEST_SIZE], const void *bytes, std::uint32_t length);

// key_len <= 64. A violated argument check is reported on standard error and leaves out as it was.
void hmac_sha256(std::uint8_t *out, const void *data, std::uint32_t data_len, const void *key,
                 std::uint32_t key_len);
