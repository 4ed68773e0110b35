// Installation root: the directory one level above the one that holds the executable.
//
// Source   /proc/self/exe (proc(5)).
// Threads  the main thread, at start-up.
#pragma once

#include <cstddef>

constexpr std::size_t INSTALL_ROOT_SIZE = 4096; // PATH_MAX

// Fills out, which has room for INSTALL_ROOT_SIZE bytes, with the absolute path, without a trailing
// "/". 0 on success. 1 on failure: out is null, or unchanged because the link cannot be read, or
// holds the unresolved path because that cannot be resolved. Resolved once and kept.
int getInstallRootPath(char *out) noexcept;
