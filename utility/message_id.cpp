#include "utility/message_id.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view ALPHABET =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
static_assert(ALPHABET.size() == 62);

constinit char g_message_id[MSG_ID_SIZE] = {};

// The sequence of rand() without its lock and calls: the additive feedback generator that the C
// library runs, with its default seed 1. random(3), and random_r.c there.
class Sequence {
public:
    constexpr Sequence() noexcept
    {
        constexpr std::int64_t MULTIPLIER = 16807; // of the minimal standard generator
        constexpr std::int64_t MODULUS = 2147483647;
        std::int64_t word = 1;
        for (std::uint32_t &number : numbers_) {
            number = static_cast<std::uint32_t>(word);
            word = word * MULTIPLIER % MODULUS;
        }
        for (std::size_t i = 0; i < DISCARDED; ++i)
            (void)next();
    }
    constexpr std::uint32_t next() noexcept
    {
        numbers_[front_] += numbers_[rear_];
        const std::uint32_t drawn = numbers_[front_] >> 1;
        if (++front_ == SIZE) front_ = 0;
        if (++rear_ == SIZE) rear_ = 0;
        return drawn;
    }

private:
    static constexpr std::size_t SIZE = 31;
    static constexpr std::size_t DISCARDED = 10 * SIZE;
    std::uint32_t numbers_[SIZE]{};
    std::size_t front_ = 3;
    std::size_t rear_ = 0;
};
constinit Sequence g_sequence;

} // namespace

char *randomString(char *buffer, std::size_t n) noexcept
{
    if (n == 0) return buffer;
    for (std::size_t i = 0; i < n - 1; ++i)
        buffer[i] = ALPHABET[g_sequence.next() % ALPHABET.size()];
    buffer[n - 1] = '\0';
    return buffer;
}

const char *generateMsgId() noexcept
{
    std::memset(g_message_id, 0, sizeof g_message_id);
    return randomString(g_message_id, MSG_ID_LEN + 1);
}
