// Signals: SIGINT and SIGSEGV are logged and end the process with status 1, a segmentation fault
// with a backtrace of the faulting thread; SIGPIPE is logged and survived, the failing write
// reports its error to its caller. Every other signal keeps its default action.
//
// Threads  logging and symbol lookup are not async-signal-safe, so the signal handler only takes
//          the backtrace and wakes a reporter thread, which writes the lines and ends the process.
//          A thread that has faulted waits for that; one that took a signal that somebody sent goes
//          on after half a second, because it may hold the lock of the logger. When there is no
//          report within 3 s the process ends all the same.
#pragma once

// Starts the reporter and installs the handler. Call it once, before other threads are started;
// they inherit the dispositions. A thread that wants its stack overflows reported also calls
// use_alternate_signal_stack.
void registerSignalHandlers();

// Puts the handler in place again: some libraries install one of their own for SIGPIPE. Does
// nothing before registerSignalHandlers.
void installSignalHandlers();

// Waits, at most 50 ms, until every SIGPIPE taken so far is in the log, so that its lines precede
// those of the write that raised it. errno is kept.
void awaitBrokenPipeReports() noexcept;
