// line_emulator: a line between two network namespaces, as bad as it is told to be.
// It makes a tun device in each, and carries what is sent into one to the other. Kernels without
// netem have no such line of their own.
#include "tests/line/line.h"
#include "utility/handles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <system_error>

namespace {

constexpr char USAGE[] =
    R"(Usage: line_emulator DEVICE NAMESPACE DEVICE SEED
A line from the tun device of the first name, made in this network namespace, to that of the second,
made in the namespace of that file; "up" goes from the first to the second. Ends with its input,
whose lines are commands, each answered by a line, "ok" or "error: ..." at its start:

  up|down|both KEY NUMBER...   rate bit/s (0: no limit), delay ms, jitter ms, loss %, reorder %,
                               queue ms (300), queue_bytes (0: by queue)
  cut, restore                 silence, from now on and no longer
  count                        what has become of the packets
)";

constexpr Nanoseconds NS_PER_SECOND = 1000000000;
constexpr std::size_t LONGEST_PACKET = 65535, LONGEST_COMMAND = 4096;
constexpr int BATCH = 64; // packets of one direction before the other one's turn

[[noreturn]] void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

Nanoseconds currentTime()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

UniqueFd makeDevice(const char *name)
{
    UniqueFd device{::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC)};
    if (!device) fail("/dev/net/tun");
    ifreq request{};
    if (std::strlen(name) >= sizeof request.ifr_name) throw std::invalid_argument("long name");
    std::memcpy(request.ifr_name, name, std::strlen(name));
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (::ioctl(device.get(), TUNSETIFF, &request) != 0) fail(name);
    return device;
}

void enterNamespace(const char *path)
{
    const UniqueFd space{::open(path, O_RDONLY | O_CLOEXEC)};
    if (!space || ::setns(space.get(), CLONE_NEWNET) != 0) fail(path);
}

struct KEY_T {
    std::string_view name;
    double LINE_SETTINGS_T::*field;
    double most;
};

constexpr auto KEYS = std::to_array<KEY_T>({
    {"rate", &LINE_SETTINGS_T::rate, 10e9},
    {"delay", &LINE_SETTINGS_T::delay, 60000},
    {"jitter", &LINE_SETTINGS_T::jitter, 60000},
    {"loss", &LINE_SETTINGS_T::loss, 100},
    {"reorder", &LINE_SETTINGS_T::reorder, 100},
    {"queue", &LINE_SETTINGS_T::queue, 60000},
    {"queue_bytes", &LINE_SETTINGS_T::queue_bytes, 1e9},
});

// What comes into one device and goes to the other one.
struct DIRECTION_T {
    const char *name;
    Line line;
    int from, to; // borrowed
};

class Emulator {
public:
    Emulator(int first, int second, std::uint64_t seed)
        : directions_{{{"up", Line{seed * 2}, first, second},
                       {"down", Line{seed * 2 + 1}, second, first}}},
          epoll_{::epoll_create1(EPOLL_CLOEXEC)}, timer_{::timerfd_create(
                                                      CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)}
    {
        if (!epoll_ || !timer_) fail("epoll");
        for (const int fd : {first, second, timer_.get(), STDIN_FILENO}) {
            epoll_event event{EPOLLIN, {.fd = fd}};
            if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
        }
    }

    // Until the input ends.
    void run()
    {
        for (bool goes_on = true; goes_on;) {
            setTimer();
            std::array<epoll_event, 4> events{};
            const int count = ::epoll_wait(epoll_.get(), events.data(), events.size(), -1);
            for (int i = 0; i < count; ++i)
                goes_on = handle(events.at(static_cast<std::size_t>(i)).data.fd) && goes_on;
            for (DIRECTION_T &direction : directions_)
                deliver(direction);
        }
    }

private:
    bool handle(int fd)
    {
        for (DIRECTION_T &direction : directions_)
            if (direction.from == fd) take(direction);
        if (fd == timer_.get()) {
            std::uint64_t expirations = 0;
            (void)!::read(fd, &expirations, sizeof expirations); // it only has to wake us
        }
        return fd != STDIN_FILENO || readCommands();
    }

    void take(DIRECTION_T &direction)
    {
        for (int i = 0; i < BATCH; ++i) {
            const ssize_t size = ::read(direction.from, buffer_.data(), buffer_.size());
            if (size <= 0) return;
            direction.line.take({buffer_.begin(), buffer_.begin() + size}, currentTime());
        }
    }

    static void deliver(DIRECTION_T &direction)
    {
        // One that the device refuses is lost, as on any line whose end is down.
        for (Packet packet; direction.line.deliver(currentTime(), packet);)
            (void)!::write(direction.to, packet.data(), packet.size());
    }

    void setTimer() const
    {
        Nanoseconds next = NEVER;
        for (const DIRECTION_T &direction : directions_)
            next = std::min(next, direction.line.nextEvent());
        itimerspec at{};
        if (next != NEVER) { // 0 would stop the timer
            at.it_value.tv_sec = next / NS_PER_SECOND;
            at.it_value.tv_nsec = next % NS_PER_SECOND + (next == 0 ? 1 : 0);
        }
        (void)::timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &at, nullptr);
    }

    bool readCommands()
    {
        std::array<char, LONGEST_COMMAND> text{};
        const ssize_t size = ::read(STDIN_FILENO, text.data(), text.size());
        if (size <= 0) return false;
        unread_.append(text.data(), static_cast<std::size_t>(size));
        for (std::size_t end = 0; (end = unread_.find('\n')) != std::string::npos;) {
            try {
                std::printf("ok%s\n", obey(unread_.substr(0, end)).c_str());
            } catch (const std::exception &fault) {
                std::printf("error: %s\n", fault.what());
            }
            unread_.erase(0, end + 1);
        }
        (void)std::fflush(stdout);
        return unread_.size() < LONGEST_COMMAND;
    }

    // What the answer is to have behind "ok".
    std::string obey(const std::string &command)
    {
        std::istringstream words{command};
        std::string verb;
        words >> verb;
        if (verb == "count") return describeCounts();
        bool found = false;
        for (DIRECTION_T &direction : directions_) {
            if (verb == "cut")
                direction.line.cut();
            else if (verb == "restore")
                direction.line.restore();
            else if (verb == direction.name || verb == "both")
                set(direction.line, words.str().substr(verb.size()));
            else
                continue;
            found = true;
        }
        if (!found) throw std::invalid_argument("unknown command " + verb);
        return {};
    }

    // All or nothing.
    static void set(Line &line, const std::string &text)
    {
        LINE_SETTINGS_T settings = line.settings;
        std::istringstream words{text};
        for (std::string name; words >> name;) {
            const auto *const key =
                std::find_if(KEYS.begin(), KEYS.end(),
                             [&name](const KEY_T &known) { return known.name == name; });
            double value = 0;
            if (key == KEYS.end() || !(words >> value) || !(value >= 0 && value <= key->most))
                throw std::invalid_argument(name + " with a number that it can have is wanted");
            settings.*key->field = value;
        }
        line.settings = settings;
    }

    std::string describeCounts() const
    {
        std::ostringstream text;
        for (const DIRECTION_T &direction : directions_) {
            const LINE_COUNTS_T &counts = direction.line.counts();
            text << ' ' << direction.name << " taken " << counts.taken << " delivered "
                 << counts.delivered << " lost " << counts.lost << " overflowed "
                 << counts.overflowed << " cut " << counts.cut << " reordered " << counts.reordered;
        }
        return text.str();
    }

    std::array<DIRECTION_T, 2> directions_;
    UniqueFd epoll_, timer_;
    std::array<std::uint8_t, LONGEST_PACKET> buffer_{};
    std::string unread_;
};

// It sleeps nearly always, but what it wakes for is due at once. Without the right to it the line
// is a little less exact.
void preferThisProcess()
{
    const sched_param first{1};
    (void)::sched_setscheduler(0, SCHED_FIFO, &first);
}

int serve(const char *first_name, const char *space, const char *second_name, const char *seed)
{
    const UniqueFd first = makeDevice(first_name);
    enterNamespace(space);
    const UniqueFd second = makeDevice(second_name);
    preferThisProcess();
    Emulator emulator{first.get(), second.get(), std::stoull(seed)};
    std::printf("ok\n");
    (void)std::fflush(stdout);
    emulator.run();
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::span words{argv, static_cast<std::size_t>(argc)};
    if (words.size() != 5) {
        (void)std::fputs(USAGE, stderr);
        return 2;
    }
    try {
        return serve(words[1], words[2], words[3], words[4]);
    } catch (const std::exception &fault) {
        (void)std::fprintf(stderr, "line_emulator: %s\n", fault.what());
        return 1;
    }
}
