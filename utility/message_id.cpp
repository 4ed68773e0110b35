#include "utility/message_id.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view ALPHABET =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
static_assert(ALPHABET.size() == 62);

constinit char g_message_id[MSG_ID_SIZE] = {};

} // namespace

char *randomString(char *buffer, std::size_t n) noexcept
{
    if (n == 0) return buffer;
    for (std::size_t i = 0; i < n - 1; ++i) {
        // NOLINTNEXTLINE(cert-msc30-c,cert-msc50-cpp): told apart on one channel, not secret
        buffer[i] = ALPHABET[static_cast<std::size_t>(std::rand()) % ALPHABET.size()];
    }
    buffer[n - 1] = '\0';
    return buffer;
}

const char *generateMsgId() noexcept
{
    std::memset(g_message_id, 0, sizeof g_message_id);
    return randomString(g_message_id, MSG_ID_LEN + 1);
}
