#include "src/product_identity.h"

#include "common/log.h"
#include "src/config.h"
#include "utility/handles.h"
#include "utility/install_root.h"
#include "utility/text.h"

#include <cstdio>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::size_t PATH_SIZE = INSTALL_ROOT_SIZE + 1;
constexpr std::size_t VERSION_KEEP = 36;

using FilePtr = std::unique_ptr<std::FILE, Releaser<std::fclose>>;

// A path that does not fit is empty, which no file has.
void buildPath(const char *name, char (&path)[PATH_SIZE])
{
    char root[INSTALL_ROOT_SIZE] = "";
    (void)getInstallRootPath(root); // on failure root holds what there is to go by
    if (format_text(path, "%s%s", root, name) >= static_cast<int>(PATH_SIZE)) copy_text(path, "");
}

std::int32_t editionOfWord(std::string_view word)
{
    if (word.starts_with("professional")) return EDITION_PROFESSIONAL;
    if (word.starts_with("standard")) return EDITION_STANDARD;
    return EDITION_UNKNOWN;
}

} // namespace

int getBrimLockEdition(REMOTE_ACCESS_CONFIG_T *record)
{
    record->edition = EDITION_UNKNOWN;
    char path[PATH_SIZE];
    buildPath("/SPECIFICATION", path);
    RA_DEBUG("specification path : %s", path);
    if (::access(path, R_OK) != 0) {
        RA_WARN("no %s file, ", path);
        return -1;
    }
    const FilePtr file{std::fopen(path, "re")};
    if (!file) {
        RA_WARN("no %s file open failed", path);
        return -1;
    }
    char word[64] = "";
    for (int words = 0; words < 2; ++words) {
        if (std::fscanf(file.get(), "%63s", word) != 1) return -1;
    }
    record->edition = editionOfWord(word);
    return 0;
}

void getBrimLockVersion(REMOTE_ACCESS_CONFIG_T *record)
{
    char path[PATH_SIZE];
    buildPath("/VERSION", path);
    RA_INFO("version path : %s", path);
    const FilePtr file{std::fopen(path, "re")};
    if (!file) {
        RA_WARN("BrimLock version file is not exist.\n");
        return;
    }
    static_assert(VERSION_KEEP < sizeof record->version);
    // A short or empty file leaves a short or empty version.
    [[maybe_unused]] const std::size_t length =
        std::fread(record->version, 1, VERSION_KEEP, file.get());
}
