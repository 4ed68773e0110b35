// What the tool writes for people, and the one thing that it reads from them.
#pragma once

#include "utility/terminal_text.h"

#include <cstdint>
#include <string>

// "12.3 MiB"
std::string sizeText(double bytes);
// "2026-11-23 01:02:03", UTC; "-" for none.
std::string timeText(std::int64_t seconds);
// Asks on the terminal, without echo. Throws std::runtime_error without a terminal.
std::string readPassword(const std::string &prompt);
