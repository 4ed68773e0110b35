#include "utility/alternate_stack.h"

#include <csignal>
#include <sys/mman.h>

namespace {

// MINSIGSTKSZ is too small for backtrace, and with wide vector registers even for the frame itself.
constexpr std::size_t ALTERNATE_STACK_SIZE = std::size_t{64} * 1024;

// Mapped, so that no page of it exists before a handler runs: thread-local storage is cleared for
// every thread, 64 KiB for each.
class AlternateStack {
public:
    AlternateStack() noexcept
        : memory_{::mmap(nullptr, ALTERNATE_STACK_SIZE, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)}
    {
        if (memory_ == MAP_FAILED) return;
        stack_t stack{};
        stack.ss_sp = memory_;
        stack.ss_size = ALTERNATE_STACK_SIZE;
        ::sigaltstack(&stack, nullptr);
    }
    ~AlternateStack()
    {
        if (memory_ == MAP_FAILED) return;
        stack_t none{};
        none.ss_flags = SS_DISABLE;
        ::sigaltstack(&none, nullptr);
        ::munmap(memory_, ALTERNATE_STACK_SIZE);
    }
    AlternateStack(const AlternateStack &) = delete;
    AlternateStack &operator=(const AlternateStack &) = delete;

private:
    void *memory_;
};

} // namespace

void use_alternate_signal_stack() noexcept
{
    stack_t current{};
    // A sanitizer's runtime has set one already, and takes it down itself when the thread ends.
    if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) return;
    [[maybe_unused]] thread_local const AlternateStack stack;
}
