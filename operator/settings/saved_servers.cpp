#include "operator/settings/saved_servers.h"

#include "utility/handles.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using nlohmann::json;

namespace {

constexpr std::size_t FILE_MAX = std::size_t{1} << 20;
constexpr char FILE_NAME[] = "servers.json";

[[noreturn]] void fail(const std::string &path)
{
    throw std::runtime_error(path + ": " + std::strerror(errno));
}

std::string parentFolder()
{
    // A relative path is to be ignored (XDG Base Directory).
    if (const char *given = std::getenv("XDG_CONFIG_HOME"); given != nullptr && given[0] == '/')
        return given;
    const char *home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/')
        throw std::runtime_error("neither XDG_CONFIG_HOME nor HOME is set: there is no place for "
                                 "logins");
    return std::string(home) + "/.config";
}

std::string folderPath()
{
    return parentFolder() + "/remote-access";
}

std::string readWhole(int fd, const std::string &path)
{
    std::string text;
    std::array<char, 4096> bytes;
    for (;;) {
        const ssize_t got = ::read(fd, bytes.data(), bytes.size());
        if (got < 0) fail(path);
        if (got == 0) return text;
        text.append(bytes.data(), static_cast<std::size_t>(got));
        if (text.size() > FILE_MAX) throw std::runtime_error(path + ": too long");
    }
}

void checkPrivate(const std::string &path, const struct stat &status)
{
    if (status.st_uid != ::geteuid())
        throw std::runtime_error(path + ": belongs to another account; refused");
    if ((status.st_mode & 077) != 0)
        throw std::runtime_error(path +
                                 ": other accounts may read it; refused. Enter \"chmod 600 " +
                                 path + "\", and make a new token if others could log in here");
}

// None when there is no file.
std::optional<json> readFile()
{
    const std::string path = folderPath() + "/" + FILE_NAME;
    const UniqueFd fd{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (!fd && (errno == ENOENT || errno == ENOTDIR)) return std::nullopt;
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0) fail(path);
    checkPrivate(path, status);
    json document = json::parse(readWhole(fd.get(), path), nullptr, false);
    if (!document.is_object() || !document.value("servers", json::object()).is_object())
        throw std::runtime_error(path + ": not the JSON that \"login\" writes");
    return document;
}

std::string textOf(const json &object, const char *name)
{
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

void makeFolder(const std::string &path, mode_t mode)
{
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) fail(path);
}

void writeWhole(int fd, const std::string &text, const std::string &path)
{
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count < 0) fail(path);
        written += static_cast<std::size_t>(count);
    }
    if (::fsync(fd) != 0) fail(path);
}

// A name of its own, for it may be that another process was killed here.
void replaceFile(const std::string &folder, const json &document)
{
    const std::string path = folder + "/" + FILE_NAME;
    std::string temporary = path + ".XXXXXX";
    const UniqueFd fd{::mkostemp(temporary.data(), O_CLOEXEC)}; // mode 0600
    if (!fd) fail(temporary);
    try {
        writeWhole(fd.get(), document.dump(2) + "\n", temporary);
        if (::rename(temporary.c_str(), path.c_str()) != 0) fail(path);
    } catch (...) {
        (void)::unlink(temporary.c_str());
        throw;
    }
}

// Two logins at once wait for each other.
template <class Change> void changeFile(Change change)
{
    makeFolder(parentFolder(), 0700);
    const std::string folder = folderPath();
    makeFolder(folder, 0700);
    const UniqueFd lock{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!lock || ::flock(lock.get(), LOCK_EX) != 0) fail(folder);
    json document = readFile().value_or(json::object());
    if (!document.contains("servers")) document["servers"] = json::object();
    change(document);
    replaceFile(folder, document);
}

} // namespace

SAVED_SERVERS_T loadServers()
{
    SAVED_SERVERS_T saved;
    const auto document = readFile();
    if (!document) return saved;
    saved.usual = textOf(*document, "default");
    const json servers = document->value("servers", json::object());
    for (const auto &[url, entry] : servers.items())
        saved.servers[url] = {"",
                              url,
                              textOf(entry, "token"),
                              textOf(entry, "ca"),
                              textOf(entry, "certificate"),
                              textOf(entry, "key")};
    return saved;
}

void saveServer(const SERVER_T &server)
{
    changeFile([&server](json &document) {
        json entry = json::object();
        const std::array<std::pair<const char *, const std::string &>, 4> members{
            {{"token", server.token},
             {"ca", server.ca},
             {"certificate", server.certificate},
             {"key", server.key}}};
        for (const auto &[name, value] : members)
            if (!value.empty()) entry[name] = value;
        document["servers"][server.url] = std::move(entry);
        document["default"] = server.url;
    });
}

bool forgetServer(const std::string &url)
{
    bool was_there = false;
    if (!readFile()) return false;
    changeFile([&](json &document) {
        json &servers = document["servers"];
        was_there = servers.erase(url) > 0;
        if (textOf(document, "default") != url) return;
        document.erase("default");
        if (!servers.empty()) document["default"] = servers.begin().key();
    });
    return was_there;
}
