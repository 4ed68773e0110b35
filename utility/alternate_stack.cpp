#include "utility/alternate_stack.h"

#include <csignal>

namespace {

// MINSIGSTKSZ is too small for backtrace, and with wide vector registers even for the frame itself.
constexpr std::size_t ALTERNATE_STACK_SIZE = std::size_t{64} * 1024;

} // namespace

void use_alternate_signal_stack() noexcept
{
    stack_t current{};
    // A sanitizer's runtime has set one already, and takes it down itself when the thread ends.
    if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) return;
    alignas(16) thread_local char storage[ALTERNATE_STACK_SIZE];
    stack_t stack{};
    stack.ss_sp = storage;
    stack.ss_size = sizeof storage;
    ::sigaltstack(&stack, nullptr);
}
