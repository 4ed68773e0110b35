#include "operator/carrier/byte_stream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

bool isReady(int fd, short events)
{
    pollfd one{fd, events, 0};
    return ::poll(&one, 1, 0) != 0; // a fault shows in the call that follows
}

} // namespace

BYTE_STREAM_T openInput(int fd)
{
    BYTE_STREAM_T stream{UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0)), false, 0};
    struct stat status {};
    if (!stream.fd || ::fstat(fd, &status) != 0)
        throw std::runtime_error(std::string("the input: ") + std::strerror(errno));
    stream.is_socket = S_ISSOCK(status.st_mode);
    return stream;
}

BYTE_STREAM_T openOutput(int fd)
{
    BYTE_STREAM_T stream = openInput(fd);
    stream.write_max = SIZE_MAX;
    struct stat status {};
    (void)::fstat(fd, &status);
    if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return stream;
    // A description of its own, which alone does not wait.
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    UniqueFd own{::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)};
    if (own)
        stream.fd = std::move(own);
    else
        stream.write_max = PIPE_BUF;
    return stream;
}

ssize_t readFrom(const BYTE_STREAM_T &stream, int fd, char *bytes, std::size_t size)
{
    for (;;) {
        if (!stream.is_socket && !isReady(fd, POLLIN)) {
            errno = EAGAIN;
            return -1;
        }
        const ssize_t count =
            stream.is_socket ? ::recv(fd, bytes, size, MSG_DONTWAIT) : ::read(fd, bytes, size);
        if (count >= 0 || errno != EINTR) return count;
    }
}

ssize_t writeTo(const BYTE_STREAM_T &stream, int fd, const char *bytes, std::size_t size)
{
    for (;;) {
        if (stream.write_max != SIZE_MAX && !isReady(fd, POLLOUT)) {
            errno = EAGAIN;
            return -1;
        }
        const ssize_t count = stream.is_socket
                                  ? ::send(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                  : ::write(fd, bytes, std::min(size, stream.write_max));
        if (count >= 0 || errno != EINTR) return count;
    }
}
