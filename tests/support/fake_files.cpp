#include "tests/support/fake_files.h"

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

std::map<std::string, std::string> g_fake_files;

static bool isFixed(std::string_view path)
{
    return path.starts_with("/brimlock/") || path == "/proc/net/route" ||
           path.ends_with("/SPECIFICATION") || path.ends_with("/VERSION");
}

static std::string *contentOf(std::string_view path)
{
    const auto found = g_fake_files.find(std::string{path.substr(path.rfind('/') + 1)});
    if (found != g_fake_files.end()) return &found->second;
    errno = ENOENT;
    return nullptr;
}

// The linker puts these in the places of the C library's functions (--wrap).
extern "C" {
std::FILE *__real_fopen(const char *path, const char *mode);
int __real_open(const char *path, int flags, ...);
int __real_access(const char *path, int mode);

std::FILE *__wrap_fopen(const char *path, const char *mode)
{
    if (!isFixed(path)) return __real_fopen(path, mode);
    std::string *const content = *mode == 'r' ? contentOf(path) : nullptr;
    return content != nullptr ? ::fmemopen(content->data(), content->size(), "r") : nullptr;
}

int __wrap_open(const char *path, int flags, ...)
{
    if (!isFixed(path)) return __real_open(path, flags, 0600);
    const std::string *const content = contentOf(path);
    if (content == nullptr) return -1;
    const int fd = ::memfd_create(path, MFD_CLOEXEC);
    if (::write(fd, content->data(), content->size()) < 0) return -1;
    return fd;
}

int __wrap_access(const char *path, int mode)
{
    if (!isFixed(path)) return __real_access(path, mode);
    return contentOf(path) != nullptr ? 0 : -1;
}
}
