#include "operator/carrier/copy_stream.h"

#include <array>
#include <cerrno>
#include <unistd.h>

constexpr std::size_t COPY_SIZE = 65536;

static bool writeWhole(int fd, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = ::write(fd, bytes, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

bool copyStream(int from, int to, std::atomic<std::uint64_t> &count)
{
    std::array<char, COPY_SIZE> bytes;
    for (;;) {
        const ssize_t got = ::read(from, bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        if (!writeWhole(to, bytes.data(), static_cast<std::size_t>(got))) return false;
        count += static_cast<std::uint64_t>(got);
    }
}
