// The back end's command line and configuration file.
// Failure  readOptions throws std::invalid_argument for what can be told without reading a file.
#pragma once

#include "backend/server.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// NOLINTNEXTLINE(readability-identifier-naming): as the library names it
namespace CLI {
class App;
}

namespace backend {

struct COMMAND_LINE_T {
    std::string listen;
    std::string cert;
    std::string key;
    std::string devices;
    std::vector<std::string> forwards;
    std::string control;
    std::string api; // empty: no interface
    std::string api_cert;
    std::string api_key;
    std::string api_client_ca;
    unsigned api_rate = 50;
    std::string audit = "-";
    std::string operators; // empty: no policy
    std::string store;
    std::string ssh_ca; // empty: no certificates
    unsigned ssh_certificate_min = 5;
    std::string backup; // target; empty: no backup is asked for
    bool is_forced = false;
    std::function<void()> task; // of an administrator's subcommand, in place of serving
    bool is_plain = false;
    double linger_s = 30;
    std::size_t session_backlog_mib = LIMITS_T{}.session_buffer >> 20;
    std::size_t all_backlogs_mib = LIMITS_T{}.all_buffers >> 20;
};

void describeCommandLine(CLI::App &app, COMMAND_LINE_T &line);

// The checks that need only the command line; files are read afterwards.
SERVER_OPTIONS_T readOptions(const COMMAND_LINE_T &line);

} // namespace backend
