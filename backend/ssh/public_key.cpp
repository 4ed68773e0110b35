#include "backend/ssh/public_key.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <vector>

#include <openssl/evp.h>
#include <openssl/sha.h>

namespace backend {

constexpr std::size_t ED25519_SIZE = 32;
constexpr std::size_t EXPONENT_MAX = 8;         // bytes of an RSA key's public exponent
constexpr std::size_t MODULUS_MIN = 1024 / 8;   // bytes
constexpr std::size_t MODULUS_MAX = 16384 / 8;  // what OpenSSH takes
constexpr std::size_t APPLICATION_MAX = 256;    // of a security key: "ssh:..."
constexpr unsigned char UNCOMPRESSED_POINT = 4; // its first byte

// What stands behind the type: "r" is an RSA key, "e" an Ed25519 one, "p" a curve's name and a
// point of it, "a" the application of a security key.
struct TYPE_ROW_T {
    std::string_view name;
    std::string_view fields;
    std::string_view curve;
    std::size_t point_size;
    bool is_for_hosts;
};

constexpr auto TYPES = std::to_array<TYPE_ROW_T>({
    {"ssh-ed25519", "e", "", 0, true},
    {"ecdsa-sha2-nistp256", "p", "nistp256", 65, true},
    {"ecdsa-sha2-nistp384", "p", "nistp384", 97, true},
    {"ecdsa-sha2-nistp521", "p", "nistp521", 133, true},
    {"ssh-rsa", "r", "", 0, true},
    {"sk-ssh-ed25519@openssh.com", "ea", "", 0, false},
    {"sk-ecdsa-sha2-nistp256@openssh.com", "pa", "nistp256", 65, false},
});

static const TYPE_ROW_T &typeOf(std::string_view name, KEY_OWNER owner)
{
    for (const TYPE_ROW_T &row : TYPES)
        if (row.name == name && (row.is_for_hosts || owner == KEY_OWNER::USER)) return row;
    std::string text = "a public key begins with its type:";
    for (const TYPE_ROW_T &row : TYPES)
        if (row.is_for_hosts || owner == KEY_OWNER::USER) text.append(" ").append(row.name);
    throw std::invalid_argument(text);
}

static bool isBase64(char byte)
{
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
           (byte >= '0' && byte <= '9') || byte == '+' || byte == '/';
}

static std::string encoded(std::string_view bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                     reinterpret_cast<const unsigned char *>(bytes.data()),
                                     static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(size));
    return text;
}

// Nothing unless it is the one way to write the bytes.
static std::optional<std::string> decoded(std::string_view text)
{
    const std::size_t end = std::min(text.find('='), text.size());
    const std::size_t padding = text.size() - end;
    if (text.empty() || text.size() % 4 != 0 || padding > 2 ||
        !std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), isBase64))
        return std::nullopt;
    std::string bytes(text.size() / 4 * 3, '\0');
    if (EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                        reinterpret_cast<const unsigned char *>(text.data()),
                        static_cast<int>(text.size())) < 0)
        return std::nullopt;
    bytes.resize(bytes.size() - padding);
    if (encoded(bytes) != text) return std::nullopt;
    return bytes;
}

// The next field of the key: its size in four bytes, and as many bytes.
static std::optional<std::string_view> takeField(std::string_view &rest)
{
    if (rest.size() < 4) return std::nullopt;
    std::size_t size = 0;
    for (std::size_t i = 0; i < 4; i++)
        size = size << 8 | static_cast<unsigned char>(rest[i]);
    if (size > rest.size() - 4) return std::nullopt;
    const std::string_view field = rest.substr(4, size);
    rest.remove_prefix(4 + size);
    return field;
}

// A positive number without needless zeros.
static bool isNumber(std::string_view field, std::size_t least, std::size_t most)
{
    const auto is_negative = [](std::string_view number) {
        return (static_cast<unsigned char>(number.front()) & 0x80U) != 0;
    };
    if (field.empty() || is_negative(field)) return false;
    if (field.front() == '\0') {
        const std::string_view rest = field.substr(1); // a zero says that it is not negative
        return !rest.empty() && is_negative(rest) && rest.size() >= least && rest.size() <= most;
    }
    return field.size() >= least && field.size() <= most;
}

static bool takeNumber(std::string_view &rest, std::size_t least, std::size_t most)
{
    const auto field = takeField(rest);
    return field && isNumber(*field, least, most);
}

static bool takePoint(std::string_view &rest, const TYPE_ROW_T &type)
{
    const auto curve = takeField(rest);
    const auto point = takeField(rest);
    return curve == type.curve && point && point->size() == type.point_size &&
           static_cast<unsigned char>(point->front()) == UNCOMPRESSED_POINT;
}

static bool takePart(std::string_view &rest, const TYPE_ROW_T &type, char part)
{
    if (part == 'r')
        return takeNumber(rest, 1, EXPONENT_MAX) && takeNumber(rest, MODULUS_MIN, MODULUS_MAX);
    if (part == 'p') return takePoint(rest, type);
    const auto field = takeField(rest);
    if (part == 'e') return field && field->size() == ED25519_SIZE;
    return field && !field->empty() && field->size() <= APPLICATION_MAX;
}

static bool isKeyOf(std::string_view bytes, const TYPE_ROW_T &type)
{
    if (takeField(bytes) != type.name) return false;
    for (const char part : type.fields)
        if (!takePart(bytes, type, part)) return false;
    return bytes.empty();
}

static std::string fingerprintOf(std::string_view bytes)
{
    std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
    SHA256(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), hash.data());
    std::string text = encoded({reinterpret_cast<const char *>(hash.data()), hash.size()});
    text.resize(text.find('='));
    return "SHA256:" + text;
}

PUBLIC_KEY_T parsePublicKey(std::string_view line, KEY_OWNER owner)
{
    if (line.size() > PUBLIC_KEY_MAX)
        throw std::invalid_argument("a public key has at most " + std::to_string(PUBLIC_KEY_MAX) +
                                    " bytes");
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (std::any_of(line.begin(), line.end(), [](char byte) {
            return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f';
        }))
        throw std::invalid_argument("a public key is one line of text");
    const std::size_t space = std::min(line.find(' '), line.size());
    const TYPE_ROW_T &type = typeOf(line.substr(0, space), owner);
    line.remove_prefix(std::min(space + 1, line.size()));
    const std::string_view key = line.substr(0, line.find(' '));
    const auto bytes = decoded(key);
    if (!bytes || !isKeyOf(*bytes, type))
        throw std::invalid_argument("behind " + std::string(type.name) + " is no key of that type");
    return {std::string(type.name), std::string(key), fingerprintOf(*bytes)};
}

} // namespace backend
