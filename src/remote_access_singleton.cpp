#include "src/remote_access_singleton.h"

#include "common/log.h"
#include "utility/text.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Open for the life of the process on purpose: closing it would drop the lock.
int g_pid_file_fd = -1;

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
    // /tmp is everybody's: a planted link must not make this process truncate its target.
    const int fd = ::open(PID_FILE, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        RA_INFO("Open file %s failed!", PID_FILE);
        return -1;
    }
    if (!lockWholeFile(fd)) {
        RA_INFO("RemoteAccessDaemon already exit");
        ::close(fd);
        return -1;
    }
    g_pid_file_fd = fd;
    writeProcessId(fd);
    RA_INFO("Start RemoteAccessDaemon...");
    return 0;
}
