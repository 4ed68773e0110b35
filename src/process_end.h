// The one way out of the process once threads run.
#pragma once

// Flushes the standard streams and ends the process at once, without destructors or exit handlers:
// other threads are still using what those would tear down. Callable from every thread, not from a
// signal handler.
[[noreturn]] void terminateProcess(int status) noexcept;
