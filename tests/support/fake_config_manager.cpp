#include "tests/support/fake_config_manager.h"

#include "platform/config_manager/config_manager.h"

#include <cstring>

FAKE_CONFIG_MANAGER_T fake_config_manager;

int get_config(DBusConnection *, const char *key, char **value, int timeout_ms)
{
    fake_config_manager.calls += std::string{key} + " " + std::to_string(timeout_ms) + " ";
    const auto found = fake_config_manager.values.find(key);
    *value = found != fake_config_manager.values.end() ? ::strdup(found->second.c_str()) : nullptr;
    return *value != nullptr ? CONFIG_OK : CONFIG_NOT_SET;
}

int subscribe_config(DBusConnection *, const char *module, const char *key, int flag, int ms)
{
    fake_config_manager.calls += std::string{module} + " " + key + " " + std::to_string(flag) +
                                 " " + std::to_string(ms) + " ";
    return fake_config_manager.refused_subscription == key ? CONFIG_BAD_ANSWER : CONFIG_OK;
}
