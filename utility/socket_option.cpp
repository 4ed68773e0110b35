#include "utility/socket_option.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

int setSocketNonBlock(int fd) noexcept
{
    const int flags = ::fcntl(fd, F_GETFL);
    // -1 has every flag set: writing it back would turn on unwanted flags.
    if (flags != -1) (void)::fcntl(fd, F_SETFL, flags | O_NONBLOCK); // the caller judges by flags
    return flags;
}

int setSocketNoDelay(int fd) noexcept
{
    const int on = 1;
    return ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}
