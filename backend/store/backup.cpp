#include "backend/store/database.h"
#include "backend/store/schema.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fcntl.h>
#include <sqlite3.h>

namespace backend {

constexpr int BUSY_PAUSE_MS = 50;
constexpr int BUSY_ATTEMPTS = 100;

[[noreturn]] static void failOn(const std::string &path, const char *what)
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's is per thread
    throw std::runtime_error(path + " " + what + ": " + strerror(errno));
}

// A file beside the target, removed again unless it has taken the target's place.
struct PART_FILE_T {
    std::string path;
    explicit PART_FILE_T(const std::string &target) : path(target + ".XXXXXX")
    {
        const int fd = mkostemp(path.data(), O_CLOEXEC); // mode 0600
        if (fd < 0) failOn(target, "cannot be made");
        close(fd);
    }
    PART_FILE_T(const PART_FILE_T &) = delete;
    PART_FILE_T &operator=(const PART_FILE_T &) = delete;
    ~PART_FILE_T()
    {
        (void)unlink(path.c_str());
    }
};

// One step takes one snapshot: the running back end goes on writing meanwhile.
static void copyPages(sqlite3 &from, sqlite3 &to)
{
    struct FINISH_T {
        void operator()(sqlite3_backup *backup) const
        {
            (void)sqlite3_backup_finish(backup);
        }
    };
    const std::unique_ptr<sqlite3_backup, FINISH_T> backup(
        sqlite3_backup_init(&to, "main", &from, "main"));
    if (!backup) throw std::runtime_error(sqlite3_errmsg(&to));
    int result = SQLITE_BUSY;
    for (int i = 0; i < BUSY_ATTEMPTS && (result == SQLITE_BUSY || result == SQLITE_LOCKED); i++) {
        if (i > 0) (void)sqlite3_sleep(BUSY_PAUSE_MS);
        result = sqlite3_backup_step(backup.get(), -1);
    }
    if (result != SQLITE_DONE) throw std::runtime_error(sqlite3_errstr(result));
}

static void writeCopy(const std::string &path, const std::string &part)
{
    const DatabasePtr from = openDatabase(path);
    if (query(*from, "PRAGMA application_id")[0] != STORE_ROW_T{STORE_APPLICATION_ID})
        throw std::runtime_error("it is no store of this program");
    const DatabasePtr to = openDatabase(part);
    copyPages(*from, *to);
    (void)query(*to, "PRAGMA journal_mode=DELETE"); // one file, without a log beside it
    const std::string damage = checkDatabase(*to);
    if (!damage.empty()) throw std::runtime_error("it is damaged: " + damage);
}

static void syncPath(const std::string &path, int flags)
{
    const int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) failOn(path, "cannot be opened");
    const int result = fsync(fd);
    close(fd);
    if (result != 0) failOn(path, "cannot be written");
}

void backUpStore(const std::string &path, const std::string &target, bool may_replace)
{
    struct stat source {};
    struct stat existing {};
    if (stat(path.c_str(), &source) != 0) failOn("store " + path, "cannot be read");
    if (lstat(target.c_str(), &existing) == 0) {
        if (!may_replace) throw std::runtime_error(target + " exists already; --force replaces it");
        if (existing.st_dev == source.st_dev && existing.st_ino == source.st_ino)
            throw std::runtime_error(target + " is the store itself");
    }
    const PART_FILE_T part(target);
    try {
        writeCopy(path, part.path);
    } catch (const std::runtime_error &fault) {
        throw std::runtime_error("store " + path + " cannot be copied: " + fault.what());
    }
    syncPath(part.path, O_RDONLY);
    const int result = may_replace ? rename(part.path.c_str(), target.c_str())
                                   : link(part.path.c_str(), target.c_str());
    if (result != 0) failOn(target, "cannot be made");
    const std::size_t slash = target.rfind('/');
    syncPath(slash == std::string::npos ? "." : target.substr(0, slash + 1),
             O_RDONLY | O_DIRECTORY);
}

} // namespace backend
