#include "utility/route_table.h"

#include <cstdlib>
#include <cstring>

constexpr std::size_t LINE_SIZE = 1024;

bool findDefaultRoute(std::FILE *table, std::uint32_t *gateway)
{
    char line[LINE_SIZE];
    while (std::fgets(line, sizeof line, table) != nullptr) {
        char destination[16] = "";
        char gateway_text[16] = "";
        // Iface, Destination, Gateway, ...
        (void)std::sscanf(line, "%*15s %15s %15s", destination, gateway_text);
        if (std::strcmp(destination, "00000000") != 0) continue;
        *gateway = static_cast<std::uint32_t>(std::strtoul(gateway_text, nullptr, 16));
        return true;
    }
    return false;
}
