// gateway_config_manager: keeps the gateway's settings and hands them out over the private bus.
#include "devgateway/config_manager/config_service.h"
#include "devgateway/module.h"
#include "utility/handles.h"

#include <cstdlib>

namespace {

constexpr char USAGE[] =
    "Usage: gateway_config_manager --bus ADDRESS --file PATH\n"
    "Keeps the gateway's settings in PATH and offers them on the bus at ADDRESS. PATH.subscribers\n"
    "lists the modules that are notified of changes.\n";

} // namespace

int main(int argc, char **argv)
{
    const char *bus = nullptr;
    const char *file = nullptr;
    const MODULE_OPTION_T options[] = {{"bus", &bus, OPTION_NEEDED},
                                       {"file", &file, OPTION_NEEDED}};
    if (const int status = read_module_options(argc, argv, USAGE, options); status >= 0) {
        return status;
    }
    const UniqueFd stop{start_module("gateway_config_manager")};
    CONFIG_STORE_T store;
    CONFIG_STORE_T subscribers;
    if (!stop || load_config_store(store, file) != 0 ||
        load_config_store(subscribers, std::string{file} + ".subscribers") != 0) {
        return EXIT_FAILURE;
    }
    return serve_config(bus, store, subscribers, stop.get()) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
