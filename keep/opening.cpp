#include "keep/opening.h"

#include "keep/byte_order.h"
#include "keep/crc32c.h"

#include <algorithm>
#include <cstring>

namespace keep {

namespace {

constexpr std::array<std::uint8_t, 4> MAGIC{'R', 'A', 'K', '1'};
constexpr std::size_t VERSION_AT = 4;
constexpr std::size_t KIND_AT = 5;
constexpr std::size_t SIZE_AT = 6;
constexpr std::size_t KEY_AT = 8;
constexpr std::size_t LONGEST_AT = 24;
constexpr std::size_t TEXTS_AT = 28;
constexpr std::size_t CRC_SIZE = 4;
// Three texts with their lengths, the port, and the operator with its length.
static_assert(TEXTS_AT + 3 * (1 + SERVICE_TEXT_MAX) + 2 + 1 + OPERATOR_MAX + CRC_SIZE <=
              OPENING_MAX);

template <class Number> void append(std::vector<std::uint8_t> &bytes, Number number)
{
    bytes.resize(bytes.size() + sizeof(Number));
    writeNumber(bytes.data() + bytes.size() - sizeof(Number), number);
}

void appendText(std::vector<std::uint8_t> &bytes, std::string_view text, std::size_t most)
{
    text = text.substr(0, most);
    bytes.push_back(static_cast<std::uint8_t>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
}

// Takes one text off the front; false when it is not whole.
bool takeText(std::span<const std::uint8_t> &bytes, std::string &text)
{
    if (bytes.empty() || bytes.size() - 1 < bytes[0]) return false;
    const auto found = bytes.subspan(1, bytes[0]);
    text.assign(found.begin(), found.end());
    bytes = bytes.subspan(1 + found.size());
    return true;
}

int digitOf(char character)
{
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    return -1;
}

} // namespace

std::vector<std::uint8_t> buildOpening(const OPENING_T &opening)
{
    std::vector<std::uint8_t> bytes(MAGIC.begin(), MAGIC.end());
    bytes.push_back(OPENING_VERSION);
    bytes.push_back(static_cast<std::uint8_t>(opening.kind));
    append<std::uint16_t>(bytes, 0);
    bytes.insert(bytes.end(), opening.key.begin(), opening.key.end());
    append(bytes, opening.longest_s);
    for (const std::string *text :
         {&opening.service.type, &opening.service.name, &opening.service.ip})
        appendText(bytes, *text, SERVICE_TEXT_MAX);
    append(bytes, opening.service.port);
    appendText(bytes, opening.who, OPERATOR_MAX);
    writeNumber(bytes.data() + SIZE_AT, static_cast<std::uint16_t>(bytes.size() + CRC_SIZE));
    append(bytes, crc32c(bytes));
    return bytes;
}

std::size_t openingSize(std::span<const std::uint8_t> bytes) noexcept
{
    if (bytes.size() < OPENING_PREFIX || !std::equal(MAGIC.begin(), MAGIC.end(), bytes.begin()))
        return 0;
    const auto size = readNumber<std::uint16_t>(bytes.data() + SIZE_AT);
    return size >= TEXTS_AT + CRC_SIZE && size <= OPENING_MAX ? size : 0;
}

OPENING_FAULT parseOpening(std::span<const std::uint8_t> bytes, OPENING_T &opening)
{
    if (openingSize(bytes) != bytes.size() || bytes.empty()) return OPENING_FAULT::NOT_ONE;
    const auto inner = bytes.first(bytes.size() - CRC_SIZE);
    if (crc32c(inner) != readNumber<std::uint32_t>(bytes.data() + inner.size()))
        return OPENING_FAULT::DAMAGED;
    if (bytes[VERSION_AT] != OPENING_VERSION) return OPENING_FAULT::NEWER;
    const std::uint8_t kind = bytes[KIND_AT];
    if (kind < static_cast<std::uint8_t>(OPENING::BEGIN) ||
        kind > static_cast<std::uint8_t>(OPENING::END))
        return OPENING_FAULT::NEWER;
    opening.kind = static_cast<OPENING>(kind);
    std::copy_n(bytes.begin() + KEY_AT, KEY_SIZE, opening.key.begin());
    opening.longest_s = readNumber<std::uint32_t>(bytes.data() + LONGEST_AT);
    auto left = inner.subspan(TEXTS_AT);
    if (!takeText(left, opening.service.type) || !takeText(left, opening.service.name) ||
        !takeText(left, opening.service.ip) || left.size() < sizeof(std::uint16_t))
        return OPENING_FAULT::DAMAGED;
    opening.service.port = readNumber<std::uint16_t>(left.data());
    left = left.subspan(sizeof(std::uint16_t));
    return takeText(left, opening.who) && left.empty() ? OPENING_FAULT::NONE
                                                       : OPENING_FAULT::DAMAGED;
}

bool parseKey(std::string_view text, SessionKey &key) noexcept
{
    if (text.size() != 2 * KEY_SIZE) return false;
    for (std::size_t index = 0; index < KEY_SIZE; ++index) {
        const int high = digitOf(text[2 * index]);
        const int low = digitOf(text[2 * index + 1]);
        if (high < 0 || low < 0) return false;
        key[index] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return true;
}

std::string keyText(const SessionKey &key)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : key) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0xfU];
    }
    return text;
}

} // namespace keep
