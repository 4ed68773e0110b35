// A mistyped command: which one was meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The name that is nearest to the word: one that begins with it, or one that two slips of the
// fingers lead to (a letter too many, too few, another, or two exchanged). "" when none is near.
std::string nearestName(std::string_view word, const std::vector<std::string> &names);
