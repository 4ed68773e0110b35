// The logger of a test program: keeps every line instead of writing it; those of level 3 go to
// standard error as well, where a death test looks for them. Every thread may log.
#pragma once

#include <string>

namespace fake_logger {

// The lines since the last call or the start of the test, each as "level text", joined by "|";
// those below min_level are forgotten too. Random ids are masked: see maskIds.
std::string take(int min_level = 1);
// The functions that the lines of the last take name as their own, each once, in order, joined by
// "|".
std::string owners();

} // namespace fake_logger

// Random ids differ from run to run; each run of 30 letters and digits becomes ID.
const std::string ID(30, '#');
std::string maskIds(std::string text);
