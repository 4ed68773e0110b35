#include "src/account.h"

#include "common/log.h"
#include "src/request_payload.h"
#include "utility/handles.h"

#include <crypt.h>
#include <cstdio>
#include <cstring>
#include <pwd.h>
#include <shadow.h>
#include <string_view>

namespace {

struct WipedFree {
    void operator()(crypt_data *data) const noexcept
    {
        ::explicit_bzero(data, sizeof *data);
        std::free(data);
    }
};

int refuse(const char *reason)
{
    std::puts(reason);
    (void)std::fflush(stdout); // the process may end without flushing it
    return -1;
}

bool namesShadowEntry(std::string_view field, std::string_view username)
{
    return field == "x" || (field.starts_with("##") && field.substr(2) == username);
}

// The stored hash of an account; null when its shadow entry says that it has none that could be
// used.
const char *storedHash(const passwd &entry, const char *username)
{
    if (!namesShadowEntry(entry.pw_passwd, username)) return entry.pw_passwd;
    const spwd *const shadow = ::getspnam(username);
    if (shadow == nullptr || shadow->sp_pwdp == nullptr) return entry.pw_passwd;
    return shadow->sp_pwdp[0] == '@' ? nullptr : shadow->sp_pwdp;
}

bool reproducesHash(const char *password, const char *hash)
{
    // An empty hash would let everybody in, and some libraries answer a bad one with a text of
    // their own.
    if (hash == nullptr || hash[0] == '\0') return false;
    const std::unique_ptr<crypt_data, WipedFree> data{
        static_cast<crypt_data *>(std::calloc(1, sizeof(crypt_data)))};
    if (!data) return false;
    const char *const result = ::crypt_r(password, hash, data.get());
    return result != nullptr && result[0] != '*' && std::strcmp(result, hash) == 0;
}

} // namespace

int verifyAccount(const VERIFY_ACCOUNT_T &account)
{
    const passwd *const entry = ::getpwnam(account.username);
    if (entry == nullptr || entry->pw_passwd == nullptr) return refuse("Unknown account:user!");
    if (!reproducesHash(account.password, storedHash(*entry, account.username)))
        return refuse("verify account failed!");
    RA_INFO("verify account successfully");
    return 0;
}
