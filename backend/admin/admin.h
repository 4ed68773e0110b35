// The administrator's commands beside serving: making an installation, and what happens to devices
// and tokens. They edit the files of a back end that may be running, and tell it.
// Failure  a task throws std::runtime_error; what can be told from the command line alone is
//          std::invalid_argument. Nothing is changed then.
#pragma once

#include <functional>
#include <string>

// NOLINTNEXTLINE(readability-identifier-naming): as the library names it
namespace CLI {
class App;
}

namespace backend {

// What the server's own options say, on the command line or in the file of --config.
struct INSTALLATION_T {
    std::string devices;
    std::string operators;
    std::string control;
    std::string listen; // ADDRESS:PORT
    std::string cert;
    bool is_plain = false;
};

// Adds the subcommands. One that is chosen sets the task, which asks for the installation.
void describeAdmin(CLI::App &app, const std::function<INSTALLATION_T()> &installation,
                   std::function<void()> &task);

} // namespace backend
