#include "utility/file_pages.h"

#include "utility/handles.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <link.h>
#include <sys/mman.h>

namespace {

// Bits of an entry of /proc/self/pagemap, see the kernel's admin-guide/mm/pagemap.
constexpr std::uint64_t PRESENT = std::uint64_t{1} << 63;
constexpr std::uint64_t SWAPPED = std::uint64_t{1} << 62;
constexpr std::uint64_t FROM_FILE = std::uint64_t{1} << 61;

bool is_as_in_file(std::uint64_t entry) noexcept
{
    return (entry & PRESENT) != 0 ? (entry & FROM_FILE) != 0 : (entry & SWAPPED) == 0;
}

bool are_as_in_file(int pagemap, std::size_t page, std::size_t count) noexcept
{
    std::uint64_t entries[256];
    while (count > 0) {
        const std::size_t part = std::min(count, std::size(entries));
        const std::size_t size = part * sizeof entries[0];
        const auto offset = static_cast<off_t>(page * sizeof entries[0]);
        if (::pread(pagemap, entries, size, offset) != static_cast<ssize_t>(size)) return false;
        if (!std::all_of(entries, entries + part, is_as_in_file)) return false;
        page += part;
        count -= part;
    }
    return true;
}

void *pointer_to(std::uintptr_t address) noexcept
{
    return reinterpret_cast<void *>(address); // NOLINT(performance-no-int-to-ptr)
}

bool has_relocated_code(const dl_phdr_info &object) noexcept
{
    for (std::size_t i = 0; i < object.dlpi_phnum; ++i) {
        if (object.dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
        const auto *entry = static_cast<const ElfW(Dyn) *>(
            pointer_to(object.dlpi_addr + object.dlpi_phdr[i].p_vaddr));
        for (; entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_TEXTREL) return true;
            if (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0) return true;
        }
    }
    return false;
}

// Under the loader's lock. Its list names the parts of each object, so that a writable one is never
// touched, not even before it has been relocated or after it was made read-only. The loader may
// still be relocating an object that another thread loads: its code is left alone where that is
// relocated, too.
int release_object(dl_phdr_info *object, std::size_t /*size*/, void *argument)
{
    const int pagemap = *static_cast<const int *>(argument);
    if (std::strncmp(object->dlpi_name, "linux-", 6) == 0) return 0; // the kernel's own, no file
    if (has_relocated_code(*object)) return 0;
    const auto page_size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    // Backwards, because the first part has the headers that are read here.
    for (std::size_t i = object->dlpi_phnum; i-- > 0;) {
        const auto &part = object->dlpi_phdr[i];
        if (part.p_type != PT_LOAD || (part.p_flags & PF_W) != 0) continue;
        const std::size_t start = object->dlpi_addr + part.p_vaddr;
        const std::size_t first = start / page_size;
        const std::size_t count = (start + part.p_memsz + page_size - 1) / page_size - first;
        if (are_as_in_file(pagemap, first, count))
            (void)::madvise(pointer_to(first * page_size), count * page_size, MADV_DONTNEED);
    }
    return 0;
}

} // namespace

void release_file_pages() noexcept
{
    const UniqueFd pagemap{::open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC)};
    int fd = pagemap.get();
    if (pagemap) (void)::dl_iterate_phdr(release_object, &fd);
}
