// The kernel's route table.
// Under test: src/remote_access_default_route.cpp(findDefaultRoute)
#include "fuzz/fuzz.h"
#include "src/remote_access_default_route.h"
#include "utility/handles.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto text = terminatedCopy(viewOf(data, size));
    const std::unique_ptr<std::FILE, Releaser<std::fclose>> table{
        ::fmemopen(text.get(), size, "r")};
    if (!table) return 0;
    std::uint32_t gateway = 0;
    const bool found = findDefaultRoute(table.get(), &gateway);
    REQUIRE(found || gateway == 0);
    if (found) REQUIRE(viewOf(data, size).find("00000000") != std::string_view::npos);
    return 0;
}
