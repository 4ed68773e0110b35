// Every signature counts once: the ledger of those that were used. A signature is determined by
// the device and the second that it signed, so these are the key. A device signs whole seconds and
// may lose its connection at once: the same signature is taken again for REUSE_MS after its first
// use, from the same address only.
// Owner    the directory. Entries go once the handshake's check would refuse their second anyway.
// Threads  the io thread.
// Limits   2 * (CLOCK_TOLERANCE_S + 1) entries of about 40 bytes for each device: only a device
//          with its secret can make one, and no second is accepted further from the clock.
// Failure  a use that cannot be recorded is not accepted.
#pragma once

#include "backend/device_key.h"
#include "backend/store/store.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace backend {

constexpr std::int64_t SIGNATURE_REUSE_MS = 2000;

enum class SIGNATURE_USE {
    ACCEPTED,
    REPLAYED,   // was used before
    UNRECORDED, // the store could not be written
};

struct USED_SIGNATURE_T {
    std::int64_t signed_second;
    std::int64_t first_used_ms; // since the epoch, as every time here
    std::string address;        // without the port
};

struct USED_SIGNATURES_T {
    STORE_T *store = nullptr; // borrowed; null: a restart forgets them
    std::map<DEVICE_KEY_T, std::vector<USED_SIGNATURE_T>> used;
    std::int64_t swept_ms = 0;
};

// What is still within the clock's tolerance. Throws std::runtime_error.
USED_SIGNATURES_T loadUsedSignatures(STORE_T *store, std::int64_t now_ms);

// In memory alone: tells whether the signature may be used, and marks it as used.
// False: it was used before.
bool markSignature(USED_SIGNATURES_T &ledger, const DEVICE_KEY_T &device,
                   std::int64_t signed_second, const std::string &address, std::int64_t now_ms);

// markSignature, and answers ACCEPTED only once that is on the disk. Without a store, and for a
// replay, it answers within the call; else on the io thread later. A signature that could not be
// recorded stays marked: the device signs another second when it comes again.
using SignatureCallback = std::function<void(SIGNATURE_USE)>;
void claimSignature(USED_SIGNATURES_T &ledger, const DEVICE_KEY_T &device,
                    std::int64_t signed_second, const std::string &address, std::int64_t now_ms,
                    SignatureCallback answered);

} // namespace backend
