// The kernel's table of IPv4 routes.
// Source   proc(5), /proc/net/route.
#pragma once

#include <cstdint>
#include <cstdio>

// Reads a route table as the kernel prints it: true and the gateway, in network byte order in
// memory, for the first line whose destination is 00000000. No other column is looked at.
bool findDefaultRoute(std::FILE *table, std::uint32_t *gateway);
