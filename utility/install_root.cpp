#include "utility/install_root.h"

#include "utility/text.h"

#include <climits>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace {

constexpr char EXECUTABLE_LINK[] = "/proc/self/exe";
constexpr std::string_view PARENT_SUFFIX = "/../";
static_assert(INSTALL_ROOT_SIZE >= PATH_MAX); // realpath fills up to PATH_MAX bytes

struct ROOT_CACHE_T {
    char path[INSTALL_ROOT_SIZE];
    bool resolved;
};
constinit ROOT_CACHE_T g_root_cache{};

// The executable's directory followed by "/../". False when it cannot be read or does not fit.
bool read_unresolved_root(char (&out)[INSTALL_ROOT_SIZE])
{
    const ssize_t count = ::readlink(EXECUTABLE_LINK, out, sizeof out);
    // A link that fills the buffer may have been cut.
    if (count < 1 || static_cast<std::size_t>(count) >= sizeof out) return false;
    const std::string_view link{out, static_cast<std::size_t>(count)};
    const std::size_t slash = link.rfind('/');
    const std::size_t directory = slash == std::string_view::npos ? link.size() : slash;
    if (directory + PARENT_SUFFIX.size() >= sizeof out) return false;
    return copy_text_bounded(out + directory, sizeof out - directory, PARENT_SUFFIX,
                             PARENT_SUFFIX.size());
}

void copy_root(char *out, const char (&root)[INSTALL_ROOT_SIZE])
{
    copy_text_bounded(out, INSTALL_ROOT_SIZE, text_of(root), INSTALL_ROOT_SIZE - 1);
}

} // namespace

int getInstallRootPath(char *out) noexcept
{
    if (out == nullptr) return 1;
    if (!g_root_cache.resolved) {
        char unresolved[INSTALL_ROOT_SIZE];
        if (!read_unresolved_root(unresolved)) return 1;
        if (::realpath(unresolved, g_root_cache.path) == nullptr) {
            copy_root(out, unresolved);
            return 1;
        }
        g_root_cache.resolved = true;
    }
    copy_root(out, g_root_cache.path);
    return 0;
}
