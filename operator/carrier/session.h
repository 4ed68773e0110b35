// A session with a service of a device, over either carrier.
#pragma once

#include "utility/handles.h"

#include <atomic>
#include <cstdint>
#include <string>

// What the session is carried to and from.
struct SESSION_ENDS_T {
    UniqueFd in;
    UniqueFd out; // none: in is a socket for both ways
};

struct SESSION_COUNTS_T {
    std::atomic<std::uint64_t> up = 0; // from the device
    std::atomic<std::uint64_t> down = 0;
};

struct SESSION_END_T {
    std::string reason;
    bool is_whole = false; // all bytes have arrived, both ways
    double bytes_up = 0;
    double bytes_down = 0;
    int output_fault = 0;  // errno: the output could not be written, and the session was left
    bool is_final = false; // it was ended on purpose: a kept session must not go on
};

class Session {
public:
    Session() = default;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    virtual ~Session() = default;

    virtual const std::string &id() const = 0;
    // The back end has opened it to the device's keeper (docs/keeper.md).
    virtual bool isKept() const = 0;
    // From another thread: carry() is to return soon, whatever the back end does.
    virtual void abandon() = 0;
    // Carries the bytes until the session has ended. It may start threads that use the session and
    // the counts for as long as the process lives. Once.
    virtual SESSION_END_T carry(SESSION_COUNTS_T &counts) = 0;
};
