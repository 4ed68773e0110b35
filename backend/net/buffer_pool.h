// Storage for bytes that are on their way through the process. A connection holds a block only
// while there is something in it; what it gives back serves the next one, still in the cache.
// Ownership  the caller's until it is given back.
// Threads    each thread has blocks of its own; a block may be given back by another thread.
// Limits     a thread keeps BLOCKS_KEPT_MAX unused blocks of BLOCK_SIZE bytes. Smaller and larger
//            pieces than a block is meant for come from the heap.
// Failure    std::bad_alloc.
#pragma once

#include <cstddef>

namespace backend {

constexpr std::size_t BLOCK_SIZE = std::size_t{136} * 1024; // 128 KiB and the records' overhead
constexpr std::size_t BLOCK_USE_MIN = std::size_t{4} * 1024;
constexpr std::size_t BLOCKS_KEPT_MAX = 4;

void *takeBlock(std::size_t size);
void giveBlock(void *block, std::size_t size) noexcept; // the size that was asked for

template <class T> struct BlockAllocator {
    using value_type = T;
    BlockAllocator() = default;
    template <class Other> BlockAllocator(const BlockAllocator<Other> &) {} // NOLINT: as for any
    T *allocate(std::size_t count)
    {
        return static_cast<T *>(takeBlock(count * sizeof(T)));
    }
    void deallocate(T *first, std::size_t count) noexcept
    {
        giveBlock(first, count * sizeof(T));
    }
    bool operator==(const BlockAllocator &) const = default;
};

// Bytes that are appended to and go as one.
class BlockBuffer {
public:
    BlockBuffer() = default;
    BlockBuffer(const BlockBuffer &) = delete;
    BlockBuffer &operator=(const BlockBuffer &) = delete;
    ~BlockBuffer()
    {
        clear();
    }
    void reserve(std::size_t capacity);
    void append(const void *bytes, std::size_t count);
    void clear() noexcept; // gives the storage back
    [[nodiscard]] const unsigned char *data() const
    {
        return bytes_;
    }
    [[nodiscard]] std::size_t size() const
    {
        return size_;
    }
    [[nodiscard]] bool empty() const
    {
        return size_ == 0;
    }

private:
    unsigned char *bytes_ = nullptr; // owned; null without capacity
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

} // namespace backend
