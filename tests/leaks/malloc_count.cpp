// Preloaded into a program, counts its calls of malloc and related functions by caller, in the file
// that MALLOC_COUNT names: 64-bit counters for OpenSSL, for the program itself (the C++ library's
// calls are its own), for all other libraries, and of the blocks that have not been freed. A reader
// may map or read the file at any time.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void *block);
}

namespace {

enum CALLER : std::size_t { OPENSSL, PROGRAM, OTHERS, CALLERS };

struct COUNTERS_T {
    std::array<std::atomic<std::uint64_t>, CALLERS> calls;
    std::atomic<std::int64_t> blocks;
};

struct RANGE_T {
    std::uintptr_t start;
    std::uintptr_t end;
    CALLER caller;
};

constinit COUNTERS_T g_early{}; // until the file is there
constinit std::atomic<COUNTERS_T *> g_counters{&g_early};
constinit std::array<RANGE_T, 16> g_ranges{};
constinit std::size_t g_range_count = 0;

int noteObject(dl_phdr_info *info, std::size_t, void *)
{
    const char *const name = info->dlpi_name;
    const auto holds = [name](const char *part) { return std::strstr(name, part) != nullptr; };
    const bool openssl = holds("/libcrypto.") || holds("/libssl.");
    const bool program = name[0] == '\0' || holds("/libstdc++.");
    if (!openssl && !program) return 0;
    for (int i = 0; i < info->dlpi_phnum && g_range_count < g_ranges.size(); ++i) {
        const auto &segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
        const std::uintptr_t start = info->dlpi_addr + segment.p_vaddr;
        g_ranges[g_range_count++] = {start, start + segment.p_memsz, openssl ? OPENSSL : PROGRAM};
    }
    return 0;
}

__attribute__((constructor)) void openCounters()
{
    dl_iterate_phdr(noteObject, nullptr);
    const char *const path = std::getenv("MALLOC_COUNT");
    const int fd = path ? ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600) : -1;
    void *shared = MAP_FAILED;
    if (fd >= 0 && ::ftruncate(fd, sizeof(COUNTERS_T)) == 0)
        shared = ::mmap(nullptr, sizeof(COUNTERS_T), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (shared == MAP_FAILED) std::abort();
    ::close(fd);
    auto *const counters = static_cast<COUNTERS_T *>(shared);
    counters->blocks.store(g_early.blocks.load());
    g_counters.store(counters);
}

COUNTERS_T &counters()
{
    return *g_counters.load(std::memory_order_relaxed);
}

void countCall(const void *return_address)
{
    const auto address = reinterpret_cast<std::uintptr_t>(return_address);
    CALLER caller = OTHERS;
    for (std::size_t i = 0; i < g_range_count; ++i)
        if (address >= g_ranges[i].start && address < g_ranges[i].end) caller = g_ranges[i].caller;
    counters().calls[caller].fetch_add(1, std::memory_order_relaxed);
}

void *countBlock(void *block)
{
    if (block) counters().blocks.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void forgetBlock(const void *block)
{
    if (block) counters().blocks.fetch_sub(1, std::memory_order_relaxed);
}

} // namespace

extern "C" {

void *malloc(std::size_t size)
{
    countCall(__builtin_return_address(0));
    return countBlock(__libc_malloc(size));
}

void *calloc(std::size_t number, std::size_t size)
{
    countCall(__builtin_return_address(0));
    return countBlock(__libc_calloc(number, size));
}

void *realloc(void *block, std::size_t size)
{
    countCall(__builtin_return_address(0));
    void *const moved = __libc_realloc(block, size);
    if (moved || size == 0) forgetBlock(block); // what could not grow stays
    return countBlock(moved);
}

void *aligned_alloc(std::size_t alignment, std::size_t size)
{
    countCall(__builtin_return_address(0));
    return countBlock(__libc_memalign(alignment, size));
}

int posix_memalign(void **block, std::size_t alignment, std::size_t size)
{
    countCall(__builtin_return_address(0));
    *block = countBlock(__libc_memalign(alignment, size));
    return *block ? 0 : ENOMEM;
}

void free(void *block)
{
    forgetBlock(block);
    __libc_free(block);
}
}
