// The opening: the first bytes of a carrier, written by the back end once its policy has decided,
// read by the keeper. docs/keeper.md has every byte.
// Failure  what is not an opening gives a text; nothing is thrown.
// Threads  none of it keeps state.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keep {

constexpr std::uint8_t OPENING_VERSION = 1;
constexpr char KEEPER_TYPE[] = "KEEPER";     // of the keeper's own entry in the list of services
constexpr std::size_t OPENING_PREFIX = 8;    // enough to know the length
constexpr std::size_t OPENING_MAX = 512;     // bytes of a whole one
constexpr std::size_t OPERATOR_MAX = 255;    // bytes of an operator's name; more is cut
constexpr std::size_t SERVICE_TEXT_MAX = 73; // bytes of each of a service's texts
constexpr std::size_t KEY_SIZE = 16;

using SessionKey = std::array<std::uint8_t, KEY_SIZE>;

enum class OPENING : std::uint8_t {
    BEGIN = 1,
    RESUME = 2,
    END = 3, // whoever was allowed it is allowed no more: the keeper lets the service go
};

// A service, by the four values that the device has announced.
struct KEPT_SERVICE_T {
    std::string type;
    std::string name;
    std::string ip;
    std::uint16_t port = 0;
    bool operator==(const KEPT_SERVICE_T &) const = default;
};

struct OPENING_T {
    OPENING kind = OPENING::BEGIN;
    SessionKey key{};
    std::uint32_t longest_s = 0; // of the session, counted from its begin; 0: no limit
    KEPT_SERVICE_T service;
    std::string who; // the operator: only he may resume
};

std::vector<std::uint8_t> buildOpening(const OPENING_T &opening);

enum class OPENING_FAULT {
    NONE,
    NOT_ONE, // something else talks to the keeper
    NEWER,   // of a version that is not known here
    DAMAGED,
};

// The length of the whole, of OPENING_PREFIX bytes or more; 0 for what is no opening.
std::size_t openingSize(std::span<const std::uint8_t> bytes) noexcept;
// bytes: the whole.
OPENING_FAULT parseOpening(std::span<const std::uint8_t> bytes, OPENING_T &opening);

// 32 hexadecimal digits; false for another text.
bool parseKey(std::string_view text, SessionKey &key) noexcept;
std::string keyText(const SessionKey &key);

} // namespace keep
