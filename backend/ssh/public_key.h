// One public key as OpenSSH writes it, "TYPE BASE64 COMMENT": an operator's, or a device's host
// key.
// What is accepted can be written into a file of keys: it is one line, it begins with a type, and
// the bytes are what the type says.
// Limits   PUBLIC_KEY_MAX bytes of text; RSA keys of 1024 to 16384 bits.
// Failure  parsePublicKey throws std::invalid_argument, in words for the one who sent it.
#pragma once

#include <string>
#include <string_view>

namespace backend {

constexpr std::size_t PUBLIC_KEY_MAX = 4096;

enum class KEY_OWNER {
    HOST,
    USER, // may have its key in a security key, too
};

struct PUBLIC_KEY_T {
    std::string type;
    std::string key;         // base64, as it came
    std::string fingerprint; // "SHA256:...", as ssh-keygen -l shows it
    bool operator==(const PUBLIC_KEY_T &) const = default;
};

// A comment is left out. Certificates and options in front of the type are refused.
PUBLIC_KEY_T parsePublicKey(std::string_view line, KEY_OWNER owner);

} // namespace backend
