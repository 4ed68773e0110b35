#include "devgateway/config_manager/config_service.h"

#include "common/log.h"
#include "devgateway/bus_library.h"
#include "devgateway/module.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace {

constexpr char SERVICE_NAME[] = "iot.gateway.config_manager"; // the interface's, too
constexpr char SERVICE_PATH[] = "/iot/gateway/config_manager";
constexpr char NOTICE_METHOD[] = "notify_config";
// A module that hangs must not make the manager keep more and more of its notices. The two
// together stay below what the bus keeps of unanswered calls (1024, for 60 s).
constexpr int UNANSWERED_MAX = 64;
constexpr std::chrono::seconds NOTICE_TIMEOUT{10};

enum ANSWER : std::int32_t {
    ANSWER_DONE = 0,
    ANSWER_NOT_THERE = 1,
    ANSWER_REFUSED = 1,
    ANSWER_FAILED = -1
};
enum SUBSCRIBE_FLAG : std::int32_t { SUBSCRIBE_END = 0, SUBSCRIBE_BEGIN = 1 };

struct CONFIG_SERVICE_T {
    CONFIG_STORE_T &store;
    CONFIG_STORE_T &subscribers; // the same as below, for the next start
    sdbus::IConnection &bus;
    std::set<std::pair<std::string, std::string>> subscriptions;   // key, module
    std::map<std::string, std::unique_ptr<sdbus::IProxy>> modules; // that were told of something
    int unanswered;                                                // notices
};

// What an earlier run left; the file can be edited by hand, and the bus takes nothing but a name.
void recall_subscriptions(CONFIG_SERVICE_T &service)
{
    for (const CONFIG_LINE_T &line : service.subscribers.lines) {
        std::string_view names = line.key.empty() ? std::string_view{} : line.text;
        while (!names.empty() && service.subscriptions.size() < SUBSCRIPTIONS_MAX) {
            const std::size_t end = std::min(names.find(' '), names.size());
            const std::string_view name = names.substr(0, end);
            if (is_module_name(name)) service.subscriptions.emplace(line.key, name);
            names.remove_prefix(std::min(end + 1, names.size()));
        }
    }
}

void keep_subscriptions(CONFIG_SERVICE_T &service, const std::string &key)
{
    std::string names;
    auto row = service.subscriptions.lower_bound({key, {}});
    for (; row != service.subscriptions.end() && row->first == key; ++row) {
        names.append(names.empty() ? "" : " ").append(row->second);
    }
    // A read-only disk was reported by the store, and takes no subscription from a module that
    // runs.
    (void)set_config_value(service.subscribers, key, names);
}

sdbus::IProxy &module_named(CONFIG_SERVICE_T &service, const std::string &name)
{
    if (service.modules.size() >= SUBSCRIPTIONS_MAX && !service.modules.contains(name)) {
        service.modules.clear(); // most have long been unsubscribed; what they answer is not heard
        service.unanswered = 0;
    }
    std::unique_ptr<sdbus::IProxy> &proxy = service.modules[name];
    if (!proxy) {
        std::string path = "/" + name;
        std::replace(path.begin(), path.end(), '.', '/');
        proxy = sdbus::createProxy(service.bus, bus_library::ServiceName{name},
                                   sdbus::ObjectPath{path});
    }
    return *proxy;
}

// The answer is not used, but modules send one whether it is wanted or not, and a strict bus
// refuses an unwanted one, which the module would log as a fault.
void notify(CONFIG_SERVICE_T &service, const std::string &name, const std::string &key,
            const std::string &value)
{
    sdbus::IProxy &module = module_named(service, name);
    auto notice = module.createMethodCall(bus_library::InterfaceName{name},
                                          bus_library::MemberName{NOTICE_METHOD});
    notice << key << value;
    if (service.unanswered >= UNANSWERED_MAX) {
        notice.dontExpectReply();
        module.callMethod(notice);
        return;
    }
    const auto answered = [&service] { --service.unanswered; };
    bus_library::call_async(module, notice, answered, NOTICE_TIMEOUT);
    ++service.unanswered;
}

void notify_subscribers(CONFIG_SERVICE_T &service, const std::string &key, const std::string &value)
{
    int told = 0;
    auto row = service.subscriptions.lower_bound({key, {}});
    for (; row != service.subscriptions.end() && row->first == key; ++row) {
        try {
            notify(service, row->second, key, value);
            ++told;
        } catch (const sdbus::Error &error) {
            // The value is stored all the same, and the caller of set gets its answer.
            RA_WARN("%s not told of %s: %s", row->second.c_str(), key.c_str(), error.what());
        }
    }
    RA_INFO("%s changed, %d told", key.c_str(), told);
}

std::tuple<std::int32_t, std::string> answer_get(const CONFIG_SERVICE_T &service,
                                                 const std::string &key)
{
    const std::string *const value = find_config_value(service.store, key);
    if (value == nullptr) return {ANSWER_NOT_THERE, {}};
    return {ANSWER_DONE, *value};
}

std::int32_t answer_set(CONFIG_SERVICE_T &service, const std::string &key, const std::string &value)
{
    switch (set_config_value(service.store, key, value)) {
    case STORE_CHANGED:
        notify_subscribers(service, key, value);
        return ANSWER_DONE;
    case STORE_UNCHANGED:
        return ANSWER_DONE;
    case STORE_FAILED:
        return ANSWER_FAILED;
    case STORE_REFUSED:
        break;
    }
    RA_WARN("set refused: %s",
            is_config_key(key) ? "the value is too long or holds a line end" : "that is not a key");
    return ANSWER_REFUSED;
}

std::int32_t answer_subscribe(CONFIG_SERVICE_T &service, const std::string &module,
                              const std::string &key, std::int32_t flag)
{
    const bool sensible = is_module_name(module) && is_config_key(key) &&
                          (flag == SUBSCRIBE_BEGIN || flag == SUBSCRIBE_END);
    const bool subscribed = service.subscriptions.contains({key, module});
    if (sensible && subscribed == (flag == SUBSCRIBE_BEGIN)) return ANSWER_DONE;
    if (!sensible || (!subscribed && service.subscriptions.size() >= SUBSCRIPTIONS_MAX)) {
        RA_WARN("subscription refused: %s",
                sensible ? "there are too many" : "bad module, key or flag");
        return ANSWER_FAILED;
    }
    if (subscribed) {
        service.subscriptions.erase({key, module});
    } else {
        service.subscriptions.emplace(key, module);
    }
    keep_subscriptions(service, key);
    RA_INFO("%s is %s told of %s", module.c_str(), subscribed ? "no longer" : "now", key.c_str());
    return ANSWER_DONE;
}

std::unique_ptr<sdbus::IObject> offer_methods(CONFIG_SERVICE_T &service)
{
    auto object = sdbus::createObject(service.bus, sdbus::ObjectPath{SERVICE_PATH});
    bus_library::offer_method(
        *object, SERVICE_NAME, "get", {"key"}, {"result", "value"},
        [&service](const std::string &key) { return answer_get(service, key); });
    bus_library::offer_method(*object, SERVICE_NAME, "set", {"key", "value"}, {"result"},
                              [&service](const std::string &key, const std::string &value) {
                                  return answer_set(service, key, value);
                              });
    bus_library::offer_method(
        *object, SERVICE_NAME, "subscribe", {"module", "key", "flag"}, {"result"},
        [&service](const std::string &module, const std::string &key, std::int32_t flag) {
            return answer_subscribe(service, module, key, flag);
        });
    bus_library::publish(*object);
    return object;
}

} // namespace

int serve_config(const std::string &bus_address, CONFIG_STORE_T &store, CONFIG_STORE_T &subscribers,
                 int stop_fd)
{
    const char *step = "reaching the bus";
    try {
        const auto bus = connect_bus(bus_address);
        CONFIG_SERVICE_T service{store, subscribers, *bus, {}, {}, 0};
        recall_subscriptions(service);
        const auto object = offer_methods(service);
        step = "taking the name";
        bus->requestName(bus_library::ServiceName{SERVICE_NAME});
        RA_INFO("%zu keys of %s offered on %s", store.places.size(), store.path.c_str(),
                bus_address.c_str());
        step = "serving the bus";
        while (wait_for_work(*bus, stop_fd, -1)) {
        }
        return 0;
    } catch (const std::exception &error) {
        RA_ERROR("%s failed: %s", step, error.what());
        return -1;
    }
}
