#include "utility/child_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct PIPE_T {
    UniqueFd reader;
    UniqueFd writer;
};

bool open_pipe(PIPE_T &made)
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    made.reader.reset(ends[0]);
    made.writer.reset(ends[1]);
    return ::fcntl(ends[0], F_SETFL, O_NONBLOCK) == 0;
}

std::vector<char *> pointers_to(const std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string &text : texts)
        pointers.push_back(const_cast<char *>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

class SpawnSettings {
public:
    SpawnSettings()
    {
        sigset_t all;
        sigset_t none;
        ::sigfillset(&all);
        ::sigemptyset(&none);
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setsigdefault(&attributes, &all);
        ::posix_spawnattr_setsigmask(&attributes, &none);
        ::posix_spawnattr_setpgroup(&attributes, 0);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK |
                                                    POSIX_SPAWN_SETPGROUP);
    }
    SpawnSettings(const SpawnSettings &) = delete;
    SpawnSettings &operator=(const SpawnSettings &) = delete;
    ~SpawnSettings()
    {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

// 0 or errno. What is to become the program's descriptors is moved above them first: one of them
// may have a number that another is to get.
int start(const CHILD_T &child, int output, int errors, pid_t &pid)
{
    constexpr int FIRST_FREE = 10;
    constexpr int INPUT = 3;
    const UniqueFd nothing{::open("/dev/null", O_RDONLY | O_CLOEXEC)};
    std::array<UniqueFd, 4> moved;
    const std::array<int, 4> wanted{nothing.get(), output, errors, child.input};
    SpawnSettings settings;
    for (std::size_t i = 0; i < wanted.size(); i++) {
        if (i == INPUT && child.input < 0) continue;
        moved[i].reset(::fcntl(wanted[i], F_DUPFD_CLOEXEC, FIRST_FREE));
        if (!moved[i]) return errno;
        ::posix_spawn_file_actions_adddup2(&settings.actions, moved[i].get(), static_cast<int>(i));
    }
#if __GLIBC_PREREQ(2, 34) // elsewhere all that is open must be so with O_CLOEXEC
    ::posix_spawn_file_actions_addclosefrom_np(&settings.actions,
                                               child.input < 0 ? INPUT : INPUT + 1);
#endif
    const std::vector<char *> arguments = pointers_to(child.command);
    const std::vector<char *> environment = pointers_to(child.environment);
    return ::posix_spawnp(&pid, arguments[0], &settings.actions, &settings.attributes,
                          arguments.data(), environment.data());
}

// False once there is no more, or more than is taken.
bool take_output(int fd, std::string &output)
{
    std::array<char, 4096> bytes;
    const ssize_t got = ::read(fd, bytes.data(), bytes.size());
    if (got < 0) return errno == EINTR || errno == EAGAIN;
    output.append(bytes.data(), static_cast<std::size_t>(got));
    return got > 0 && output.size() <= CHILD_OUTPUT_MAX;
}

// Until the program has ended or must be killed: the reason, or nothing.
const char *watch(const CHILD_T &child, int process, PIPE_T &output, PIPE_T &errors,
                  CHILD_RESULT_T &result)
{
    const auto end = steady_clock::now() + child.time;
    for (;;) {
        std::array<pollfd, 4> inputs{{{process, POLLIN, 0},
                                      {output.reader.get(), POLLIN, 0},
                                      {errors.reader.get(), POLLIN, 0},
                                      {child.cancel, POLLIN, 0}}};
        const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
        if (left.count() <= 0) return "it has taken too long";
        if (::poll(inputs.data(), inputs.size(), static_cast<int>(left.count())) <= 0) continue;
        if (inputs[3].revents != 0) return "it was cancelled";
        if (inputs[1].revents != 0 && !take_output(inputs[1].fd, result.output))
            output.reader.reset();
        if (inputs[2].revents != 0 && !take_output(inputs[2].fd, result.errors))
            errors.reader.reset();
        if (result.output.size() > CHILD_OUTPUT_MAX || result.errors.size() > CHILD_OUTPUT_MAX)
            return "it prints too much";
        // What it has printed stands in the pipes by then.
        if (inputs[0].revents != 0 && inputs[1].revents == 0 && inputs[2].revents == 0)
            return nullptr;
    }
}

} // namespace

CHILD_RESULT_T run_child(const CHILD_T &child)
{
    CHILD_RESULT_T result;
    PIPE_T output;
    PIPE_T errors;
    pid_t pid = -1;
    int fault = open_pipe(output) && open_pipe(errors) ? 0 : errno;
    if (fault == 0) fault = start(child, output.writer.get(), errors.writer.get(), pid);
    if (fault != 0) {
        result.errors = child.command[0] + " cannot be started: " + std::strerror(fault);
        return result;
    }
    output.writer.reset();
    errors.writer.reset();
    // Not by way of the C library, whose declaration of it is for C only.
    const UniqueFd process{static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))};
    const char *const reason =
        process ? watch(child, process.get(), output, errors, result) : "it cannot be watched";
    if (reason != nullptr) {
        (void)::kill(-pid, SIGKILL);
        result.errors = child.command[0] + ": " + reason;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (reason == nullptr && WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
}

PrivateFolder::PrivateFolder()
{
    std::error_code fault;
    std::string pattern = std::filesystem::temp_directory_path(fault).string();
    if (fault) pattern = "/tmp";
    pattern += "/remote-access-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error(pattern + ": " + std::strerror(errno));
    path_ = pattern;
}

PrivateFolder::~PrivateFolder()
{
    remove();
}

void PrivateFolder::remove() noexcept
{
    std::error_code fault; // nothing can be done about it
    if (!path_.empty()) std::filesystem::remove_all(path_, fault);
}
