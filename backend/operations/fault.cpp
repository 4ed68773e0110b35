#include "backend/operations/fault.h"

#include <array>

namespace backend {

constexpr auto KINDS = std::to_array<FAULT_KIND_T>({
    {FAULT::BAD_REQUEST, "bad-request", 400, "Bad request"},
    {FAULT::UNAUTHENTICATED, "unauthenticated", 401, "Not signed in"},
    {FAULT::DENIED, "denied", 403, "Denied"},
    {FAULT::NOT_FOUND, "not-found", 404, "Not found"},
    {FAULT::CONFLICT, "conflict", 409, "Not possible now"},
    {FAULT::NO_KEEPER, "no-keeper", 409, "The device keeps no sessions"},
    {FAULT::TOO_MANY, "too-many", 429, "Too many requests"},
    {FAULT::DEVICE_REFUSED, "device-refused", 502, "The device has refused"},
    {FAULT::DEVICE_TIMEOUT, "device-timeout", 504, "The device has not answered"},
    {FAULT::UNAVAILABLE, "unavailable", 503, "Not available"},
    {FAULT::NOT_BUILT, "not-implemented", 501, "Not configured"},
});

const FAULT_KIND_T &faultKind(FAULT fault)
{
    for (const FAULT_KIND_T &kind : KINDS)
        if (kind.fault == fault) return kind;
    return KINDS[0];
}

const FAULT_KIND_T *findFaultKind(std::string_view name)
{
    for (const FAULT_KIND_T &kind : KINDS)
        if (name == kind.name) return &kind;
    return nullptr;
}

} // namespace backend
