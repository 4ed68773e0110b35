// What the fuzz targets share. Each target is one file with LLVMFuzzerTestOneInput; the line
// "Under test" names the sources whose coverage `scripts/fuzz --coverage` reports.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// A property that holds for every input.
#define REQUIRE(condition) ((condition) ? void() : failRequirement(#condition, __FILE__, __LINE__))

[[noreturn]] inline void failRequirement(const char *condition, const char *file, int line)
{
    (void)std::fprintf(stderr, "%s:%d: not true: %s\n", file, line, condition);
    std::abort();
}

inline std::string_view viewOf(const std::uint8_t *data, std::size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

// A copy with a NUL behind it, exactly as large as that, so that a sanitizer sees every read past
// its end.
inline std::unique_ptr<char[]> terminatedCopy(std::string_view text)
{
    auto copy = std::make_unique<char[]>(text.size() + 1);
    text.copy(copy.get(), text.size());
    return copy;
}

// A fixed field holds a NUL.
template <std::size_t N> bool isTerminated(const char (&field)[N])
{
    return std::find(field, field + N, '\0') != field + N;
}
