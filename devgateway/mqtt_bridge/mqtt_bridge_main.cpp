// gateway_mqtt_bridge: carries messages between the gateway's private bus and an MQTT broker.
#include "common/log.h"
#include "devgateway/module.h"
#include "devgateway/mqtt_bridge/bridge_service.h"
#include "utility/handles.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mosquitto.h>

namespace {

constexpr char USAGE[] =
    "Usage: gateway_mqtt_bridge --bus ADDRESS --host HOST --port PORT [--client-id ID]\n"
    "Connects the bus at ADDRESS with the MQTT broker at HOST, which is resolved once. Without an\n"
    "ID every connection gets a random client identifier.\n";
constexpr int PORT_MAX = 65535;

// 0 for anything but a port.
int parse_port(std::string_view text)
{
    int port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole && port > 0 && port <= PORT_MAX ? port : 0;
}

int run(const char *bus, BROKER_LINK_T &link, const char *host, int port)
{
    const UniqueFd stop{start_module("gateway_mqtt_bridge")};
    if (!stop || find_broker(link, host, port) != 0) return EXIT_FAILURE;
    return serve_bridge(bus, link, stop.get()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv)
{
    const char *bus = nullptr;
    const char *host = nullptr;
    const char *port_text = nullptr;
    const char *client_id = nullptr;
    const MODULE_OPTION_T options[] = {{"bus", &bus, OPTION_NEEDED},
                                       {"host", &host, OPTION_NEEDED},
                                       {"port", &port_text, OPTION_NEEDED},
                                       {"client-id", &client_id, OPTION_MAY_BE_LEFT_OUT}};
    if (const int status = read_module_options(argc, argv, USAGE, options); status >= 0) {
        return status;
    }
    const int port = parse_port(port_text);
    if (port == 0) {
        (void)std::fprintf(stderr, "gateway_mqtt_bridge: '%s' is no port\n%s", port_text, USAGE);
        return EXIT_WRONG_ARGUMENTS;
    }
    if (mosquitto_lib_init() != MOSQ_ERR_SUCCESS) return EXIT_FAILURE;
    int status = EXIT_FAILURE;
    {
        BROKER_LINK_T link;
        if (client_id != nullptr) link.client_id = client_id;
        status = run(bus, link, host, port);
    }
    mosquitto_lib_cleanup(); // the link is gone by now
    return status;
}
