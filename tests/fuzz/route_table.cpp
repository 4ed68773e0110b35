// The kernel's route table.
// Under test: src/default_route.cpp(findDefaultRoute)
#include "src/default_route.h"
#include "tests/fuzz/fuzz.h"
#include "utility/handles.h"

#include <optional>
#include <sstream>

namespace {

// Where every column is of a length that the kernel prints, it is words and lines that count.
bool isOrdinary(std::string_view text)
{
    std::size_t word = 0, line = 0;
    for (const char c : text) {
        const bool blank = c == ' ' || (c >= '\t' && c <= '\r');
        word = blank ? 0 : word + 1;
        line = c == '\n' ? 0 : line + 1;
        if (c == '\0' || word > 15 || line > 1000) return false;
    }
    return true;
}

std::optional<std::uint32_t> expectedGateway(std::string_view text)
{
    std::istringstream table{std::string{text}};
    for (std::string line; std::getline(table, line);) {
        std::istringstream columns{line};
        std::string interface, destination, gateway;
        columns >> interface >> destination >> gateway;
        if (destination == "00000000")
            return static_cast<std::uint32_t>(std::strtoul(gateway.c_str(), nullptr, 16));
    }
    return std::nullopt;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto text = terminatedCopy(viewOf(data, size));
    const std::unique_ptr<std::FILE, Releaser<std::fclose>> table{
        ::fmemopen(text.get(), size, "r")};
    if (!table) return 0;
    std::uint32_t gateway = 0;
    const bool found = findDefaultRoute(table.get(), &gateway);
    if (!isOrdinary(viewOf(data, size))) return 0;
    const std::optional<std::uint32_t> expected = expectedGateway(viewOf(data, size));
    REQUIRE(found == expected.has_value() && gateway == expected.value_or(0));
    return 0;
}
