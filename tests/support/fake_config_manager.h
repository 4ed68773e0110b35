// The configuration manager of a test program.
#pragma once

#include <map>
#include <string>

struct FAKE_CONFIG_MANAGER_T {
    std::map<std::string, std::string> values; // a missing key gives result 1
    std::string refused_subscription;          // its key
    std::string calls; // each as "KEY TIMEOUT " or "MODULE KEY FLAG TIMEOUT "
};

extern FAKE_CONFIG_MANAGER_T fake_config_manager;
