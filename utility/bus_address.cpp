#include "utility/bus_address.h"

#include "utility/bus_handles.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sys/stat.h>

namespace {

constexpr int LINKS_MAX = 40; // as the kernel has it
constexpr uid_t ROOT = 0;
constexpr uid_t UNMAPPED = 65534; // who has no number in this user namespace, to stat

using AddressEntriesPtr = std::unique_ptr<DBusAddressEntry *, Releaser<dbus_address_entries_free>>;

// Whether a real account has this number here (user_namespaces(7)).
bool is_mapped(uid_t uid)
{
    std::ifstream map("/proc/self/uid_map");
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    std::uint64_t count = 0;
    bool read = false;
    for (; map >> inside >> outside >> count; read = true) {
        if (uid >= inside && uid - inside < count) return true;
    }
    return !read; // not known: no exception
}

bool is_trusted(uid_t owner)
{
    return owner == ROOT || owner == ::geteuid() || (owner == UNMAPPED && !is_mapped(owner));
}

// In a sticky folder only the owner of an entry can replace it.
bool may_others_replace_entries(const struct stat &folder)
{
    return (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (folder.st_mode & S_ISVTX) == 0;
}

std::string fault_of(const std::string &path, const struct stat &status)
{
    if (!is_trusted(status.st_uid))
        return path + " belongs to uid " + std::to_string(status.st_uid) +
               ", who is neither root nor this account";
    if (S_ISDIR(status.st_mode) && may_others_replace_entries(status))
        return path + " can be changed by other accounts than its owner, uid " +
               std::to_string(status.st_uid);
    return {};
}

std::string target_of(const std::string &link)
{
    char target[PATH_MAX];
    const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
    return length > 0 ? std::string{target, static_cast<std::size_t>(length)} : std::string{};
}

std::string take_name(std::string &rest)
{
    rest.erase(0, std::min(rest.find_first_not_of('/'), rest.size()));
    std::string name = rest.substr(0, rest.find('/'));
    rest.erase(0, name.size());
    return name;
}

std::string path_fault(std::string rest)
{
    if (rest.front() != '/') return rest + " is not an absolute path";
    std::string place; // found good so far, without links; empty is the root
    int links = 0;
    for (std::string name = "."; !name.empty(); name = take_name(rest)) {
        if (name == "..") {
            place.erase(std::min(place.rfind('/'), place.size()));
            continue;
        }
        const std::string path = name == "." ? place + "/" : place + "/" + name;
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) return path + ": " + std::strerror(errno);
        if (std::string fault = fault_of(path, status); !fault.empty()) return fault;
        if (S_ISLNK(status.st_mode)) {
            const std::string target = target_of(path);
            if (target.empty() || ++links > LINKS_MAX) return path + ": " + std::strerror(ELOOP);
            if (target.front() == '/') place.clear();
            rest.insert(0, target + "/");
        } else if (name != ".") {
            place = path;
        }
    }
    return {};
}

} // namespace

std::string bus_address_fault(const std::string &address)
{
    DBusAddressEntry **entries = nullptr;
    int count = 0;
    BusError error;
    if (dbus_parse_address(address.c_str(), &entries, &count, error) == 0) return error.message();
    const AddressEntriesPtr owner{entries};
    for (int i = 0; i < count; ++i) {
        const char *const path = dbus_address_entry_get_value(entries[i], "path");
        if (path == nullptr || *path == '\0') continue;
        if (std::string fault = path_fault(path); !fault.empty()) return fault;
    }
    return {};
}
