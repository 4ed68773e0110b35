// A stretch of a stream of bytes, by its offsets in the stream: bytes are added behind and dropped
// in front. An empty one keeps KEPT_CAPACITY at most, until it is trimmed.
// Failure  std::bad_alloc; nothing has changed then.
// Threads  each is one thread's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace keep {

constexpr std::size_t KEPT_CAPACITY = 65536;

class ByteStore {
public:
    std::uint64_t begin() const noexcept
    {
        return begin_;
    }
    std::uint64_t end() const noexcept
    {
        return begin_ + size_;
    }
    std::size_t size() const noexcept
    {
        return size_;
    }
    std::size_t capacity() const noexcept
    {
        return capacity_;
    }

    // Room for at least one and at most `wanted` bytes behind the end; added() then says how many
    // have been written.
    std::span<std::uint8_t> room(std::size_t wanted);
    // What it would hold in all to have room for so many more bytes.
    std::size_t capacityFor(std::size_t more) const noexcept;
    // Gives back what an empty one keeps.
    void trim() noexcept;
    void added(std::size_t count) noexcept;
    void add(std::span<const std::uint8_t> bytes);
    // Bytes that go through without being held; only while it is empty.
    void pass(std::size_t count) noexcept;
    // The last of those that have passed will be added after all.
    void takeBack(std::size_t count) noexcept;

    // Those from `offset` on that lie in one piece, at most `most`.
    std::span<const std::uint8_t> piece(std::uint64_t offset, std::size_t most) const noexcept;
    void dropTo(std::uint64_t offset) noexcept;

private:
    void grow(std::size_t wanted);

    std::unique_ptr<std::uint8_t[]> bytes_; // a ring
    std::size_t capacity_ = 0;              // a power of two, or 0
    std::size_t size_ = 0;
    std::uint64_t begin_ = 0;
};

} // namespace keep
