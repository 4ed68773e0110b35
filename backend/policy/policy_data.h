// What a policy consists of, for the units of this folder and their tests.
#pragma once

#include "backend/policy/policy.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace backend {

// A shell pattern. Most are plain enough to be compared without fnmatch(3).
struct PATTERN_T {
    enum class KIND { EVERY, TEXT, PREFIX, SHELL };
    KIND kind = KIND::SHELL;
    std::string text; // of a prefix without its star
};

// Members that were not given match every device.
struct DEVICE_GROUP_T {
    std::vector<PATTERN_T> products;
    std::vector<PATTERN_T> names;
    std::vector<std::pair<std::string, PATTERN_T>> labels;
};

struct GRANT_T {
    std::string name;
    bool covers_every_device = false;
    std::vector<std::uint32_t> device_groups; // empty when it covers every device
    std::vector<PATTERN_T> services;
    std::uint32_t rights = 0; // a bit for each
    bool is_recorded = false;
    std::optional<std::chrono::seconds> max_session;
    std::vector<std::string> ssh_accounts;
};

struct TOKEN_T {
    SHA256_T hash{};
    std::uint32_t owner = 0;
    std::string label;
    std::int64_t expires = 0;
};

struct OPERATOR_T {
    std::string name;
    std::vector<std::uint32_t> grants; // that concern them, in the order of the file
    bool has_proof = false;
};

struct TEXT_HASH_T {
    using is_transparent = void; // NOLINT(readability-identifier-naming): the library asks for it
    std::size_t operator()(std::string_view text) const
    {
        return std::hash<std::string_view>{}(text);
    }
};
// The operator that a text stands for.
using OPERATOR_INDEX_T =
    std::unordered_map<std::string, std::uint32_t, TEXT_HASH_T, std::equal_to<>>;

struct POLICY_T {
    std::vector<OPERATOR_T> operators;
    OPERATOR_INDEX_T names;
    OPERATOR_INDEX_T accounts;
    OPERATOR_INDEX_T certificates;
    std::vector<TOKEN_T> tokens;
    std::vector<DEVICE_GROUP_T> device_groups;
    std::vector<GRANT_T> grants;
};

PATTERN_T makePattern(std::string text);
// text: NUL-terminated behind its end, and none within.
bool isMatch(const PATTERN_T &pattern, const std::string &text);

constexpr std::uint32_t rightBit(RIGHT right)
{
    return std::uint32_t{1} << static_cast<unsigned>(right);
}

} // namespace backend
