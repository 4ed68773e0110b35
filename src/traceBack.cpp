#include "src/traceBack.h"

#include "common/log.h"
#include "src/process_end.h"
#include "utility/alternate_stack.h"
#include "utility/handles.h"
#include "utility/monotonic_clock.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

namespace {

constexpr int MAX_FRAMES = 64;
constexpr unsigned FATAL_REPORT_WAIT_S = 3;
constexpr int SENT_REPORT_WAIT_MS = 500;
constexpr int SENT_GRACE_MS = 50;
constexpr int PIPE_REPORT_WAIT_MS = 50;
constexpr int EXIT_STATUS_SIGNAL = 1;

#ifdef RA_KEEP_CRASH_HANDLER
constexpr int HANDLED_SIGNALS[] = {SIGINT, SIGPIPE}; // a fuzzer wants the sanitizer's own report
#else
constexpr int HANDLED_SIGNALS[] = {SIGINT, SIGPIPE, SIGSEGV};
#endif

// Written by the signal handler, read by the reporter; the semaphore orders them.
struct SIGNAL_MAILBOX_T {
    sem_t wake;
    std::atomic<std::int32_t> fatal_signal; // 0 = none; the first one stays
    std::atomic<bool> fatal_sent;           // by somebody, not raised by a fault
    std::atomic<std::uint32_t> pipes_taken;
    std::atomic<std::uint32_t> pipes_reported; // written by the reporter
    void *frames[MAX_FRAMES];
    int frame_count;
    pthread_t reporter;
};

SIGNAL_MAILBOX_T g_mailbox;
bool g_reporter_started = false; // set before other threads exist

// poll and clock_gettime are async-signal-safe (signal-safety(7)), nanosleep is not in that list.
std::int64_t monotonicMilliseconds() noexcept
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return milliseconds_of(now);
}

void sleepOneMillisecond() noexcept
{
    (void)::poll(nullptr, 0, 1);
}

// Logs the frames that the signal handler collected.
void print_trace()
{
    RA_INFO("backtrace() returned %d addresses\n", g_mailbox.frame_count);
    const std::unique_ptr<char *, Releaser<std::free>> symbols{
        ::backtrace_symbols(g_mailbox.frames, g_mailbox.frame_count)};
    if (!symbols) {
        RA_ERROR("backtrace_synbols: %s", std::strerror(errno));
        terminateProcess(EXIT_STATUS_SIGNAL);
    }
    for (int i = 0; i < g_mailbox.frame_count; ++i)
        RA_INFO("  [%02d] %s", i, symbols.get()[i]);
}

// What a signal does, on the reporter thread.
void handler(int signo)
{
    RA_DEBUG("Recv signal = %d. Terminating...", signo);
    if (signo == SIGSEGV) {
        RA_DEBUG("now got a segmentation violation signal ");
        print_trace();
    }
    if (signo != SIGPIPE) terminateProcess(EXIT_STATUS_SIGNAL);
    RA_INFO("socket pipe broken!");
}

void reportPipes()
{
    while (g_mailbox.pipes_reported.load(std::memory_order_relaxed) !=
           g_mailbox.pipes_taken.load(std::memory_order_acquire)) {
        handler(SIGPIPE);
        g_mailbox.pipes_reported.fetch_add(1, std::memory_order_release);
    }
}

// A broken pipe sent before the fatal signal may still be on its way: not taken by any thread, or
// by one that waits for a processor. Blocked on this thread, it can be taken here.
void reportEarlierPipes()
{
    sigset_t pipe;
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    const std::int64_t deadline = monotonicMilliseconds() + SENT_GRACE_MS;
    do {
        const timespec pause{0, 1000000};
        if (::sigtimedwait(&pipe, nullptr, &pause) == SIGPIPE) handler(SIGPIPE);
        reportPipes();
    } while (monotonicMilliseconds() < deadline);
}

void *reportSignals(void * /*argument*/)
{
    for (;;) {
        while (::sem_wait(&g_mailbox.wake) != 0) {
        }
        reportPipes();
        const int fatal = g_mailbox.fatal_signal.load(std::memory_order_acquire);
        if (fatal == 0) continue;
        if (g_mailbox.fatal_sent.load(std::memory_order_relaxed)) reportEarlierPipes();
        handler(fatal);
    }
}

// The state of the one fatal report: whose it is, and whether its frames are being collected.
std::atomic<bool> g_report_taken{false};
std::atomic<bool> g_unwinding{false};
pthread_t g_faulting_thread;

void requestFatalReport(int signo) noexcept
{
    g_mailbox.fatal_signal.store(signo, std::memory_order_release);
    ::sem_post(&g_mailbox.wake);
}

void onAlarm(int /*signo*/)
{
    ::_exit(EXIT_STATUS_SIGNAL);
}

// Whatever becomes of the report.
void endAtTheLatest() noexcept
{
    struct sigaction action {};
    action.sa_handler = onAlarm;
    ::sigemptyset(&action.sa_mask);
    (void)::sigaction(SIGALRM, &action, nullptr);
    ::sigaddset(&action.sa_mask, SIGALRM); // what started the daemon may have blocked it
    (void)::pthread_sigmask(SIG_UNBLOCK, &action.sa_mask, nullptr);
    (void)::alarm(FATAL_REPORT_WAIT_S);
}

// The first fatal signal has the one report. True when this is it, and its report has been asked
// for.
bool takeReport(int signo, bool is_sent) noexcept
{
    if (g_report_taken.exchange(true)) return false;
    endAtTheLatest();
    g_mailbox.fatal_sent.store(is_sent, std::memory_order_relaxed);
    if (signo == SIGSEGV) {
        g_faulting_thread = ::pthread_self();
        g_unwinding.store(true);
        g_mailbox.frame_count = ::backtrace(g_mailbox.frames, MAX_FRAMES);
        g_unwinding.store(false);
    }
    requestFatalReport(signo);
    return true;
}

[[noreturn]] void endAfterFault(int signo) noexcept
{
    // A fault of the reporter itself would be waiting for itself.
    if (::pthread_equal(::pthread_self(), g_mailbox.reporter) != 0) ::_exit(EXIT_STATUS_SIGNAL);
    // A second fault of the same thread: its stack is so damaged that it cannot be unwound. The
    // report is made without frames.
    if (!takeReport(signo, false) && g_unwinding.load() &&
        ::pthread_equal(::pthread_self(), g_faulting_thread) != 0) {
        g_unwinding.store(false);
        g_mailbox.frame_count = 0;
        requestFatalReport(signo);
    }
    for (;;)
        sleepOneMillisecond(); // until the report, or the alarm, ends the process
}

// The thread waits, so that nothing is logged behind the report, but not for long: it may hold the
// lock of the logger, which the report needs. Only the first signal waits: handlers waiting inside
// each other would fill the alternate stack when many signals come while nothing can be logged.
void awaitReportOfSent(int signo) noexcept
{
    if (!takeReport(signo, true)) return;
    if (::pthread_equal(::pthread_self(), g_mailbox.reporter) != 0) return;
    const std::int64_t deadline = monotonicMilliseconds() + SENT_REPORT_WAIT_MS;
    while (monotonicMilliseconds() < deadline)
        sleepOneMillisecond();
}

// The installed handler. backtrace was called once before, so that it loads nothing any more.
void onSignal(int signo, siginfo_t *info, void * /*context*/)
{
    const int saved_errno = errno;
    if (signo == SIGPIPE) {
        g_mailbox.pipes_taken.fetch_add(1, std::memory_order_release);
        ::sem_post(&g_mailbox.wake);
    } else if (signo != SIGSEGV || info->si_code <= 0) { // sigaction(2): sent by somebody
        awaitReportOfSent(signo);
    } else {
        endAfterFault(signo);
    }
    errno = saved_errno;
}

// The reporter takes no signal itself: one that interrupted it while it logs could never be
// reported.
bool startReporter()
{
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::sigdelset(&all, SIGSEGV);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const bool started =
        ::pthread_create(&g_mailbox.reporter, nullptr, reportSignals, nullptr) == 0;
    if (started) ::pthread_detach(g_mailbox.reporter);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

} // namespace

void registerSignalHandlers()
{
    use_alternate_signal_stack();
    void *primer[1];
    (void)::backtrace(primer, 1);
    ::sem_init(&g_mailbox.wake, 0, 0);
    if (!startReporter()) {
        // Without a reporter the signals keep their default actions, but a broken pipe must still
        // not end the process.
        RA_ERROR("signal reporter thread could not be started: signals are not reported");
        (void)::signal(SIGPIPE, SIG_IGN);
        return;
    }
    g_reporter_started = true;
    installSignalHandlers();
}

void installSignalHandlers()
{
    if (!g_reporter_started) return;
    struct sigaction action {};
    action.sa_sigaction = onSignal;
    // A fault while unwinding is seen, too.
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK | SA_NODEFER;
    for (const int signo : HANDLED_SIGNALS) {
        ::sigemptyset(&action.sa_mask);
        if (signo == SIGPIPE) { // else a fatal one on top of it would keep it from being counted
            ::sigaddset(&action.sa_mask, SIGINT);
            ::sigaddset(&action.sa_mask, SIGSEGV);
        }
        (void)::sigaction(signo, &action, nullptr);
    }
}

void awaitBrokenPipeReports() noexcept
{
    const int saved_errno = errno;
    const std::uint32_t taken = g_mailbox.pipes_taken.load(std::memory_order_acquire);
    const std::int64_t deadline = monotonicMilliseconds() + PIPE_REPORT_WAIT_MS;
    // Other threads' signals may be counted meanwhile: the reporter may be past `taken`.
    while (static_cast<std::int32_t>(g_mailbox.pipes_reported.load(std::memory_order_acquire) -
                                     taken) < 0 &&
           monotonicMilliseconds() < deadline)
        sleepOneMillisecond();
    errno = saved_errno;
}
