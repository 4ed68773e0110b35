// Writes lines to a descriptor from a thread of its own, so that nobody waits for a pipe that is
// not read or for a disk that is full.
// Ownership  the descriptor is borrowed, and its flags stay as they are: others may share it.
// Threads    every call is safe from every thread. The thread takes no signals.
// Limits     queue_max bytes wait at most, beside 64 KiB under way.
// Failure    a line that finds no room is refused; a line that cannot be written is lost.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

namespace backend {

struct LINE_WRITER_T;
using LineWriterPtr = std::shared_ptr<LINE_WRITER_T>;

// tick, when given, is called by the thread before it waits for lines, and at least once a second.
// It may call offerLine, and must not throw. Throws std::system_error when no thread can be had.
LineWriterPtr startLineWriter(int fd, std::size_t queue_max, std::function<void()> tick = nullptr);

// False when there is no room for it, or the writer has been stopped.
bool offerLine(LINE_WRITER_T &writer, std::string_view line);

// Waits until everything is written, at most for `bound`; then the writer takes no more. False
// when something is left: the thread then still waits for its descriptor, and ends with the
// process.
bool stopLineWriter(LINE_WRITER_T &writer, std::chrono::milliseconds bound);

} // namespace backend
