#include "src/singleton.h"

#include "common/log.h"
#include "utility/handles.h"
#include "utility/text.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Open for the life of the process on purpose: closing it would drop the lock.
int g_pid_file_fd = -1;

constexpr const char *PID_FILE_NAME = PID_FILE + sizeof PID_DIRECTORY; // below the directory

// Everybody may write to /tmp: neither a planted link, soft or hard, nor a planted FIFO may make
// this process write to something else.
UniqueFd openPidFile() noexcept
{
    const UniqueFd directory{::open(PID_DIRECTORY, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    if (!directory) return UniqueFd{};
    UniqueFd file{::openat(directory.get(), PID_FILE_NAME,
                           O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return UniqueFd{};
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) return UniqueFd{};
    return file;
}

bool lockWholeFile(int fd) noexcept
{
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_SETLK, &lock) == 0;
}

void writeProcessId(int fd) noexcept
{
    char text[24];
    format_text(text, "%ld", static_cast<long>(::getpid()));
    // A reader takes the text with its NUL. A full disk leaves an empty file; the lock is what
    // counts.
    if (::ftruncate(fd, 0) != 0 || ::write(fd, text, std::strlen(text) + 1) < 0) return;
}

} // namespace

int ensureSingletonDaemon()
{
    (void)::mkdir(PID_DIRECTORY, 0766); // it may exist
    if (::access(PID_DIRECTORY, F_OK) != 0) {
        RA_ERROR("Create Dir /tmp/brimlock error!");
        return -1;
    }
    UniqueFd file = openPidFile();
    if (!file) {
        RA_INFO("Open file %s failed!", PID_FILE);
        return -1;
    }
    const int fd = file.get();
    if (!lockWholeFile(fd)) {
        RA_INFO("RemoteAccessDaemon already exit");
        return -1;
    }
    g_pid_file_fd = file.release();
    writeProcessId(fd);
    RA_INFO("Start RemoteAccessDaemon...");
    return 0;
}
