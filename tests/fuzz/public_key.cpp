// A line that is to become a public key in a file: whatever is accepted is one line without
// options, whose bytes are the type's, and reads as the same again.
// Under test: backend/ssh/public_key.cpp
#include "backend/ssh/public_key.h"
#include "tests/fuzz/fuzz.h"

#include <optional>
#include <stdexcept>

using namespace backend;

namespace {

std::optional<PUBLIC_KEY_T> tryKey(std::string_view line, KEY_OWNER owner)
{
    try {
        return parsePublicKey(line, owner);
    } catch (const std::invalid_argument &fault) {
        REQUIRE(*fault.what() != '\0');
        return std::nullopt;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view line = viewOf(data, size);
    const auto host = tryKey(line, KEY_OWNER::HOST);
    const auto key = tryKey(line, KEY_OWNER::USER);
    REQUIRE(!host || host == key);
    if (!key) return 0;
    const std::string text = key->type + " " + key->key;
    REQUIRE(line.substr(0, text.size()) == text && line.size() <= PUBLIC_KEY_MAX);
    REQUIRE(text.find_first_of("\r\n\t\"',") == std::string::npos);
    REQUIRE(key->type.find("cert") == std::string::npos);
    REQUIRE(key->fingerprint.starts_with("SHA256:") && key->fingerprint.size() == 7 + 43);
    REQUIRE(tryKey(text, KEY_OWNER::USER) == key);
    return 0;
}
