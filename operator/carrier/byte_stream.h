// The ends of a session: reads and writes that never wait, on whatever a program was started with.
// The mode of a shared description (O_NONBLOCK of the terminal, which the shell has too) stays.
#pragma once

#include "utility/handles.h"

#include <cstddef>
#include <sys/types.h>

struct BYTE_STREAM_T {
    UniqueFd fd; // its own; may be taken, and is given to the calls below
    bool is_socket = false;
    std::size_t write_max = 0; // that do not wait once the system says that there is room
};

// A copy of the descriptor. Both throw std::runtime_error.
BYTE_STREAM_T openInput(int fd);
BYTE_STREAM_T openOutput(int fd);

// As read(2) and write(2) with O_NONBLOCK; EINTR is handled.
ssize_t readFrom(const BYTE_STREAM_T &stream, int fd, char *bytes, std::size_t size);
ssize_t writeTo(const BYTE_STREAM_T &stream, int fd, const char *bytes, std::size_t size);
