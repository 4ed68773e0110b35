// Installation root: the directory one level above the one that holds the executable.
//
// Source   /proc/self/exe (proc(5)).
// Threads  the main thread, at start-up.
#pragma once

#include <cstddef>

constexpr std::size_t INSTALL_ROOT_SIZE = 4096; // PATH_MAX

// Fills out with the absolute path, without a trailing "/". 0 on success. 1 on failure: out is
// unchanged when the link cannot be read, and holds the unresolved path when it cannot be resolved.
// Resolved once and kept.
int getInstallRootPath(char (&out)[INSTALL_ROOT_SIZE]) noexcept;
