// Socket options of the connections to local services.
//
// Source   fcntl(2), tcp(7).
#pragma once

// Adds O_NONBLOCK. Returns the previous file status flags, or -1 when they could not be read
// (nothing is changed then).
int setSocketNonBlock(int fd) noexcept;
// Sets TCP_NODELAY. Returns the result of setsockopt.
int setSocketNoDelay(int fd) noexcept;
