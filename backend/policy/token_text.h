// What an operator's token looks like: "rat_" and 32 random bytes in base64url (RFC 4648) without
// padding. Only its SHA-256 is kept.
// Threads  no state.
#pragma once

#include "backend/policy/policy.h"

#include <optional>
#include <string>
#include <string_view>

namespace backend {

constexpr std::size_t TOKEN_SIZE = 47;

// 32 random bytes in base64url without padding, 43 characters. Throws std::runtime_error when the
// system has none.
std::string makeRandomText();
std::string makeToken();

// Of the whole text; none for one that is no token.
std::optional<SHA256_T> hashToken(std::string_view token);

// 64 hex digits; none for another text.
std::string hexText(const SHA256_T &hash);
std::optional<SHA256_T> parseHex(std::string_view text);

} // namespace backend
