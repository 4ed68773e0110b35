// Why the system does not let this account use a socket, in words that say what to do about it.
#pragma once

#include <string>

// For a path that connect(2) has refused with EACCES: which file on the way is closed to this
// account, and which group or account may use it.
std::string whyDenied(const std::string &path);

// The name of an account, or "uid N".
std::string accountName(unsigned uid);
