#include "src/default_route.h"

#include "common/log.h"
#include "utility/handles.h"
#include "utility/text.h"

#include <arpa/inet.h>

namespace {

constexpr char ROUTE_TABLE[] = "/proc/net/route";
constexpr char FALLBACK_ADDRESS[] = "172.17.0.1"; // a container's host on the usual bridge

} // namespace

int getDefaultGatewayAddr(char (&out)[HOST_ADDRESS_SIZE])
{
    const std::unique_ptr<std::FILE, Releaser<std::fclose>> table{std::fopen(ROUTE_TABLE, "re")};
    if (!table) return 0;
    in_addr address{};
    if (!findDefaultRoute(table.get(), &address.s_addr)) {
        copy_text(out, FALLBACK_ADDRESS);
        RA_WARN("host machine addr get failed,using default ip:%s", out);
        return -1;
    }
    char dotted[INET_ADDRSTRLEN] = "";
    (void)::inet_ntop(AF_INET, &address, dotted, sizeof dotted);
    copy_text(out, dotted);
    RA_INFO("host machine addr: %s", out);
    return 0;
}
