#include "backend/devices/used_signatures.h"

#include "tests/unit/backend/mailbox.h"

#include <filesystem>
#include <gtest/gtest.h>

using namespace backend;

static const DEVICE_KEY_T DEVICE{"pk1", "dev1"};
constexpr std::int64_t SIGNED = 1'600'000'000;
constexpr std::int64_t FIRST_MS = SIGNED * 1000 + 250;

TEST(UsedSignatures, CountOnceButForTheSameAddressWithinTwoSeconds)
{
    const struct {
        std::int64_t after_ms;
        const char *address;
        bool is_accepted;
    } rows[] = {
        {0, "192.0.2.1", true},        {1000, "192.0.2.1", true},     {2000, "192.0.2.1", true},
        {1000, "192.0.2.2", false},    {2001, "192.0.2.1", false},    {3000, "192.0.2.1", false},
        {100'000, "192.0.2.1", false}, {299'000, "192.0.2.1", false}, {300'000, "192.0.2.1", false},
    };
    USED_SIGNATURES_T ledger;
    ASSERT_TRUE(markSignature(ledger, DEVICE, SIGNED, "192.0.2.1", FIRST_MS));
    for (const auto &row : rows)
        EXPECT_EQ(markSignature(ledger, DEVICE, SIGNED, row.address, FIRST_MS + row.after_ms),
                  row.is_accepted)
            << row.after_ms << " " << row.address;
    EXPECT_TRUE(markSignature(ledger, DEVICE, SIGNED + 3, "192.0.2.1", FIRST_MS + 3000));
    EXPECT_TRUE(markSignature(ledger, {"pk2", "dev1"}, SIGNED, "192.0.2.1", FIRST_MS + 3000));
}

TEST(UsedSignatures, MemoryHoldsWhatTheClockAllowsAndNoMore)
{
    USED_SIGNATURES_T ledger;
    for (std::int64_t i = 0; i < 3000; i++) // a device that signs ahead as far as it may
        ASSERT_TRUE(markSignature(ledger, DEVICE, SIGNED + i + 300, "", FIRST_MS + i * 1000));
    EXPECT_LE(ledger.used[DEVICE].size(), 602U);
    ASSERT_TRUE(markSignature(ledger, {"pk2", "x"}, SIGNED + 9000, "", FIRST_MS + 9'000'000));
    EXPECT_EQ(ledger.used.size(), 1U); // a device that stays away leaves nothing behind
}

TEST(UsedSignatures, AreOnTheDiskBeforeTheAnswerAndExpireThere)
{
    std::string folder = testing::TempDir() + "signaturesXXXXXX";
    const std::string path = std::string(mkdtemp(folder.data())) + "/store.db";
    MAILBOX_T mailbox;
    const auto claim = [&mailbox](USED_SIGNATURES_T &ledger, std::int64_t second,
                                  std::int64_t now_ms) {
        std::optional<SIGNATURE_USE> use;
        claimSignature(ledger, DEVICE, second, "192.0.2.1", now_ms,
                       [&use](SIGNATURE_USE answer) { use = answer; });
        EXPECT_TRUE(mailbox.runUntil([&use] { return use.has_value(); }));
        return use;
    };
    const auto rowsOf = [](STORE_T &store) {
        return readStore(store, "SELECT signed_second FROM signature").size();
    };
    {
        const StorePtr store = openStore(path, mailbox.poster());
        USED_SIGNATURES_T ledger = loadUsedSignatures(store.get(), FIRST_MS);
        EXPECT_EQ(claim(ledger, SIGNED, FIRST_MS), SIGNATURE_USE::ACCEPTED);
        EXPECT_EQ(rowsOf(*store), 1U);
    }
    {
        const StorePtr store = openStore(path, mailbox.poster());
        USED_SIGNATURES_T ledger = loadUsedSignatures(store.get(), FIRST_MS + 1000);
        EXPECT_EQ(claim(ledger, SIGNED, FIRST_MS + 1000), SIGNATURE_USE::ACCEPTED);
        EXPECT_EQ(claim(ledger, SIGNED, FIRST_MS + 3000), SIGNATURE_USE::REPLAYED);
        EXPECT_EQ(claim(ledger, SIGNED + 400, FIRST_MS + 400'000), SIGNATURE_USE::ACCEPTED);
    }
    const StorePtr store = openStore(path, mailbox.poster());
    EXPECT_EQ(rowsOf(*store), 1U); // the old one is gone
    EXPECT_EQ(loadUsedSignatures(store.get(), FIRST_MS + 400'000).used[DEVICE].size(), 1U);
    std::filesystem::remove_all(folder);
}
