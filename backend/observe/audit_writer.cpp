#include "backend/observe/audit_writer.h"

#include "backend/observe/log.h"
#include "backend/observe/metrics.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <poll.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace backend {

using Clock = std::chrono::steady_clock;

constexpr std::size_t QUEUE_MAX = std::size_t{8} * 1024 * 1024;
constexpr std::size_t BATCH_MAX = std::size_t{256} * 1024;
constexpr std::size_t LINE_COST = 320; // of a line beside its members: chain and bookkeeping
constexpr auto RETRY_TIME = std::chrono::seconds(1);
constexpr auto SYNC_TIME = std::chrono::seconds(1);  // for lines that nobody waits for
constexpr auto STALL_TIME = std::chrono::seconds(2); // then the file counts as failing
constexpr auto MEMORY_PAUSE = std::chrono::milliseconds(100);
constexpr int POLL_TIME_MS = 250;

struct NEXT_FILE_T {
    AuditFd fd;
    std::list<std::string> first_lines;
};

struct ENTRY_T {
    std::string members;
    AuditDone done;
    std::unique_ptr<NEXT_FILE_T> next_file; // then the rest is unused
};

// The lines that are being written. They stay here until they are, also when memory runs out.
struct BATCH_T {
    std::list<std::string> members;
    std::size_t cost = 0;
    bool is_closed = false; // the rest holds the lines
    std::string text;
    std::size_t written = 0;
    std::deque<std::size_t> ends;     // of each line in the text
    std::deque<AUDIT_CHAIN_T> before; // the chain in front of each line
};

struct AUDIT_WRITER_T {
    // The thread's alone.
    AuditFd fd;
    bool is_regular = false;
    AUDIT_CHAIN_T chain;
    bool lacks_newline = false;
    bool is_dirty = false; // something is written and not synced
    BATCH_T batch;
    Clock::time_point dirty_since;
    std::function<void(AUDIT_WRITER_T &)> tick;

    std::mutex lock; // guards the rest
    std::condition_variable wake;
    std::condition_variable ended;
    std::function<void(std::function<void()>)> post;
    std::deque<ENTRY_T> queue;
    std::size_t queue_bytes = 0;         // with what is under way
    std::vector<AuditDone> under_way;    // who waits for the lines that are being written
    std::vector<AuditDone> disappointed; // who is still to be told that theirs is not written
    Clock::time_point progressed_at; // when the queue got its first line, or something was written
    bool is_failing = false;
    bool is_stopping = false;
    bool is_given_up = false;
    bool is_ended = false;
};

void AuditFd::reset()
{
    if (fd_ > STDERR_FILENO) close(fd_);
    fd_ = -1;
}

static bool isRegular(int fd)
{
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

static std::size_t costOf(const std::string &members)
{
    return members.size() + LINE_COST;
}

// ---- callbacks

// Empties `waiting`, unless it throws.
static void postDone(AUDIT_WRITER_T &writer, std::vector<AuditDone> &waiting, bool is_recorded)
{
    if (waiting.empty() || !writer.post) return;
    const auto posted = std::make_shared<std::vector<AuditDone>>();
    posted->swap(waiting);
    try {
        writer.post([posted, is_recorded] {
            for (const AuditDone &done : *posted)
                done(is_recorded);
        });
    } catch (...) {
        posted->swap(waiting);
        throw;
    }
}

// Moved only once there is room for it.
static void moveDone(AuditDone &from, std::vector<AuditDone> &to)
{
    if (!from) return;
    to.push_back(std::move(from));
    from = nullptr;
}

// Nobody waits for a disk that is full.
static void disappointWaiting(AUDIT_WRITER_T &writer)
{
    for (AuditDone &done : writer.under_way)
        moveDone(done, writer.disappointed);
    writer.under_way.clear();
    for (ENTRY_T &entry : writer.queue)
        moveDone(entry.done, writer.disappointed);
    postDone(writer, writer.disappointed, false);
}

static void noteFailure(AUDIT_WRITER_T &writer, const char *reason)
{
    {
        const std::lock_guard guard(writer.lock);
        const bool was_failing = std::exchange(writer.is_failing, true);
        try {
            disappointWaiting(writer);
        } catch (const std::bad_alloc &) { // the next attempt tells them
        }
        if (was_failing) return;
    }
    setMetric(METRIC::AUDIT_FAILING, 1);
    logError("the audit cannot be written: %s; no session may begin until it can", reason);
}

static void noteSuccess(AUDIT_WRITER_T &writer)
{
    {
        const std::lock_guard guard(writer.lock);
        if (!std::exchange(writer.is_failing, false)) return;
    }
    setMetric(METRIC::AUDIT_FAILING, 0);
    logWarning("the audit can be written again");
}

// ---- writing, all by the thread

// Sleeps until the next attempt. False when there is none to be.
static bool waitForRetry(AUDIT_WRITER_T &writer)
{
    std::unique_lock guard(writer.lock);
    const auto until = Clock::now() + RETRY_TIME;
    const auto has_next = [&] {
        return std::any_of(writer.queue.begin(), writer.queue.end(),
                           [](const ENTRY_T &entry) { return entry.next_file != nullptr; });
    };
    writer.wake.wait_until(guard, until, [&] { return writer.is_given_up || has_next(); });
    return !writer.is_given_up;
}

static std::unique_ptr<NEXT_FILE_T> takeNextFile(AUDIT_WRITER_T &writer)
{
    const std::lock_guard guard(writer.lock);
    for (auto entry = writer.queue.begin(); entry != writer.queue.end(); ++entry) {
        if (!entry->next_file) continue;
        auto next = std::move(entry->next_file);
        writer.queue.erase(entry);
        return next;
    }
    return nullptr;
}

// Waits at a pipe until it takes something. False when it did not within the time, or when the
// writer was given up.
static bool isReady(AUDIT_WRITER_T &writer)
{
    if (writer.is_regular) return true;
    const auto until = Clock::now() + STALL_TIME;
    do {
        pollfd ready{writer.fd.get(), POLLOUT, 0};
        if (poll(&ready, 1, POLL_TIME_MS) > 0) return true;
        const std::lock_guard guard(writer.lock);
        if (writer.is_given_up) return false;
    } while (Clock::now() < until);
    return false;
}

// The number of bytes taken; 0 after a failure, which it notes.
static std::size_t writeSome(AUDIT_WRITER_T &writer, std::string_view text)
{
    if (!isReady(writer)) {
        noteFailure(writer, "nobody reads what it writes to");
        return 0;
    }
    if (!writer.is_regular) text = text.substr(0, PIPE_BUF); // a ready pipe takes as much at once
    const ssize_t count = write(writer.fd.get(), text.data(), text.size());
    if (count > 0) return static_cast<std::size_t>(count);
    noteFailure(writer, count == 0 ? "no byte was taken" : strerror(errno));
    return 0;
}

// False when it failed; the kernel may have forgotten what it could not write, so whoever waits is
// told so at once.
static bool syncFile(AUDIT_WRITER_T &writer)
{
    if (!writer.is_regular || fdatasync(writer.fd.get()) == 0) {
        writer.is_dirty = false;
        return true;
    }
    noteFailure(writer, strerror(errno));
    return false;
}

static void closeLines(AUDIT_WRITER_T &writer, BATCH_T &batch)
{
    batch.is_closed = false;
    batch.text.clear();
    batch.written = 0;
    batch.ends.clear();
    batch.before.clear();
    if (writer.lacks_newline) batch.text += '\n';
    AUDIT_CHAIN_T chain = writer.chain;
    for (const std::string &members : batch.members) {
        batch.before.push_back(chain);
        batch.text += closeAuditLine(chain, members);
        batch.ends.push_back(batch.text.size());
    }
    writer.chain = std::move(chain); // once nothing can throw any more
    writer.lacks_newline = false;
    batch.is_closed = true;
}

// The lines that are in the file whole stay there. What is there of the next one is cut off, and
// the chain goes back to where it was before that line.
static void takeBackUnwritten(AUDIT_WRITER_T &writer, BATCH_T &batch)
{
    std::size_t kept = 0;
    while (!batch.ends.empty() && batch.ends.front() <= batch.written) {
        kept = batch.ends.front();
        batch.ends.pop_front();
        batch.before.pop_front();
        batch.members.pop_front();
    }
    if (!batch.before.empty()) writer.chain = batch.before.front();
    const off_t end = lseek(writer.fd.get(), 0, SEEK_END);
    const auto surplus = static_cast<off_t>(batch.written - kept);
    if (writer.is_regular && surplus > 0 && end >= surplus &&
        ftruncate(writer.fd.get(), end - surplus) != 0)
        logWarning("the last line of the audit's old file is torn: %s", strerror(errno));
}

static void useNextFile(AUDIT_WRITER_T &writer, BATCH_T &batch, NEXT_FILE_T next)
{
    (void)syncFile(writer);
    writer.fd = std::move(next.fd); // the old one is closed with next
    writer.is_regular = isRegular(writer.fd.get());
    writer.lacks_newline = false;
    logInfo("the audit goes on in a new file after line %llu, hash %s",
            static_cast<unsigned long long>(writer.chain.seq), writer.chain.hash.c_str());
    batch.members.splice(batch.members.begin(), next.first_lines);
    batch.is_closed = false;
}

// False when the writer was given up meanwhile.
static bool writeBatch(AUDIT_WRITER_T &writer, BATCH_T &batch, bool is_awaited)
{
    if (!batch.is_closed) closeLines(writer, batch);
    bool is_synced = false;
    while (batch.written < batch.text.size() || !is_synced) {
        bool is_good = true;
        if (batch.written < batch.text.size()) {
            const std::size_t count =
                writeSome(writer, std::string_view(batch.text).substr(batch.written));
            batch.written += count;
            is_good = count > 0;
            if (is_good && !std::exchange(writer.is_dirty, true)) writer.dirty_since = Clock::now();
        } else {
            is_good = is_synced = !is_awaited || syncFile(writer);
        }
        if (is_good) continue;
        if (!waitForRetry(writer)) return false;
        if (auto next = takeNextFile(writer)) {
            takeBackUnwritten(writer, batch);
            useNextFile(writer, batch, std::move(*next));
            closeLines(writer, batch);
            is_synced = false;
        }
    }
    return true;
}

static void takeEntries(AUDIT_WRITER_T &writer, BATCH_T &batch)
{
    while (!writer.queue.empty() && !writer.queue.front().next_file && batch.cost < BATCH_MAX) {
        ENTRY_T &entry = writer.queue.front();
        std::list<std::string> line(1);
        moveDone(entry.done, writer.under_way);
        batch.cost += costOf(entry.members); // nothing throws from here on
        line.front() = std::move(entry.members);
        batch.members.splice(batch.members.end(), line);
        writer.queue.pop_front();
    }
}

static void noteWritten(AUDIT_WRITER_T &writer, BATCH_T &batch)
{
    addToMetric(METRIC::AUDIT_LINES, batch.members.size());
    const std::size_t cost = std::exchange(batch.cost, 0);
    batch.members.clear();
    batch.is_closed = false;
    std::string().swap(batch.text);
    const std::lock_guard guard(writer.lock);
    writer.queue_bytes -= cost;
    writer.progressed_at = Clock::now();
    setMetric(METRIC::AUDIT_QUEUE_BYTES, writer.queue_bytes);
    postDone(writer, writer.under_way, true);
}

// Lines that nobody waits for are synced some time later, and at the end.
static bool syncLate(AUDIT_WRITER_T &writer, bool is_last)
{
    if (!writer.is_dirty) {
        noteSuccess(writer); // nothing is left of what failed
        return true;
    }
    if (!is_last && Clock::now() - writer.dirty_since < SYNC_TIME) return true;
    while (!syncFile(writer)) {
        if (!waitForRetry(writer)) return false;
    }
    noteSuccess(writer);
    return true;
}

static bool runOnce(AUDIT_WRITER_T &writer)
{
    BATCH_T &batch = writer.batch;
    bool is_awaited = false;
    bool is_last = false;
    {
        std::unique_lock guard(writer.lock);
        writer.wake.wait_for(guard, SYNC_TIME, [&] {
            return writer.is_stopping || !writer.queue.empty() || !batch.members.empty();
        });
        if (writer.is_given_up) return false;
        postDone(writer, writer.disappointed, false);
        if (!batch.is_closed) takeEntries(writer, batch);
        is_awaited = !writer.under_way.empty();
        is_last = writer.is_stopping && batch.members.empty() && writer.queue.empty();
    }
    if (batch.members.empty()) {
        auto next = is_last ? nullptr : takeNextFile(writer);
        if (!next) return syncLate(writer, is_last) && !is_last;
        useNextFile(writer, batch, std::move(*next));
    }
    if (!writeBatch(writer, batch, is_awaited)) return false;
    noteSuccess(writer);
    noteWritten(writer, batch);
    return syncLate(writer, false);
}

// Memory that has run out is as a disk that fails: every step can be tried again.
static bool tryOnce(AUDIT_WRITER_T &writer, Clock::time_point &ticked_at)
{
    try {
        if (!runOnce(writer)) return false;
        if (!writer.tick || Clock::now() - ticked_at < SYNC_TIME) return true;
        ticked_at = Clock::now();
        writer.tick(writer);
        return true;
    } catch (const std::exception &fault) {
        noteFailure(writer, fault.what());
        std::this_thread::sleep_for(MEMORY_PAUSE);
        return true;
    }
}

static void runWriter(AUDIT_WRITER_T &writer)
{
    auto ticked_at = Clock::now();
    while (tryOnce(writer, ticked_at)) {
    }
    // Closed by now for whoever waits for the end: another may open and lock the file.
    writer.fd.reset();
    const std::lock_guard guard(writer.lock);
    writer.is_ended = true;
    writer.ended.notify_all();
}

AuditWriterPtr startAuditWriter(AUDIT_WRITER_OPTIONS_T options)
{
    auto writer = std::make_shared<AUDIT_WRITER_T>();
    writer->fd = std::move(options.fd);
    writer->is_regular = isRegular(writer->fd.get());
    writer->chain = std::move(options.chain);
    writer->lacks_newline = options.lacks_newline;
    writer->post = std::move(options.post);
    writer->tick = std::move(options.tick);
    sigset_t all{};
    sigset_t before{};
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread([writer] { runWriter(*writer); }).detach();
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return writer;
}

// ---- the other threads

// A disk that hangs does not fail: the thread waits for it.
static bool isStalled(const AUDIT_WRITER_T &writer)
{
    return writer.queue_bytes > 0 && Clock::now() - writer.progressed_at > STALL_TIME;
}

static bool hasRoom(const AUDIT_WRITER_T &writer, AUDIT_ROOM room)
{
    if (room == AUDIT_ROOM::ALWAYS) return true;
    if (room == AUDIT_ROOM::FULL) return writer.queue_bytes < QUEUE_MAX;
    return !writer.is_failing && !isStalled(writer) && writer.queue_bytes < QUEUE_MAX / 2;
}

bool hasAuditRoom(AUDIT_WRITER_T &writer)
{
    const std::lock_guard guard(writer.lock);
    return hasRoom(writer, AUDIT_ROOM::HALF);
}

bool offerAuditLine(AUDIT_WRITER_T &writer, AUDIT_ROOM room, std::string members, AuditDone done)
{
    const std::lock_guard guard(writer.lock);
    if (writer.is_stopping || !hasRoom(writer, room)) return false;
    const std::size_t cost = costOf(members);
    const bool is_hopeless = done && writer.is_failing;
    if (is_hopeless) {
        std::vector<AuditDone> waiting{std::exchange(done, nullptr)};
        postDone(writer, waiting, false);
    }
    writer.queue.push_back({std::move(members), std::move(done), nullptr});
    if (writer.queue_bytes == 0) writer.progressed_at = Clock::now();
    writer.queue_bytes += cost;
    setMetric(METRIC::AUDIT_QUEUE_BYTES, writer.queue_bytes);
    writer.wake.notify_one();
    return true;
}

void switchAuditFile(AUDIT_WRITER_T &writer, AuditFd fd, std::list<std::string> first_lines)
{
    auto next = std::make_unique<NEXT_FILE_T>();
    next->fd = std::move(fd);
    next->first_lines = std::move(first_lines);
    const std::lock_guard guard(writer.lock);
    writer.queue.push_back({{}, nullptr, std::move(next)});
    writer.wake.notify_one();
}

void muteAuditWriter(AUDIT_WRITER_T &writer)
{
    // Destroyed without the lock, by the caller's thread: they may own what belongs to it.
    std::vector<AuditDone> unheard;
    std::function<void(std::function<void()>)> post;
    const std::lock_guard guard(writer.lock);
    unheard = std::exchange(writer.under_way, {});
    for (AuditDone &done : writer.disappointed)
        unheard.push_back(std::move(done));
    writer.disappointed.clear();
    for (ENTRY_T &entry : writer.queue)
        if (entry.done) unheard.push_back(std::exchange(entry.done, nullptr));
    post = std::exchange(writer.post, nullptr);
}

bool stopAuditWriter(AUDIT_WRITER_T &writer, std::chrono::milliseconds bound)
{
    muteAuditWriter(writer);
    std::unique_lock guard(writer.lock);
    writer.is_stopping = true;
    writer.wake.notify_one();
    const bool is_written = writer.ended.wait_for(guard, bound, [&] { return writer.is_ended; });
    writer.is_given_up = true;
    writer.wake.notify_one();
    return is_written;
}

} // namespace backend
