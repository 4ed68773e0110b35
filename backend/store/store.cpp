#include "backend/store/store.h"

#include "backend/observe/log.h"
#include "backend/store/database.h"
#include "backend/store/schema.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>

#include <sqlite3.h>

namespace backend {

using std::chrono::steady_clock;

constexpr auto LATE_WRITE_PERIOD = std::chrono::seconds(LATE_WRITE_PERIOD_S);
constexpr auto ALIVE_PERIOD = std::chrono::minutes(1);
constexpr auto MEMORY_PAUSE = std::chrono::milliseconds(100);
constexpr auto FAILURE_LINE_PERIOD = std::chrono::minutes(1);

static constexpr char ALIVE_SQL[] = "INSERT INTO meta VALUES ('alive_ms', ?)"
                                    " ON CONFLICT DO UPDATE SET value = excluded.value";

// Keeps the file for one back end. Closed after SQLite has closed: SQLite's own locks would be lost
// with any descriptor of the file.
struct FILE_LOCK_T {
    int fd = -1;
    FILE_LOCK_T() = default;
    FILE_LOCK_T(const FILE_LOCK_T &) = delete;
    FILE_LOCK_T &operator=(const FILE_LOCK_T &) = delete;
    ~FILE_LOCK_T()
    {
        if (fd >= 0) close(fd);
    }
};

struct WAITING_WRITE_T {
    STORE_WRITE_T write;
    StoreCallback answered;
};
using BatchPtr = std::shared_ptr<std::vector<WAITING_WRITE_T>>;
using LateWrites = std::unordered_map<std::string, STORE_WRITE_T>;

struct STORE_T {
    std::string path;
    StorePoster poster;
    FILE_LOCK_T lock;
    DatabasePtr database;

    // Of the store's thread.
    std::unordered_map<const char *, StatementPtr> statements; // prepared, by their literal
    std::uint64_t failures = 0;                                // batches since the last good one
    steady_clock::time_point next_failure_line;
    steady_clock::time_point next_alive = steady_clock::now() + ALIVE_PERIOD;
    steady_clock::time_point next_late = steady_clock::now();

    std::mutex mutex; // guards what follows
    std::condition_variable changed;
    std::vector<WAITING_WRITE_T> queue;
    LateWrites late;
    bool is_closing = false;

    std::thread thread;
};

// ---- opening

static std::string describeErrno()
{
    return std::string(strerror(errno)); // NOLINT(concurrency-mt-unsafe): glibc's is per thread
}

static void syncFolderOf(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return; // not every file system can; the entry is then written a little later
    (void)fsync(fd);
    close(fd);
}

static void lockFile(const std::string &path, FILE_LOCK_T &lock)
{
    lock.fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
    if (lock.fd < 0) throw std::runtime_error("it cannot be written: " + describeErrno());
    struct stat status {};
    if (fstat(lock.fd, &status) != 0) throw std::runtime_error(describeErrno());
    if (!S_ISREG(status.st_mode)) throw std::runtime_error("it is not a regular file");
    if ((status.st_mode & (S_IWGRP | S_IRWXO)) != 0)
        throw std::runtime_error("others may read or write it; correct it with chmod 0600");
    if (flock(lock.fd, LOCK_EX | LOCK_NB) != 0)
        throw std::runtime_error(errno == EWOULDBLOCK ? "another back end uses it"
                                                      : "it cannot be locked: " + describeErrno());
    if (status.st_size == 0) syncFolderOf(path);
}

static void requireWal(sqlite3 &database)
{
    const auto rows = query(database, "PRAGMA journal_mode=WAL");
    if (rows.empty() || rows[0] != STORE_ROW_T{"wal"})
        throw std::runtime_error("its file system cannot hold a write-ahead log");
}

static std::string damaged(const std::string &what)
{
    return "it is damaged (" + what +
           "); restore a backup as remote_access_backend(8) says, or move it away to begin a new "
           "one";
}

static DatabasePtr openChecked(const std::string &path)
{
    try {
        DatabasePtr database = openDatabase(path);
        const std::string damage = checkDatabase(*database);
        if (!damage.empty()) throw std::runtime_error(damaged(damage));
        requireWal(*database);
        execute(*database, "PRAGMA synchronous=FULL");
        migrateSchema(*database);
        return database;
    } catch (const DATABASE_FAULT_T &fault) {
        if (fault.code == SQLITE_NOTADB || fault.code == SQLITE_CORRUPT)
            throw std::runtime_error(damaged(fault.what()));
        throw;
    }
}

// ---- the store's thread

static void runWrite(STORE_T &store, const STORE_WRITE_T &write)
{
    StatementPtr &statement = store.statements[write.sql];
    if (!statement) statement = prepare(*store.database, write.sql);
    runStatement(*statement, write.values);
}

static void commit(STORE_T &store, const std::vector<WAITING_WRITE_T> &batch,
                   const LateWrites &late)
{
    execute(*store.database, "BEGIN IMMEDIATE");
    for (const WAITING_WRITE_T &waiting : batch)
        runWrite(store, waiting.write);
    for (const auto &[key, write] : late)
        runWrite(store, write);
    if (steady_clock::now() >= store.next_alive) {
        store.next_alive = steady_clock::now() + ALIVE_PERIOD;
        runWrite(store, {ALIVE_SQL, {wallClockMs()}});
    }
    execute(*store.database, "COMMIT");
}

// One line when it begins, one each minute while it lasts, one when it is over.
static void noteFailure(STORE_T &store, const char *text)
{
    store.failures++;
    const auto now = steady_clock::now();
    if (store.failures > 1 && now < store.next_failure_line) return;
    store.next_failure_line = now + FAILURE_LINE_PERIOD;
    logError("store %s cannot be written: %s (%llu attempts); new devices are refused",
             store.path.c_str(), text, static_cast<unsigned long long>(store.failures));
}

static void noteSuccess(STORE_T &store)
{
    if (store.failures > 0) logInfo("store %s can be written again", store.path.c_str());
    store.failures = 0;
}

static bool tryCommit(STORE_T &store, const std::vector<WAITING_WRITE_T> &batch,
                      const LateWrites &late)
{
    try {
        commit(store, batch, late);
        noteSuccess(store);
        return true;
    } catch (const std::exception &fault) {
        noteFailure(store, fault.what());
    }
    rollBack(*store.database);
    return false;
}

static void answerAll(const std::vector<WAITING_WRITE_T> &batch, bool is_durable)
{
    for (const WAITING_WRITE_T &waiting : batch)
        if (waiting.answered) waiting.answered(is_durable);
}

static bool tryPost(const STORE_T &store, const BatchPtr &batch, bool is_durable)
{
    try {
        store.poster([batch, is_durable] { answerAll(*batch, is_durable); });
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

static void answer(const STORE_T &store, const BatchPtr &batch, bool is_durable)
{
    if (batch->empty()) return;
    while (!tryPost(store, batch, is_durable)) // somebody waits for each answer
        std::this_thread::sleep_for(MEMORY_PAUSE);
}

static bool isLateDue(const STORE_T &store)
{
    return !store.late.empty() && (store.is_closing || steady_clock::now() >= store.next_late);
}

static bool hasWork(const STORE_T &store)
{
    return store.is_closing || !store.queue.empty() || isLateDue(store) ||
           steady_clock::now() >= store.next_alive;
}

// Waits for something to do. False: the store is closed, and all is taken.
static bool takeBatch(STORE_T &store, std::vector<WAITING_WRITE_T> &batch, LateWrites &late)
{
    std::unique_lock guard(store.mutex);
    while (!hasWork(store)) {
        const auto next =
            store.late.empty() ? store.next_alive : std::min(store.next_late, store.next_alive);
        store.changed.wait_until(guard, next);
    }
    if (store.is_closing && store.queue.empty() && store.late.empty()) return false;
    batch.swap(store.queue);
    if (isLateDue(store)) {
        late.swap(store.late);
        store.next_late = steady_clock::now() + LATE_WRITE_PERIOD;
    }
    return true;
}

static bool tryKeepLate(STORE_T &store, LateWrites &late)
{
    const std::lock_guard guard(store.mutex);
    if (store.is_closing) return true; // it was the last attempt
    try {
        store.late.reserve(store.late.size() + late.size());
    } catch (const std::bad_alloc &) {
        return false;
    }
    store.late.merge(late); // newer ones win
    return true;
}

static BatchPtr makeBatch()
{
    for (;;) {
        try {
            return std::make_shared<std::vector<WAITING_WRITE_T>>();
        } catch (const std::bad_alloc &) {
            std::this_thread::sleep_for(MEMORY_PAUSE);
        }
    }
}

static void serve(STORE_T &store)
{
    for (;;) {
        const BatchPtr batch = makeBatch();
        LateWrites late;
        if (!takeBatch(store, *batch, late)) return;
        const bool is_durable = tryCommit(store, *batch, late);
        answer(store, batch, is_durable);
        while (!is_durable && !tryKeepLate(store, late))
            std::this_thread::sleep_for(MEMORY_PAUSE);
    }
}

// ---- for the io thread

std::int64_t wallClockMs()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

StorePtr openStore(const std::string &path, StorePoster poster)
{
    StorePtr store(new STORE_T{});
    store->path = path;
    store->poster = std::move(poster);
    try {
        lockFile(path, store->lock);
        store->database = openChecked(path);
    } catch (const std::runtime_error &fault) {
        throw std::runtime_error("store " + path + ": " + fault.what());
    }
    store->thread = std::thread([&served = *store] { serve(served); });
    return store;
}

std::vector<STORE_ROW_T> readStore(STORE_T &store, const char *sql)
{
    try {
        return query(*store.database, sql);
    } catch (const DATABASE_FAULT_T &fault) {
        throw std::runtime_error("store " + store.path + ": " + fault.what());
    }
}

void writeStore(STORE_T &store, STORE_WRITE_T write, StoreCallback answered)
{
    {
        const std::lock_guard guard(store.mutex);
        if (store.queue.size() < STORE_QUEUE_MAX) {
            store.queue.push_back({std::move(write), std::move(answered)});
            answered = nullptr;
        }
    }
    store.changed.notify_one();
    if (answered) store.poster([answered = std::move(answered)] { answered(false); });
}

void writeStoreLate(STORE_T &store, std::string key, STORE_WRITE_T write)
{
    {
        const std::lock_guard guard(store.mutex);
        store.late.insert_or_assign(std::move(key), std::move(write));
    }
    store.changed.notify_one();
}

void closeStore(STORE_T *store)
{
    if (store == nullptr) return;
    if (store->thread.joinable()) {
        {
            const std::lock_guard guard(store->mutex);
            store->is_closing = true;
        }
        store->changed.notify_one();
        store->thread.join();
    }
    store->statements.clear(); // before the database
    delete store;              // NOLINT(cppcoreguidelines-owning-memory): StorePtr's deleter
}

} // namespace backend
