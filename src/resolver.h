// The system resolver of the calling thread, kept current and within a bound.
#pragma once

// Reads /etc/resolv.conf again and bounds a look-up that no server answers to a few seconds
// (resolver(3)): the caller feeds a watchdog that waits 20 s. Returns the result of res_init; errno
// is its own then.
int refreshResolver() noexcept;
