// Checks of the machine: clock, account database, lock file.
#include "ctl/doctor.h"
#include "src/singleton.h"
#include "utility/handles.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <sys/timex.h>
#include <unistd.h>

namespace {

constexpr char SHADOW_FILE[] = "/etc/shadow";
constexpr std::time_t EARLIEST_TIME = 1767225600; // 2026-01-01: older than this program is no time

// Whether the process that the bus names is the daemon for this process too: a bus beside a
// container counts processes in another way.
bool isDaemonHere(long pid)
{
    char path[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    return length > 0 && std::string_view{path, static_cast<std::size_t>(length)}.find(
                             "/remote_access_daemon") != std::string_view::npos;
}

struct ACCOUNT_T {
    unsigned uid = 0;
    std::vector<unsigned> groups;
};

// The effective account of a process (proc(5), status).
std::optional<ACCOUNT_T> accountOf(long pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    ACCOUNT_T account;
    bool found = false;
    for (std::string line; std::getline(status, line);) {
        std::istringstream fields(line);
        std::string key;
        unsigned real = 0;
        unsigned effective = 0;
        fields >> key;
        if (key == "Uid:" && fields >> real >> effective) {
            account.uid = effective;
            found = true;
        } else if (key == "Gid:" && fields >> real >> effective) {
            account.groups.push_back(effective);
        } else if (key == "Groups:") {
            for (unsigned group = 0; fields >> group;)
                account.groups.push_back(group);
        }
    }
    return found ? std::optional<ACCOUNT_T>{account} : std::nullopt;
}

bool mayRead(const ACCOUNT_T &account, const struct stat &file)
{
    if (account.uid == 0) return true;
    if (account.uid == file.st_uid) return (file.st_mode & S_IRUSR) != 0;
    const auto &groups = account.groups;
    if (std::find(groups.begin(), groups.end(), file.st_gid) != groups.end())
        return (file.st_mode & S_IRGRP) != 0;
    return (file.st_mode & S_IROTH) != 0;
}

UniqueFd openLockFile()
{
    return UniqueFd{::open(PID_FILE, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
}

// The process that holds the lock of an open file; 0 for one that has no number here.
std::optional<long> holderOf(int fd)
{
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
    return lock.l_pid;
}

} // namespace

bool isLockHeld()
{
    return holderOf(openLockFile().get()).has_value();
}

void checkClock(EXAMINATION_T &exam)
{
    const std::time_t now = std::time(nullptr);
    char text[40];
    std::tm broken{};
    ::gmtime_r(&now, &broken);
    (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &broken);
    if (now < EARLIEST_TIME)
        return addFinding(
            exam, VERDICT::FAIL, "clock", text,
            "set the clock: certificates and handshakes are refused with a wrong one");
    timex kernel{};
    if (::adjtimex(&kernel) == TIME_ERROR)
        return addFinding(exam, VERDICT::WARN, "clock", std::string(text) + ", not synchronised",
                          "run a time client; the back end refuses handshakes that are far off");
    addFinding(exam, VERDICT::OK, "clock", text);
}

void checkShadow(EXAMINATION_T &exam)
{
    if (!exam.daemon || !isDaemonHere(*exam.daemon)) return;
    const auto account = accountOf(*exam.daemon);
    struct stat file {};
    if (!account) return; // it has just ended
    if (::stat(SHADOW_FILE, &file) != 0)
        return addFinding(exam, VERDICT::WARN, "accounts",
                          std::string(SHADOW_FILE) + ": " + std::strerror(errno),
                          "account checks fail without it");
    if (!mayRead(*account, file))
        return addFinding(exam, VERDICT::WARN, "accounts",
                          "the daemon (uid " + std::to_string(account->uid) + ") cannot read " +
                              SHADOW_FILE,
                          "add its account to the group shadow; every account check is refused");
    addFinding(exam, VERDICT::OK, "accounts", "the daemon can read " + std::string(SHADOW_FILE));
}

void checkLockFile(EXAMINATION_T &exam)
{
    const char *const advice = "stop the daemon, delete the file and start the daemon";
    const UniqueFd file = openLockFile();
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        return addFinding(exam, exam.daemon ? VERDICT::FAIL : VERDICT::WARN, "lock",
                          std::string(PID_FILE) + ": " + std::strerror(errno),
                          exam.daemon ? "restart the daemon"
                                      : "the daemon makes it when it starts");
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1)
        return addFinding(exam, VERDICT::FAIL, "lock", std::string(PID_FILE) + " is no plain file",
                          advice);
    const auto holder = holderOf(file.get());
    if (!holder)
        return addFinding(exam, exam.daemon ? VERDICT::FAIL : VERDICT::OK, "lock",
                          std::string(PID_FILE) + " is free",
                          exam.daemon ? "the file was replaced: restart the daemon" : "");
    if (exam.daemon && isDaemonHere(*exam.daemon) && *holder != *exam.daemon)
        return addFinding(exam, VERDICT::FAIL, "lock",
                          std::string(PID_FILE) + " is held by process " + std::to_string(*holder),
                          "end that process");
    addFinding(exam, VERDICT::OK, "lock", std::string(PID_FILE) + " is held");
}
