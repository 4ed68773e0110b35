#include "backend/policy/token_text.h"

#include <algorithm>
#include <stdexcept>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace backend {

constexpr std::string_view PREFIX = "rat_";
constexpr std::string_view DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::string_view HEX = "0123456789abcdef";

std::string makeRandomText()
{
    SHA256_T bytes;
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::runtime_error("the system has no random bytes");
    std::string text;
    unsigned rest = 0;
    unsigned bits = 0;
    for (const unsigned byte : bytes) {
        rest = rest << 8 | byte;
        for (bits += 8; bits >= 6; bits -= 6)
            text += DIGITS[rest >> (bits - 6) & 63];
    }
    text += DIGITS[rest << (6 - bits) & 63];
    OPENSSL_cleanse(bytes.data(), bytes.size());
    return text;
}

std::string makeToken()
{
    return std::string(PREFIX) + makeRandomText();
}

std::optional<SHA256_T> hashToken(std::string_view token)
{
    if (token.size() != TOKEN_SIZE || !token.starts_with(PREFIX)) return std::nullopt;
    if (token.find_first_not_of(DIGITS, PREFIX.size()) != std::string_view::npos)
        return std::nullopt;
    SHA256_T hash;
    if (EVP_Digest(token.data(), token.size(), hash.data(), nullptr, EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
    return hash;
}

std::string hexText(const SHA256_T &hash)
{
    std::string text;
    for (const unsigned byte : hash) {
        text += HEX[byte >> 4];
        text += HEX[byte & 15];
    }
    return text;
}

std::optional<SHA256_T> parseHex(std::string_view text)
{
    SHA256_T hash;
    if (text.size() != 2 * hash.size()) return std::nullopt;
    for (std::size_t i = 0; i < hash.size(); i++) {
        const std::size_t high = HEX.find(text[2 * i]);
        const std::size_t low = HEX.find(text[2 * i + 1]);
        if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
        hash[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return hash;
}

} // namespace backend
