// Copies a stream of bytes between two descriptors, waiting for both.
// Threads  none of it keeps state.
#pragma once

#include <atomic>
#include <cstdint>

// Until the input ends or fails. False when something could not be written; errno says why.
bool copyStream(int from, int to, std::atomic<std::uint64_t> &count);
