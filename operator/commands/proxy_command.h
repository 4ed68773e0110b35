// The command that ssh runs to reach a device, as it stands in its configuration.
// Failure  std::runtime_error when the path of this program cannot be told.
#pragma once

#include "operator/commands/commands.h"

#include <string>

// Letters, digits, "-", "_" and ".": it means nothing else to ssh or a shell.
bool isPlain(const std::string &name);

// Of this program.
std::string toolPath();

// --server or --control with its value, as the command line has chosen it; a blank in front.
// Quoted for a shell.
std::string serverOption(const OPERATOR_OPTIONS_T &options);

// For the device and service of a "connect". Quoted for the shell that ssh gives it to, and for
// ssh's own expansion.
std::string proxyCommand(const OPERATOR_OPTIONS_T &options, const nlohmann::json &service);
