// What every module of the development gateway shares: its command line, its end, and the wait for
// the bus.
//
// Exit     0 after SIGTERM or SIGINT, 1 when the bus or something else that it needs fails or is
//          lost (a supervisor starts it again), 2 for wrong arguments.
// Threads  one for each module.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

struct pollfd;
namespace sdbus {
class IConnection;
}

constexpr int EXIT_WRONG_ARGUMENTS = 2;

enum MODULE_OPTION : bool { OPTION_MAY_BE_LEFT_OUT = false, OPTION_NEEDED = true };

// One "--name VALUE" of a command line. value gets the argument, which lives as long as the
// process.
struct MODULE_OPTION_T {
    const char *name;
    const char **value;
    MODULE_OPTION needed;
};

// Reads the command line. Returns -1 when the module is to run, else the status to end with: 0
// after --help, EXIT_WRONG_ARGUMENTS after what is not understood (usage was printed either way).
[[nodiscard]] int read_module_options(int argc, char **argv, const char *usage,
                                      std::span<const MODULE_OPTION_T> options);

// Prepares the log under the module's name and returns a descriptor that becomes readable when the
// module is to end, owned by the caller; -1 after logging why. SIGTERM and SIGINT stay blocked.
[[nodiscard]] int start_module(const char *name);

// Whether a text is a bus name of letters, digits and '_' in two or more elements, so that a path
// and an interface can be made from it (iot.gateway.x: /iot/gateway/x, iot.gateway.x).
bool is_module_name(std::string_view name) noexcept;

// Connects to the bus at this address, unless it may be another account's (utility/bus_address.h):
// the modules hand out the device's secret and take orders there. Throws what std::exception
// covers.
[[nodiscard]] std::unique_ptr<sdbus::IConnection> connect_bus(const std::string &address);

// Waits at most timeout_ms (-1: without limit) for the bus, for stop_fd and for *own, and hands
// what the bus brought to its handlers. What came in until then has all been handled when it
// returns, so a module that was held up for a while does not take its own delay for its peers'.
// own may be null; its revents are what poll() gave. False when the module is to end. A lost bus is
// an sdbus::Error.
[[nodiscard]] bool wait_for_work(sdbus::IConnection &bus, int stop_fd, int timeout_ms,
                                 pollfd *own = nullptr);
