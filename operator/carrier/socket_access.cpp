#include "operator/carrier/socket_access.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t ENTRY_ROOM = 65536; // a group may have many members

std::string groupName(gid_t gid)
{
    std::vector<char> storage(ENTRY_ROOM);
    group entry{};
    group *found = nullptr;
    if (::getgrgid_r(gid, &entry, storage.data(), storage.size(), &found) != 0 || found == nullptr)
        return "gid " + std::to_string(gid);
    return entry.gr_name;
}

// The file on the way that is closed: a folder that may not be searched, or the socket itself.
std::string closedPart(const std::string &path)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        std::string folder = path.substr(0, slash);
        if (::faccessat(AT_FDCWD, folder.c_str(), X_OK, AT_EACCESS) != 0) return folder;
    }
    return path;
}

// Whether the account's entry has the group, which this process has not got (yet).
bool isListedIn(const std::string &account, gid_t gid)
{
    std::array<gid_t, 1024> groups{};
    int count = groups.size();
    const int got = ::getgrouplist(account.c_str(), gid + 1, groups.data(), &count);
    return got >= 0 && std::find(groups.begin(), groups.begin() + got, gid) != groups.begin() + got;
}

} // namespace

std::string accountName(unsigned uid)
{
    std::array<char, 4096> storage{};
    passwd entry{};
    passwd *found = nullptr;
    if (::getpwuid_r(uid, &entry, storage.data(), storage.size(), &found) != 0 || found == nullptr)
        return "uid " + std::to_string(uid);
    return entry.pw_name;
}

std::string whyDenied(const std::string &path)
{
    const std::string part = closedPart(path);
    const std::string own = accountName(::geteuid());
    struct stat status {};
    if (::stat(part.c_str(), &status) != 0) return "permission denied";
    const mode_t bit = S_ISDIR(status.st_mode) ? S_IXGRP : S_IWGRP;
    std::string text = "permission denied: " + part + " is open to ";
    if ((status.st_mode & bit) == 0)
        return text + "the account " + accountName(status.st_uid) + " only, and this is " + own;
    const std::string group = groupName(status.st_gid);
    text += "the group " + group + " only, and " + own;
    if (isListedIn(own, status.st_gid))
        return text + " has become a member after logging in: log in again";
    return text + " is not in it: log in again after you have been added";
}
