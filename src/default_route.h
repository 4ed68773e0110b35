// The address of the machine that hosts the gateway: the gateway's default route.
#pragma once

#include "utility/route_table.h"

#include <cstddef>

constexpr std::size_t HOST_ADDRESS_SIZE = 24;

// Fills out with the dotted address of the first default route of /proc/net/route, or with
// 172.17.0.1 when there is none. 0 when a route was found, and also when the table could not be
// opened (out is unchanged then); -1 when the fallback was used.
int getDefaultGatewayAddr(char (&out)[HOST_ADDRESS_SIZE]);
