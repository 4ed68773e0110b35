// Why a request fails, in a few kinds that programs can tell apart; the words are for people.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace backend {

enum class FAULT {
    BAD_REQUEST,
    UNAUTHENTICATED,
    DENIED,
    NOT_FOUND, // or must not be known
    CONFLICT,  // not in this state: the device is away
    NO_KEEPER, // it keeps no sessions; a plain one can be had
    TOO_MANY,
    DEVICE_REFUSED,
    DEVICE_TIMEOUT,
    UNAVAILABLE, // what must be recorded cannot be
    NOT_BUILT,   // this back end has nothing to do it with
};

struct FAULT_KIND_T {
    FAULT fault;
    const char *name;  // "kind" of an answer
    unsigned status;   // of HTTP (RFC 9110)
    const char *title; // of a problem (RFC 9457)
};
const FAULT_KIND_T &faultKind(FAULT fault);
const FAULT_KIND_T *findFaultKind(std::string_view name); // null: there is none

struct OperationFault : std::runtime_error {
    OperationFault(FAULT of, const std::string &text, std::string for_audit = {})
        : std::runtime_error(text), fault(of), recorded(std::move(for_audit))
    {
    }
    FAULT fault;
    std::string recorded; // what the one who asked must not learn; empty: the text says it all
};

} // namespace backend
