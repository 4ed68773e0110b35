// Resolving a host and connecting to it, against a deadline of the clock of monotonicMs.
#pragma once

#include "platform/nopoll/failure.h"
#include "utility/handles.h"

#include <cstdint>
#include <netdb.h>

namespace ws {

inline constexpr std::size_t HOST_TEXT_SIZE = 256; // a DNS name has at most 253 characters
inline constexpr std::size_t PORT_TEXT_SIZE = 6;

using AddressListPtr = std::unique_ptr<addrinfo, Releaser<freeaddrinfo>>;

// True for an IPv4 or IPv6 address, which is neither looked up nor sent as a server name.
bool isAddress(const char *host);

// The addresses of a host, or none with the reason. A name is looked up by a thread of its own,
// because the time of a name service has no bound: at the deadline the caller continues, and the
// thread ends by itself.
AddressListPtr resolveHost(const char *host, const char *port, int64_t deadline_ms,
                           FAILURE_T &failure);

// A connected, non-blocking socket with TCP_NODELAY. The addresses are tried in their order; each
// may use an equal share of the time left, so that one that drops packets does not cost the others
// their turn.
UniqueFd connectToAny(const addrinfo *addresses, int64_t deadline_ms, FAILURE_T &failure);

} // namespace ws
