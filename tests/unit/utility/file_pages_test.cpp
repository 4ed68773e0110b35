// Which pages of the program's file are given up.

#include "utility/file_pages.h"
#include "utility/handles.h"

#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

constexpr std::size_t LARGEST_PAGE = 65536;

// Constants of this program, in pages of their own.
alignas(LARGEST_PAGE) constexpr char CONSTANTS[LARGEST_PAGE] = "as in the file";

bool isResident(const char *address)
{
    const UniqueFd pagemap{::open("/proc/self/pagemap", O_RDONLY)};
    const auto page = reinterpret_cast<std::uintptr_t>(address) /
                      static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    std::uint64_t entry = 0;
    EXPECT_EQ(::pread(pagemap.get(), &entry, sizeof entry, static_cast<off_t>(page * sizeof entry)),
              ssize_t{sizeof entry});
    return (entry >> 63) != 0;
}

// The constant as it is in memory now.
const char *text()
{
    const char *volatile address = CONSTANTS;
    return address;
}

} // namespace

TEST(FilePages, WhatIsAsInTheFileIsGivenUpAndComesBack)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer looks at constants itself";
#endif
    ASSERT_STREQ(text(), "as in the file");
    ASSERT_TRUE(isResident(text()));
    release_file_pages();
    EXPECT_FALSE(isResident(text()));
    EXPECT_STREQ(text(), "as in the file");
}

TEST(FilePages, WhatDiffersFromTheFileStays)
{
    auto *const page = const_cast<char *>(text());
    ASSERT_EQ(::mprotect(page, LARGEST_PAGE, PROT_READ | PROT_WRITE), 0);
    page[0] = 'A'; // as a debugger does it
    ASSERT_EQ(::mprotect(page, LARGEST_PAGE, PROT_READ), 0);
    release_file_pages();
    EXPECT_STREQ(text(), "As in the file");
}
