// A stack of its own for the signal handlers of a thread, so that a stack overflow can still be
// reported.
#pragma once

// For the calling thread, until it ends. Source: sigaltstack(2).
void use_alternate_signal_stack() noexcept;
