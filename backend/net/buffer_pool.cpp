#include "backend/net/buffer_pool.h"

#include <array>
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

} // namespace backend
