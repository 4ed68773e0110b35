#include "gateway/config_manager/config_service.h"

#include "common/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <set>
#include <tuple>
#include <utility>

namespace {

constexpr char SERVICE_NAME[] = "iot.gateway.config_manager"; // the interface's, too
constexpr char SERVICE_PATH[] = "/iot/gateway/config_manager";
constexpr char NOTICE_METHOD[] = "notify_config";
constexpr std::size_t BUS_NAME_MAX = 255;

enum ANSWER : std::int32_t {
    ANSWER_DONE = 0,
    ANSWER_NOT_THERE = 1,
    ANSWER_REFUSED = 1,
    ANSWER_FAILED = -1
};
enum SUBSCRIBE_FLAG : std::int32_t { SUBSCRIBE_END = 0, SUBSCRIBE_BEGIN = 1 };

struct CONFIG_SERVICE_T {
    CONFIG_STORE_T &store;
    sdbus::IConnection &bus;
    std::set<std::pair<std::string, std::string>> subscriptions; // key, module
};

// Whether a text is a bus name from which a path and an interface can be made.
bool is_module_name(const std::string &name)
{
    if (name.size() > BUS_NAME_MAX || name.find('.') == std::string::npos) return false;
    char before = '.';
    for (const char c : name) {
        const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
        const bool digit = c >= '0' && c <= '9';
        if (before == '.' ? !letter : !letter && !digit && c != '.') return false;
        before = c;
    }
    return before != '.';
}

void notify(sdbus::IConnection &bus, const std::string &module, const std::string &key,
            const std::string &value)
{
    std::string path = "/" + module;
    std::replace(path.begin(), path.end(), '.', '/');
    const auto peer = sdbus::createProxy(bus, module, path);
    auto notice = peer->createMethodCall(module, NOTICE_METHOD);
    notice << key << value;
    notice.dontExpectReply();
    peer->callMethod(notice);
}

void notify_subscribers(CONFIG_SERVICE_T &service, const std::string &key, const std::string &value)
{
    int told = 0;
    auto row = service.subscriptions.lower_bound({key, {}});
    for (; row != service.subscriptions.end() && row->first == key; ++row) {
        try {
            notify(service.bus, row->second, key, value);
            ++told;
        } catch (const sdbus::Error &error) {
            // The value is stored all the same, and so is the answer to whoever set it.
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
    if (sensible && flag == SUBSCRIBE_END) {
        service.subscriptions.erase({key, module});
        return ANSWER_DONE;
    }
    if (!sensible || service.subscriptions.size() >= SUBSCRIPTIONS_MAX) {
        RA_WARN("subscription refused: %s",
                sensible ? "there are too many" : "bad module, key or flag");
        return ANSWER_FAILED;
    }
    service.subscriptions.emplace(key, module);
    RA_INFO("%s is told of %s", module.c_str(), key.c_str());
    return ANSWER_DONE;
}

std::unique_ptr<sdbus::IObject> offer_methods(CONFIG_SERVICE_T &service)
{
    auto object = sdbus::createObject(service.bus, SERVICE_PATH);
    object->registerMethod("get")
        .onInterface(SERVICE_NAME)
        .withInputParamNames("key")
        .withOutputParamNames("result", "value")
        .implementedAs([&service](const std::string &key) { return answer_get(service, key); });
    object->registerMethod("set")
        .onInterface(SERVICE_NAME)
        .withInputParamNames("key", "value")
        .withOutputParamNames("result")
        .implementedAs([&service](const std::string &key, const std::string &value) {
            return answer_set(service, key, value);
        });
    object->registerMethod("subscribe")
        .onInterface(SERVICE_NAME)
        .withInputParamNames("module", "key", "flag")
        .withOutputParamNames("result")
        .implementedAs(
            [&service](const std::string &module, const std::string &key, std::int32_t flag) {
                return answer_subscribe(service, module, key, flag);
            });
    object->finishRegistration();
    return object;
}

// Handles what the bus brings until stop_fd becomes readable; a lost bus is an exception.
void serve_until_stopped(sdbus::IConnection &bus, int stop_fd)
{
    for (;;) {
        const bool more = bus.processPendingRequest();
        const auto wanted = bus.getEventLoopPollData();
        pollfd sources[] = {{wanted.fd, wanted.events, 0}, {stop_fd, POLLIN, 0}};
        if (::poll(sources, std::size(sources), more ? 0 : wanted.getPollTimeout()) < 0 &&
            errno != EINTR) {
            throw sdbus::createError(errno, "waiting failed");
        }
        if (sources[1].revents != 0) return;
    }
}

} // namespace

int serve_config(const std::string &bus_address, CONFIG_STORE_T &store, int stop_fd)
{
    const char *step = "reaching the bus";
    try {
        const auto bus = sdbus::createSessionBusConnectionWithAddress(bus_address);
        CONFIG_SERVICE_T service{store, *bus, {}};
        const auto object = offer_methods(service);
        step = "taking the name";
        bus->requestName(SERVICE_NAME);
        RA_INFO("%zu keys of %s offered on %s", store.places.size(), store.path.c_str(),
                bus_address.c_str());
        step = "serving the bus";
        serve_until_stopped(*bus, stop_fd);
        return 0;
    } catch (const std::exception &error) {
        RA_ERROR("%s failed: %s", step, error.what());
        return -1;
    }
}
