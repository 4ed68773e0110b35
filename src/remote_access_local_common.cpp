#include "src/remote_access_local_common.h"

#include "common/log.h"
#include "utility/handles.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

using FilePtr = std::unique_ptr<std::FILE, Releaser<std::fclose>>;

// Not blocking, because a FIFO in the file's place would hold up the start for ever.
FilePtr openForReading(const char *path)
{
    UniqueFd fd{::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (!fd) return nullptr;
    FilePtr file{::fdopen(fd.get(), "r")};
    if (file) fd.release();
    return file;
}

bool isRegular(std::FILE *file)
{
    struct stat status {};
    return ::fstat(::fileno(file), &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

char *local_common::_load_cfg_from_json(const char *path)
{
    if (path == nullptr) return nullptr;
    const FilePtr file = openForReading(path);
    if (!file) {
        RA_WARN("failed to open file: %s: %s", path, std::strerror(errno));
        return nullptr;
    }
    (void)std::fseek(file.get(), 0, SEEK_END); // a file that cannot seek has no size
    const off_t size = ::ftello(file.get());
    if (size <= 0) {
        RA_WARN("file: %s is empty", path);
        return nullptr;
    }
    // A directory reports the largest offset, which a long of 32 bits could not. One byte more than
    // the size is read and one more holds the NUL: the file may grow.
    const bool readable = size < INT_MAX && isRegular(file.get());
    const auto wanted = static_cast<std::size_t>(size);
    HeapText text{readable ? static_cast<char *>(std::calloc(wanted + 2, 1)) : nullptr};
    if (!text) {
        RA_WARN("failed to alloc memory to save config file content ");
        return nullptr;
    }
    std::rewind(file.get());
    if (std::fread(text.get(), 1, wanted + 1, file.get()) < wanted) {
        RA_WARN("failed to read file content: %s\n", std::strerror(errno));
        return nullptr;
    }
    return text.release();
}
