#include "keep/crc32c.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#elif defined(__aarch64__)
#include <arm_acle.h>
#include <sys/auxv.h>
#endif

namespace keep {

namespace {

constexpr std::uint32_t POLYNOMIAL = 0x82f63b78; // reflected
constexpr std::size_t SLICES = 8;

using Tables = std::array<std::array<std::uint32_t, 256>, SLICES>;

constexpr Tables makeTables()
{
    Tables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value >> 1) ^ ((value & 1U) != 0 ? POLYNOMIAL : 0U);
        tables[0][byte] = value;
    }
    for (std::size_t slice = 1; slice < SLICES; ++slice)
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t value = tables[slice - 1][byte];
            tables[slice][byte] = (value >> 8) ^ tables[0][value & 0xffU];
        }
    return tables;
}

constexpr Tables TABLES = makeTables();

std::uint32_t byTable(std::uint32_t value, const std::uint8_t *bytes, std::size_t size)
{
    for (; size >= SLICES; bytes += SLICES, size -= SLICES) {
        const auto at = [&](std::size_t index) { return std::uint32_t{bytes[index]}; };
        const std::uint32_t low = value ^ (at(0) | at(1) << 8 | at(2) << 16 | at(3) << 24);
        value = TABLES[7][low & 0xffU] ^ TABLES[6][(low >> 8) & 0xffU] ^
                TABLES[5][(low >> 16) & 0xffU] ^ TABLES[4][low >> 24] ^ TABLES[3][at(4)] ^
                TABLES[2][at(5)] ^ TABLES[1][at(6)] ^ TABLES[0][at(7)];
    }
    for (; size > 0; ++bytes, --size)
        value = (value >> 8) ^ TABLES[0][(value ^ *bytes) & 0xffU];
    return value;
}

// The instruction takes three cycles until its result is there, and one until the next can begin:
// three parts of a block are taken side by side, and put together by what so many zero bytes behind
// a value make of it.
constexpr std::size_t PART = 1024;

constexpr std::uint32_t behindZeros(std::uint32_t value, std::size_t count)
{
    for (; count > 0; --count)
        value = (value >> 8) ^ TABLES[0][value & 0xffU];
    return value;
}

using Shift = std::array<std::array<std::uint32_t, 256>, 4>;

// A table for each byte of a value: the operation is linear.
constexpr Shift makeShift(std::size_t count)
{
    Shift shift{};
    for (std::size_t byte = 0; byte < 4; ++byte) {
        for (std::uint32_t bit = 1; bit < 256; bit <<= 1)
            shift[byte][bit] = behindZeros(bit << (8 * byte), count);
        for (std::uint32_t value = 1; value < 256; ++value)
            shift[byte][value] =
                shift[byte][value & (value - 1)] ^ shift[byte][value & (~value + 1)];
    }
    return shift;
}

constexpr Shift PART_SHIFT = makeShift(PART);

[[maybe_unused]] std::uint32_t behindPart(std::uint32_t value)
{
    return PART_SHIFT[0][value & 0xffU] ^ PART_SHIFT[1][(value >> 8) & 0xffU] ^
           PART_SHIFT[2][(value >> 16) & 0xffU] ^ PART_SHIFT[3][value >> 24];
}

#if defined(__x86_64__)
bool hasInstruction()
{
    return static_cast<bool>(__builtin_cpu_supports("sse4.2"));
}

__attribute__((target("sse4.2"))) std::uint32_t
byInstruction(std::uint32_t value, const std::uint8_t *bytes, std::size_t size)
{
    const auto word_at = [](const std::uint8_t *at) {
        std::uint64_t word = 0;
        std::memcpy(&word, at, sizeof word);
        return word;
    };
    for (; size >= 3 * PART; bytes += 3 * PART, size -= 3 * PART) {
        std::uint64_t first = value;
        std::uint64_t second = 0;
        std::uint64_t third = 0;
        for (std::size_t at = 0; at < PART; at += sizeof first) {
            first = _mm_crc32_u64(first, word_at(bytes + at));
            second = _mm_crc32_u64(second, word_at(bytes + PART + at));
            third = _mm_crc32_u64(third, word_at(bytes + 2 * PART + at));
        }
        value = behindPart(behindPart(static_cast<std::uint32_t>(first)) ^
                           static_cast<std::uint32_t>(second)) ^
                static_cast<std::uint32_t>(third);
    }
    std::uint64_t wide = value;
    for (; size >= sizeof wide; bytes += sizeof wide, size -= sizeof wide) {
        wide = _mm_crc32_u64(wide, word_at(bytes));
    }
    value = static_cast<std::uint32_t>(wide);
    for (; size > 0; ++bytes, --size)
        value = _mm_crc32_u8(value, *bytes);
    return value;
}
#elif defined(__aarch64__)
bool hasInstruction()
{
    constexpr unsigned long CRC32 = 1UL << 7; // HWCAP_CRC32 of the arm64 kernel
    return (::getauxval(AT_HWCAP) & CRC32) != 0;
}

__attribute__((target("+crc"))) std::uint32_t
byInstruction(std::uint32_t value, const std::uint8_t *bytes, std::size_t size)
{
    for (; size >= sizeof(std::uint64_t);
         bytes += sizeof(std::uint64_t), size -= sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes, sizeof word);
        value = __crc32cd(value, word);
    }
    for (; size > 0; ++bytes, --size)
        value = __crc32cb(value, *bytes);
    return value;
}
#else
bool hasInstruction()
{
    return false;
}

std::uint32_t byInstruction(std::uint32_t value, const std::uint8_t *bytes, std::size_t size)
{
    return byTable(value, bytes, size);
}
#endif

} // namespace

std::uint32_t crc32c(std::span<const std::uint8_t> bytes, std::uint32_t before) noexcept
{
    static const bool is_fast = hasInstruction();
    return ~(is_fast ? byInstruction : byTable)(~before, bytes.data(), bytes.size());
}

std::uint32_t crc32cByTable(std::span<const std::uint8_t> bytes, std::uint32_t before) noexcept
{
    return ~byTable(~before, bytes.data(), bytes.size());
}

} // namespace keep
