// The tokens that operators made at run time. In memory for the io thread, and in the store's table
// `token`; those of operators.json are the policy's.
// Threads  the io thread.
// Limits   TOKENS_PER_OPERATOR for each, TOKENS_MAX in all. An expired one is taken away with the
//          next that is made.
#pragma once

#include "backend/policy/policy.h"
#include "backend/store/store.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

constexpr std::size_t TOKENS_PER_OPERATOR = 100;
constexpr std::size_t TOKENS_MAX = 10000;

struct TOKEN_RECORD_T {
    std::string id; // newUuid()
    std::string operator_name;
    std::string label;
    SHA256_T hash{};
    std::int64_t made_ms = 0;
    std::int64_t expires = 0; // seconds since the epoch
    std::string made_with;    // the token that its maker signed in with; empty: with none
};

struct TOKEN_RECORDS_T {
    STORE_T *store = nullptr; // borrowed; null: no token can be made
    std::vector<TOKEN_RECORD_T> records;
};

// Throws std::runtime_error.
TOKEN_RECORDS_T loadTokens(STORE_T *store, std::int64_t now);

// Compares in constant time. Null for one that is unknown or has expired.
const TOKEN_RECORD_T *findToken(const TOKEN_RECORDS_T &tokens, const SHA256_T &hash,
                                std::int64_t now);
const TOKEN_RECORD_T *findTokenById(const TOKEN_RECORDS_T &tokens, std::string_view id);

// Why the operator can have no more; empty when he can.
std::string whyNoMore(TOKEN_RECORDS_T &tokens, std::string_view operator_name, std::int64_t now);

// It can be used once it is on the disk.
void addToken(TOKEN_RECORDS_T &tokens, TOKEN_RECORD_T token, const StoreCallback &answered);

// With those that were made with it, however far. They prove nothing from now on, also when
// the store cannot be written. Returns their ids; answered comes with the store's answer.
std::vector<std::string> revokeToken(TOKEN_RECORDS_T &tokens, std::string_view id,
                                     StoreCallback answered);

} // namespace backend
