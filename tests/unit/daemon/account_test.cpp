#include "src/remote_access_account.h"
#include "src/remote_access_request_payload.h"
#include "tests/support/proxy_fixture.h"
#include "utility/text.h"

#include <pwd.h>
#include <shadow.h>

namespace {

constexpr char PASSWORD[] = "correct horse";
constexpr char SHA512[] = "$6$rounds=1000$saltsalt$4GMtaIz3E1AdDi2SmCokEW0ehi.HdxNDcL3fGE1XXuzvo6kb"
                          "x7UOloZKONqEk5H3JrQA4NOfU8BmqFPrpGqwA1";
constexpr char YESCRYPT[] = "$y$j75$saltsaltsalt$zQziiNee/3jd.PJJvsNgy7GH5uO3HbsUNcQ3Jsopj2B";
constexpr char NO_HASH[] = "";

// The account databases hold one user, admin, or none. Null: no entry.
const char *g_field = nullptr;
const char *g_shadow = nullptr;

class AccountCheck : public ProxyTest {};

} // namespace

// The linker puts these in the places of the C library's functions (--wrap).
extern "C" {
passwd *__wrap_getpwnam(const char *name)
{
    static passwd entry;
    entry.pw_passwd = const_cast<char *>(g_field);
    return g_field != nullptr && std::string{"admin"} == name ? &entry : nullptr;
}

spwd *__wrap_getspnam(const char *name)
{
    static spwd entry;
    entry.sp_pwdp = g_shadow != NO_HASH ? const_cast<char *>(g_shadow) : nullptr;
    return g_shadow != nullptr && std::string{"admin"} == name ? &entry : nullptr;
}
}

TEST_F(AccountCheck, NeedsThePasswordOfTheStoredHash)
{
    const std::string failed = "verify account failed!\n", unknown = "Unknown account:user!\n";
    const std::string locked = std::string{"!"} + SHA512;
    const struct {
        const char *user, *field, *shadow, *password;
        std::string output; // empty: accepted
    } rows[] = {
        {"admin", "x", SHA512, PASSWORD, ""},
        {"admin", "x", YESCRYPT, PASSWORD, ""},
        {"admin", "##admin", YESCRYPT, PASSWORD, ""},
        {"admin", SHA512, nullptr, PASSWORD, ""},
        {"admin", YESCRYPT, SHA512, PASSWORD, ""}, // the shadow entry is not asked for
        {"admin", "x", SHA512, "wrong horse", failed},
        {"admin", "x", YESCRYPT, SHA512, failed},
        {"admin", "xx", SHA512, PASSWORD, failed},
        {"admin", "##admin2", SHA512, PASSWORD, failed},
        {"admin", "x", nullptr, "x", failed},
        {"admin", "x", NO_HASH, "x", failed},
        {"admin", "x", "@", "@", failed},
        {"admin", "", nullptr, "", failed},
        {"admin", "x", "!", "!", failed},
        {"admin", "x", "*0", "*0", failed},
        {"admin", "x", "*1", "p", failed},
        {"admin", "x", locked.c_str(), PASSWORD, failed},
        {"nobody", "x", SHA512, PASSWORD, unknown},
        {"admin", nullptr, SHA512, PASSWORD, unknown},
    };
    for (const auto &row : rows) {
        g_field = row.field;
        g_shadow = row.shadow;
        VERIFY_ACCOUNT_T account{};
        copy_text(account.username, row.user);
        copy_text(account.password, row.password);
        testing::internal::CaptureStdout();
        EXPECT_EQ(row.output.empty() ? 0 : -1, verifyAccount(account));
        EXPECT_EQ(row.output, testing::internal::GetCapturedStdout());
        EXPECT_EQ(row.output.empty() ? "1 verify account successfully" : "", fake_logger::take(0));
    }
}

TEST_F(AccountCheck, AnswersTheBackEnd)
{
    openChannel(CHANNEL_STATE_CONNECTED);
    g_field = "x";
    g_shadow = SHA512;
    const auto ask = [](const std::string &password) {
        return wire(6, "m1", "s1", R"({"username":"admin","password":")" + password + "\"}");
    };
    testing::internal::CaptureStdout();
    for (const char *password : {PASSWORD, "wrong", ""})
        receive(ask(password));
    EXPECT_EQ("verify account failed!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(response("", 0, "verify account ok") + "|" +
                  response("", 101607, "verify account failed") + "|" +
                  response("", 101601, "parse VerifyAccount failed"),
              sent());
    fake_websocket.sends = {{-1}};
    EXPECT_THAT(receive(ask(PASSWORD)),
                testing::EndsWith("|2 cloud channel response to verifyAccount error!session_id:, "
                                  "msgID:m1"));
}
