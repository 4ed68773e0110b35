#include "platform/nopoll/cipher_order.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <string>
#include <vector>

namespace ws {
namespace {

// Which bit of OpenSSL's capability word means AES: OPENSSL_ia32cap(3), and arm_arch.h.
struct CAPABILITY_T {
    std::string_view name;
    unsigned bit;
};
constexpr CAPABILITY_T CAPABILITIES[] = {{"OPENSSL_ia32cap=", 57}, {"OPENSSL_armcap=", 2}};

bool isPreferred(const SSL_CIPHER *cipher, int wanted_nid)
{
    const int exchange = SSL_CIPHER_get_kx_nid(cipher);
    return SSL_CIPHER_get_cipher_nid(cipher) == wanted_nid &&
           (exchange == NID_kx_any || exchange == NID_kx_ecdhe);
}

void appendName(std::string &list, const SSL_CIPHER *cipher)
{
    if (!list.empty()) list += ':';
    list += SSL_CIPHER_get_name(cipher);
}

void moveToFront(SSL_CTX *context, int wanted)
{
    std::vector<const SSL_CIPHER *> ciphers;
    const STACK_OF(SSL_CIPHER) *const offered = SSL_CTX_get_ciphers(context);
    const int count = sk_SSL_CIPHER_num(offered);
    ciphers.reserve(static_cast<std::size_t>(std::max(count, 0)));
    for (int i = 0; i < count; ++i)
        ciphers.push_back(sk_SSL_CIPHER_value(offered, i));
    std::stable_partition(ciphers.begin(), ciphers.end(), [wanted](const SSL_CIPHER *cipher) {
        return isPreferred(cipher, wanted);
    });
    std::string tls13; // OpenSSL keeps two lists
    std::string earlier;
    for (const SSL_CIPHER *cipher : ciphers)
        appendName(SSL_CIPHER_get_kx_nid(cipher) == NID_kx_any ? tls13 : earlier, cipher);
    if (!tls13.empty()) (void)SSL_CTX_set_ciphersuites(context, tls13.c_str());
    if (!earlier.empty()) (void)SSL_CTX_set_cipher_list(context, earlier.c_str());
}

} // namespace

AES_UNIT aesUnitOf(std::string_view cpu_settings) noexcept
{
    for (const auto &[name, bit] : CAPABILITIES) {
        const std::size_t at = cpu_settings.find(name);
        if (at == std::string_view::npos) continue;
        // The text ends in a NUL as OPENSSL_info returns it.
        const auto word = std::strtoull(cpu_settings.data() + at + name.size(), nullptr, 16);
        return (word >> bit & 1) != 0 ? AES_UNIT::THERE : AES_UNIT::MISSING;
    }
    return AES_UNIT::UNKNOWN;
}

void orderCiphers(SSL_CTX *context)
{
    const char *const settings = OPENSSL_info(OPENSSL_INFO_CPU_SETTINGS);
    const AES_UNIT unit = settings ? aesUnitOf(settings) : AES_UNIT::UNKNOWN;
    if (unit == AES_UNIT::UNKNOWN) return;
    const int wanted = unit == AES_UNIT::THERE ? NID_aes_128_gcm : NID_chacha20_poly1305;

    try {
        moveToFront(context, wanted);
    } catch (const std::bad_alloc &) {
        return; // optional
    }
    ERR_clear_error();
}

} // namespace ws
