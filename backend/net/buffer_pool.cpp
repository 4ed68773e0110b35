#include "backend/net/buffer_pool.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace backend {

struct KEPT_T {
    std::array<void *, BLOCKS_KEPT_MAX> blocks{};
    std::size_t count = 0;
    KEPT_T() = default;
    KEPT_T(const KEPT_T &) = delete;
    KEPT_T &operator=(const KEPT_T &) = delete;
    ~KEPT_T()
    {
        while (count > 0)
            ::operator delete(blocks[--count]);
    }
};

static KEPT_T &keptBlocks()
{
    static thread_local KEPT_T kept;
    return kept;
}

static bool isBlock(std::size_t size)
{
    return size >= BLOCK_USE_MIN && size <= BLOCK_SIZE;
}

void *takeBlock(std::size_t size)
{
    if (!isBlock(size)) return ::operator new(size);
    KEPT_T &kept = keptBlocks();
    return kept.count > 0 ? kept.blocks[--kept.count] : ::operator new(BLOCK_SIZE);
}

void giveBlock(void *block, std::size_t size) noexcept
{
    KEPT_T &kept = keptBlocks();
    if (isBlock(size) && kept.count < kept.blocks.size())
        kept.blocks[kept.count++] = block;
    else
        ::operator delete(block);
}

void BlockBuffer::reserve(std::size_t capacity)
{
    if (capacity <= capacity_) return;
    auto *const larger = static_cast<unsigned char *>(takeBlock(capacity));
    if (size_ > 0) memcpy(larger, bytes_, size_);
    if (bytes_ != nullptr) giveBlock(bytes_, capacity_);
    bytes_ = larger;
    capacity_ = capacity;
}

void BlockBuffer::append(const void *bytes, std::size_t count)
{
    if (size_ + count > capacity_) reserve(std::max(2 * capacity_, size_ + count));
    memcpy(bytes_ + size_, bytes, count);
    size_ += count;
}

void BlockBuffer::clear() noexcept
{
    if (bytes_ != nullptr) giveBlock(bytes_, capacity_);
    bytes_ = nullptr;
    size_ = 0;
    capacity_ = 0;
}

} // namespace backend
