#include "backend/admin/file_edit.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace backend {

constexpr auto LOCK_PAUSE = std::chrono::milliseconds(20);

[[noreturn]] static void failOn(const std::string &path, const char *what)
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's is per thread
    throw std::runtime_error(path + what + strerror(errno));
}

class OpenFile {
public:
    OpenFile(const std::string &path, int flags, mode_t mode = 0)
        : fd_(open(path.c_str(), flags | O_CLOEXEC, mode))
    {
        if (fd_ < 0) failOn(path, ": ");
    }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    ~OpenFile()
    {
        close(fd_);
    }
    [[nodiscard]] int fd() const
    {
        return fd_;
    }

private:
    int fd_;
};

static std::string readAll(const OpenFile &file, const std::string &path)
{
    struct stat status {};
    if (fstat(file.fd(), &status) != 0) failOn(path, ": ");
    if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + ": is no regular file");
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t got = 0;
    while (got < text.size()) {
        const ssize_t count = read(file.fd(), text.data() + got, text.size() - got);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) failOn(path, " cannot be read: ");
        if (count == 0) break;
        got += static_cast<std::size_t>(count);
    }
    text.resize(got);
    return text;
}

static void writeAll(const OpenFile &file, const std::string &path, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = write(file.fd(), text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) failOn(path, " cannot be written: ");
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    if (fsync(file.fd()) != 0) failOn(path, " cannot be written: ");
}

// Whether the path still leads to this file: another editor may have replaced it.
static bool isStill(const OpenFile &file, const std::string &path)
{
    struct stat here {};
    struct stat there {};
    if (fstat(file.fd(), &here) != 0 || stat(path.c_str(), &there) != 0) return false;
    return here.st_dev == there.st_dev && here.st_ino == there.st_ino;
}

static std::unique_ptr<OpenFile> lockFile(const std::string &path)
{
    const auto end = std::chrono::steady_clock::now() + EDIT_WAIT;
    for (;;) {
        auto file = std::make_unique<OpenFile>(path, O_RDONLY | O_NONBLOCK);
        if (flock(file->fd(), LOCK_EX | LOCK_NB) == 0) {
            if (isStill(*file, path)) return file;
            continue;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) failOn(path, " cannot be locked: ");
        if (std::chrono::steady_clock::now() > end)
            throw std::runtime_error(path + ": another command is changing it");
        std::this_thread::sleep_for(LOCK_PAUSE);
    }
}

// The new file, removed again unless it has taken the old one's place.
struct NEW_FILE_T {
    explicit NEW_FILE_T(std::string where) : path(std::move(where))
    {
        (void)unlink(path.c_str()); // of an editor that was killed: the lock is ours
    }
    NEW_FILE_T(const NEW_FILE_T &) = delete;
    NEW_FILE_T &operator=(const NEW_FILE_T &) = delete;
    ~NEW_FILE_T()
    {
        if (!path.empty()) (void)unlink(path.c_str());
    }
    std::string path; // empty once it has: from then on the name is the next editor's
};

static void replaceFile(const std::string &path, const OpenFile &old, const std::string &text)
{
    struct stat status {};
    if (fstat(old.fd(), &status) != 0) failOn(path, ": ");
    NEW_FILE_T part(path + ".new");
    {
        const OpenFile file(part.path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
        struct stat made {};
        if (fstat(file.fd(), &made) != 0) failOn(part.path, ": ");
        const bool is_same = made.st_uid == status.st_uid && made.st_gid == status.st_gid;
        if (!is_same && fchown(file.fd(), status.st_uid, status.st_gid) != 0)
            failOn(path, ": its owner cannot be kept: ");
        if (fchmod(file.fd(), status.st_mode & 07777U) != 0) failOn(part.path, ": ");
        writeAll(file, part.path, text);
    }
    if (rename(part.path.c_str(), path.c_str()) != 0) failOn(path, " cannot be replaced: ");
    part.path.clear();
    syncFolderOf(path);
}

std::string readFile(const std::string &path)
{
    return readAll(OpenFile(path, O_RDONLY | O_NONBLOCK), path);
}

void editFile(const std::string &path, const std::function<std::string(std::string)> &edit)
{
    // What a link leads to is replaced, not the link.
    const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), free);
    if (!real) failOn(path, ": ");
    const std::string target = real.get();
    const auto file = lockFile(target);
    const std::string before = readAll(*file, path);
    const std::string after = edit(before);
    if (after != before) replaceFile(target, *file, after);
}

void makeFile(const std::string &path, unsigned mode, std::string_view text)
{
    const OpenFile file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    try {
        writeAll(file, path, text);
        if (fchmod(file.fd(), mode) != 0) failOn(path, ": ");
    } catch (const std::runtime_error &) {
        (void)unlink(path.c_str());
        throw;
    }
}

void syncFolderOf(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const OpenFile file(folder, O_RDONLY | O_DIRECTORY);
    if (fsync(file.fd()) != 0) failOn(folder, " cannot be written: ");
}

} // namespace backend
