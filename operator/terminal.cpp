#include "operator/terminal.h"

#include "utility/handles.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr char TERMINAL_IS_GONE[] = "the terminal is gone";

volatile std::sig_atomic_t g_caught = 0;

// Echo is off for the life of this. A signal that would end or stop the process comes through only
// while waiting, ends that, and takes effect afterwards, so that no terminal stays silent.
class SilentTerminal {
public:
    explicit SilentTerminal(int fd) : fd_{fd}, is_terminal_{::tcgetattr(fd, &usual_) == 0}
    {
        g_caught = 0;
        sigset_t noted;
        sigemptyset(&noted);
        for (const int number : NOTED)
            sigaddset(&noted, number);
        (void)::sigprocmask(SIG_BLOCK, &noted, &usual_mask_);
        struct sigaction noting {};
        noting.sa_handler = [](int number) { g_caught = number; };
        for (std::size_t i = 0; i < NOTED.size(); ++i)
            (void)::sigaction(NOTED.at(i), &noting, &usual_actions_.at(i));
        if (!is_terminal_) return;
        termios silent = usual_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        (void)::tcsetattr(fd, TCSAFLUSH, &silent);
    }
    ~SilentTerminal()
    {
        if (is_terminal_) (void)::tcsetattr(fd_, TCSAFLUSH, &usual_);
        for (std::size_t i = 0; i < NOTED.size(); ++i)
            (void)::sigaction(NOTED.at(i), &usual_actions_.at(i), nullptr);
        if (g_caught != 0) (void)std::raise(g_caught);
        (void)::sigprocmask(SIG_SETMASK, &usual_mask_, nullptr);
    }
    SilentTerminal(const SilentTerminal &) = delete;
    SilentTerminal &operator=(const SilentTerminal &) = delete;

    // False after a signal or a fault; errno says which.
    bool waitForInput() const
    {
        pollfd input{fd_, POLLIN, 0};
        return ::ppoll(&input, 1, nullptr, &usual_mask_) == 1;
    }

private:
    static constexpr std::array<int, 5> NOTED{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    int fd_;
    termios usual_{};
    sigset_t usual_mask_{};
    std::array<struct sigaction, NOTED.size()> usual_actions_{};
    bool is_terminal_;
};

void say(int fd, const std::string &text)
{
    if (::write(fd, text.data(), text.size()) < 0) throw std::runtime_error(TERMINAL_IS_GONE);
}

// False when a signal came before the end of the line.
bool askSilently(int fd, const std::string &prompt, std::string &line)
{
    const SilentTerminal silence{fd};
    say(fd, prompt);
    for (;;) {
        char c = 0;
        const ssize_t got = silence.waitForInput() ? ::read(fd, &c, 1) : -1;
        if (got < 0 && errno != EINTR) throw std::runtime_error(TERMINAL_IS_GONE);
        if (got < 0 && g_caught != 0) return false;
        if (got == 0 || c == '\n') return true;
        if (got == 1) line += c;
    }
}

} // namespace

std::string sizeText(double bytes)
{
    static constexpr std::array<const char *, 5> UNITS{"B", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    for (; bytes >= 1024 && unit + 1 < UNITS.size(); ++unit)
        bytes /= 1024;
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", bytes,
                        UNITS.at(unit));
    return text.data();
}

std::string timeText(std::int64_t seconds)
{
    if (seconds == 0) return "-";
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    (void)std::strftime(text.data(), text.size(), "%F %T", &parts);
    return text.data();
}

std::string readPassword(const std::string &prompt, const char *option)
{
    const UniqueFd terminal{::open("/dev/tty", O_RDWR | O_CLOEXEC)};
    if (!terminal)
        throw std::runtime_error(std::string("no terminal to ask for the password on; see ") +
                                 option);
    std::string password;
    password.reserve(PASSWORD_ROOM);
    for (bool is_whole = false; !is_whole;) {
        wipe(password); // what was typed before the process was stopped
        is_whole = askSilently(terminal.get(), prompt, password);
        say(terminal.get(), "\n");
    }
    return password;
}

void wipe(std::string &text)
{
    ::explicit_bzero(text.data(), text.size());
    text.clear();
}
