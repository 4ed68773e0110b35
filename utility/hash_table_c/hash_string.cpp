#include "utility/hash_table_c/hash_string.h"

#undef NDEBUG // the check is part of the contract in every build type
#include <cassert>

std::uint32_t hash_string(const void *string)
{
    assert(string);
    std::uint32_t hash = 5381;
    // Unsigned bytes: whether a plain char has a sign differs between the gateways' processors.
    for (const auto *byte = static_cast<const unsigned char *>(string); *byte != 0; ++byte) {
        hash = hash * 33 + *byte;
    }
    return hash;
}
