// What the tool writes for people, and the one thing that it reads from them.
#pragma once

#include "utility/terminal_text.h"

#include <cstdint>
#include <string>

// "12.3 MiB"
std::string sizeText(double bytes);
// "2026-11-23 01:02:03", UTC; "-" for none.
std::string timeText(std::int64_t seconds);
// A device takes no longer password. What is reserved need not grow, which would leave a copy
// behind.
constexpr std::size_t PASSWORD_ROOM = 256;
// Asks on the terminal, without echo; again after the process was stopped. Throws
// std::runtime_error without a terminal, which names the option that does without one.
std::string readPassword(const std::string &prompt, const char *option);
// Overwrites it, and leaves it empty.
void wipe(std::string &text);
