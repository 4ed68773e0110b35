#include "devgateway/config_manager/config_store.h"

#include "common/log.h"
#include "utility/handles.h"
#include "utility/utf8.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

namespace {

constexpr mode_t OWNER_ONLY = 0600;

std::string_view take_line(std::string_view &content)
{
    const std::size_t end = content.find('\n');
    const std::string_view line = content.substr(0, end);
    content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
    return line;
}

bool is_comment(std::string_view line)
{
    const std::size_t first = line.find_first_not_of(" \t\r");
    return first == std::string_view::npos || line[first] == '#';
}

// What is wrong with a line, null for a good one.
const char *fault_of(const CONFIG_STORE_T &store, std::string_view line)
{
    const std::size_t separator = line.find('=');
    if (separator == std::string_view::npos) return "it is not key=value";
    if (!is_config_key(line.substr(0, separator))) return "what stands before = is not a key";
    if (!is_config_value(line.substr(separator + 1))) return "the value is too long or not UTF-8";
    if (store.places.contains(line.substr(0, separator))) return "the key was set before";
    return nullptr;
}

void append_key(CONFIG_STORE_T &store, std::string_view key, std::string_view value)
{
    store.places.emplace(key, store.lines.size());
    store.lines.push_back({std::string{key}, std::string{value}});
}

std::string content_of(const std::vector<CONFIG_LINE_T> &lines)
{
    std::string content;
    for (const CONFIG_LINE_T &line : lines) {
        if (!line.key.empty()) content.append(line.key).append(1, '=');
        content.append(line.text).append(1, '\n');
    }
    return content;
}

// 0, or -1 with errno set.
int read_file(int fd, std::string &content)
{
    char piece[16 * 1024];
    while (content.size() <= CONFIG_FILE_MAX) {
        const ssize_t length = ::read(fd, piece, sizeof piece);
        if (length == 0) return 0;
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return -1;
        content.append(piece, static_cast<std::size_t>(length));
    }
    errno = EFBIG;
    return -1;
}

int write_file(int fd, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t length = ::write(fd, content.data(), content.size());
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return -1;
        content.remove_prefix(static_cast<std::size_t>(length));
    }
    return ::fsync(fd);
}

// Gives a new file the owner and the mode of the one that it replaces.
int inherit_owner(int fd, const char *path)
{
    struct stat status {};
    if (::stat(path, &status) != 0) return errno == ENOENT ? 0 : -1;
    // An ordinary user cannot change the owner, and need not: the file is already that user's.
    if (::fchown(fd, status.st_uid, status.st_gid) != 0 && errno != EPERM) return -1;
    return ::fchmod(fd, status.st_mode & 07777);
}

// Renaming is safe against a power cut only once the directory is on the disk.
void flush_directory_of(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const UniqueFd fd{::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!fd || ::fsync(fd.get()) != 0) {
        RA_WARN("%s not flushed to the disk: %s", directory.c_str(), std::strerror(errno));
    }
}

int replace_file(const std::string &path, std::string_view content)
{
    const std::string fresh = path + ".new";
    ::unlink(fresh.c_str()); // left behind by a crash
    const UniqueFd fd{
        ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, OWNER_ONLY)};
    if (fd && inherit_owner(fd.get(), path.c_str()) == 0 && write_file(fd.get(), content) == 0 &&
        ::rename(fresh.c_str(), path.c_str()) == 0) {
        flush_directory_of(path);
        return 0;
    }
    RA_ERROR("%s not written: %s", path.c_str(), std::strerror(errno));
    if (fd) ::unlink(fresh.c_str());
    return -1;
}

} // namespace

bool is_config_key(std::string_view key) noexcept
{
    constexpr std::string_view KEY_CHARACTERS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
        "0123456789_.-";
    return !key.empty() && key.size() <= CONFIG_KEY_MAX &&
           key.find_first_not_of(KEY_CHARACTERS) == std::string_view::npos;
}

bool is_config_value(std::string_view value) noexcept
{
    constexpr std::string_view FORBIDDEN{"\n\0", 2};
    return value.size() <= CONFIG_VALUE_MAX &&
           value.find_first_of(FORBIDDEN) == std::string_view::npos && is_utf8(value);
}

int parse_config_lines(CONFIG_STORE_T &store, std::string_view content)
{
    int skipped = 0;
    while (!content.empty()) {
        const std::string_view line = take_line(content);
        const bool comment = is_comment(line);
        const char *const fault = comment ? nullptr : fault_of(store, line);
        if (fault != nullptr) {
            RA_WARN("%s:%zu: line skipped: %s", store.path.c_str(), store.lines.size() + 1, fault);
            ++skipped;
        }
        if (comment || fault != nullptr) {
            store.lines.push_back({{}, std::string{line}});
        } else {
            const std::size_t separator = line.find('=');
            append_key(store, line.substr(0, separator), line.substr(separator + 1));
        }
    }
    return skipped;
}

int load_config_store(CONFIG_STORE_T &store, const std::string &path)
{
    // Renaming replaces a symbolic link, not what it points to: the true place is needed.
    char resolved[PATH_MAX];
    store = {::realpath(path.c_str(), resolved) != nullptr ? resolved : path, {}, {}};
    const UniqueFd fd{::open(store.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    if (!fd && errno == ENOENT) {
        RA_INFO("%s does not exist yet", store.path.c_str());
        return 0;
    }
    std::string content;
    if (!fd || read_file(fd.get(), content) != 0) {
        RA_ERROR("%s cannot be read: %s", store.path.c_str(), std::strerror(errno));
        return -1;
    }
    (void)parse_config_lines(store, content); // each one was reported
    return 0;
}

const std::string *find_config_value(const CONFIG_STORE_T &store, std::string_view key) noexcept
{
    const auto place = store.places.find(key);
    return place != store.places.end() ? &store.lines[place->second].text : nullptr;
}

STORE_RESULT set_config_value(CONFIG_STORE_T &store, std::string_view key, std::string_view value)
{
    if (!is_config_key(key) || !is_config_value(value)) return STORE_REFUSED;
    const std::string *const current = find_config_value(store, key);
    if (current != nullptr && *current == value) return STORE_UNCHANGED;
    const bool added = current == nullptr;
    if (added) append_key(store, key, {});
    std::string &text = store.lines[store.places.find(key)->second].text;
    const std::string before = std::exchange(text, std::string{value});
    const std::string content = content_of(store.lines);
    const bool fits = content.size() <= CONFIG_FILE_MAX;
    if (fits && replace_file(store.path, content) == 0) return STORE_CHANGED;
    text = before;
    if (added) {
        store.lines.pop_back();
        store.places.erase(store.places.find(key));
    }
    return fits ? STORE_FAILED : STORE_REFUSED;
}
