#include "backend/config_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <set>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace backend {

using nlohmann::json;

constexpr std::size_t DEPTH_MAX = 16;

namespace {

struct FileCloser {
    void operator()(FILE *file) const
    {
        (void)fclose(file);
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// An object or array that is being parsed.
struct LEVEL_T {
    std::set<std::string> members;
    std::string member; // the last one
    std::size_t index = 0;
    bool is_array = false;
};

} // namespace

// Opening must not wait for somebody who writes into a FIFO.
static FilePtr openFile(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) throw std::runtime_error(path + ": " + strerror(errno));
    FilePtr file{fdopen(fd, "rb")};
    if (!file) {
        const int fault = errno;
        close(fd);
        throw std::runtime_error(path + ": " + strerror(fault));
    }
    return file;
}

std::string readConfigFile(const std::string &path, std::string_view public_words,
                           std::vector<std::string> &warnings)
{
    const FilePtr file = openFile(path);
    struct stat status = {};
    if (fstat(fileno(file.get()), &status) != 0)
        throw std::runtime_error(path + ": " + strerror(errno));
    if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + ": is no regular file");
    if (status.st_size > static_cast<off_t>(CONFIG_FILE_MAX))
        throw std::runtime_error(path + ": is larger than 16 MiB");
    if ((status.st_mode & S_IWOTH) != 0)
        throw std::runtime_error(path + ": can be written by everybody");
    if ((status.st_mode & S_IROTH) != 0)
        warnings.push_back(path + ": " + std::string(public_words));
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    text.resize(fread(text.data(), 1, text.size(), file.get()));
    if (ferror(file.get()) != 0) throw std::runtime_error(path + ": cannot be read");
    return text;
}

// As "grants[2].who": of what is being parsed.
static std::string placeOf(const std::vector<LEVEL_T> &levels)
{
    std::string place;
    for (const LEVEL_T &level : levels) {
        if (level.is_array)
            place += "[" + std::to_string(level.index) + "]";
        else
            place += (place.empty() ? "" : ".") + level.member;
    }
    return place;
}

static void enter(std::vector<LEVEL_T> &levels, bool is_array)
{
    if (levels.size() == DEPTH_MAX)
        throw std::runtime_error(placeOf(levels) + ": is nested too deep");
    levels.emplace_back();
    levels.back().is_array = is_array;
}

static void enterMember(std::vector<LEVEL_T> &levels, const std::string &name)
{
    levels.back().member = name;
    if (!levels.back().members.insert(name).second)
        throw std::runtime_error(placeOf(levels) + ": stands there twice");
}

static void follow(std::vector<LEVEL_T> &levels, json::parse_event_t event, const json &parsed)
{
    using EVENT = json::parse_event_t;
    if (event == EVENT::object_start || event == EVENT::array_start)
        return enter(levels, event == EVENT::array_start);
    if (event == EVENT::key) return enterMember(levels, parsed.get_ref<const std::string &>());
    if (event != EVENT::value) levels.pop_back();
    if (!levels.empty() && levels.back().is_array) levels.back().index++;
}

json parseConfig(std::string_view text)
{
    std::vector<LEVEL_T> levels;
    try {
        return json::parse(text, [&levels](int /*depth*/, json::parse_event_t event, json &parsed) {
            follow(levels, event, parsed);
            return true;
        });
    } catch (const json::exception &fault) { // also for a number that is too large
        // The library puts its own name and number in brackets before the words and the place.
        const std::string_view words = fault.what();
        const std::size_t start = words.find("] ");
        throw std::runtime_error(
            std::string(start == std::string_view::npos ? words : words.substr(start + 2)));
    }
}

} // namespace backend
