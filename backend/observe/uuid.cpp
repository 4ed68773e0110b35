#include "backend/observe/uuid.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <openssl/rand.h>
#include <stdexcept>

namespace backend {

// The 12 bits behind the time count identifiers of one millisecond. They start in their lower
// half, at random, so that at least 2048 find room before the time is moved on.
constexpr unsigned COUNTER_MAX = 0xfff;
constexpr unsigned COUNTER_START_MAX = 0x7ff;

static std::mutex g_lock;
static std::int64_t g_time_ms = 0;
static unsigned g_counter = 0;

static std::string uuidText(const std::array<unsigned char, 16> &bytes)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); i++) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 15];
    }
    return text;
}

std::string newUuid()
{
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), int(bytes.size())) != 1)
        throw std::runtime_error("no random bytes for an identifier");
    const unsigned start = (unsigned(bytes[6]) << 8 | bytes[7]) & COUNTER_START_MAX;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t now_ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const std::lock_guard guard(g_lock);
    if (now_ms > g_time_ms) {
        g_time_ms = now_ms;
        g_counter = start;
    } else if (++g_counter > COUNTER_MAX) {
        g_time_ms++;
        g_counter = start;
    }
    for (std::size_t i = 0; i < 6; i++)
        bytes[i] = static_cast<unsigned char>(g_time_ms >> (8 * (5 - i)) & 0xff);
    bytes[6] = static_cast<unsigned char>(0x70 | g_counter >> 8);
    bytes[7] = static_cast<unsigned char>(g_counter & 0xff);
    bytes[8] = static_cast<unsigned char>(0x80 | (bytes[8] & 0x3f));
    return uuidText(bytes);
}

} // namespace backend
