#include "keep/byte_store.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace keep {

constexpr std::size_t CAPACITY_MIN = 4096;

std::size_t ByteStore::capacityFor(std::size_t more) const noexcept
{
    return std::max(capacity_, std::bit_ceil(std::max(size_ + more, CAPACITY_MIN)));
}

void ByteStore::trim() noexcept
{
    if (size_ > 0) return;
    bytes_.reset();
    capacity_ = 0;
}

void ByteStore::grow(std::size_t wanted)
{
    const std::size_t capacity = capacityFor(wanted);
    // Not cleared: every byte is written before it is read.
    std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[capacity]);
    for (std::uint64_t at = begin_; at < end();) {
        const auto old = piece(at, size_);
        const std::size_t to = at & (capacity - 1);
        const std::size_t count = std::min(old.size(), capacity - to);
        std::memcpy(&bytes[to], old.data(), count);
        at += count;
    }
    bytes_ = std::move(bytes);
    capacity_ = capacity;
}

std::span<std::uint8_t> ByteStore::room(std::size_t wanted)
{
    if (size_ + wanted > capacity_) grow(wanted);
    const std::size_t at = end() & (capacity_ - 1);
    return {&bytes_[at], std::min(wanted, capacity_ - at)};
}

void ByteStore::added(std::size_t count) noexcept
{
    size_ += count;
}

void ByteStore::add(std::span<const std::uint8_t> bytes)
{
    if (size_ + bytes.size() > capacity_) grow(bytes.size());
    while (!bytes.empty()) {
        const auto free = room(bytes.size());
        std::memcpy(free.data(), bytes.data(), free.size());
        added(free.size());
        bytes = bytes.subspan(free.size());
    }
}

void ByteStore::pass(std::size_t count) noexcept
{
    begin_ += count;
}

void ByteStore::takeBack(std::size_t count) noexcept
{
    begin_ -= count;
}

std::span<const std::uint8_t> ByteStore::piece(std::uint64_t offset,
                                               std::size_t most) const noexcept
{
    if (offset >= end()) return {};
    const std::size_t at = offset & (capacity_ - 1);
    const std::size_t left = static_cast<std::size_t>(end() - offset);
    return {&bytes_[at], std::min({most, left, capacity_ - at})};
}

void ByteStore::dropTo(std::uint64_t offset) noexcept
{
    size_ -= static_cast<std::size_t>(offset - begin_);
    begin_ = offset;
    if (capacity_ > KEPT_CAPACITY) trim();
}

} // namespace keep
