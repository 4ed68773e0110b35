// Runs a target on every file of the directories given, in the order of their names. Replaces
// libFuzzer where that is not available.
#include "tests/fuzz/fuzz.h"
#include "utility/handles.h"

#include <filesystem>
#include <set>

namespace {

void replay(const std::filesystem::path &path)
{
    const auto size = static_cast<std::size_t>(std::filesystem::file_size(path));
    const std::unique_ptr<std::FILE, Releaser<std::fclose>> file{std::fopen(path.c_str(), "rb")};
    const auto input =
        std::make_unique<std::uint8_t[]>(size); // not a byte more: see terminatedCopy
    REQUIRE(file && std::fread(input.get(), 1, size, file.get()) == size);
    // If it is the last line, it failed.
    (void)std::fprintf(stderr, "%s\n", path.filename().c_str());
    LLVMFuzzerTestOneInput(input.get(), size);
}

} // namespace

int main(int argc, char **argv)
{
    std::set<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i)
        for (const auto &entry : std::filesystem::directory_iterator{argv[i]})
            files.insert(entry.path());
    REQUIRE(!files.empty());
    for (const std::filesystem::path &path : files)
        replay(path);
    return 0;
}
