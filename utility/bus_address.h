// Whether a bus can be trusted. A client of the private bus sends secrets to it and takes orders
// from it. Below a world-writable folder such as /tmp, another account may have made the socket's
// folders first, and then runs a bus of its own there.
//
// Threads  no state.
#pragma once

#include <string>

// Why the bus at this address is not to be trusted, as text for a person; empty when it may be
// used. The socket, each folder on the way to it and each symbolic link have to belong to root or
// to the caller's account, and other accounts must not be able to replace them. An owner that the
// caller's user namespace has no number for is outside of it, as root is, and counts as root.
//
// A path is followed from the top, each step only after the one before was found good: from then on
// no other account can change it, so the answer still holds when the connection is made. Of an
// address without a path (abstract, tcp) nothing is known; it is used as it is.
std::string bus_address_fault(const std::string &address);
