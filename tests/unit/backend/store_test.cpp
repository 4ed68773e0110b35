#include "backend/store/store.h"

#include "backend/store/database.h"
#include "backend/store/device_records.h"
#include "tests/unit/backend/mailbox.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

using namespace backend;
using testing::HasSubstr;

class Store : public testing::Test {
protected:
    Store()
    {
        std::string folder = testing::TempDir() + "storeXXXXXX";
        folder_ = mkdtemp(folder.data());
        path = folder_ + "/store.db";
    }
    ~Store() override
    {
        std::filesystem::remove_all(folder_);
    }

    std::string refusal() const
    {
        try {
            (void)openStore(path, nullptr);
        } catch (const std::runtime_error &fault) {
            return fault.what();
        }
        return "opened";
    }

    bool write(STORE_T &store, const std::string &name)
    {
        int answer = -1;
        writeStore(store, {"INSERT INTO meta VALUES (?, 1)", {name}},
                   [&answer](bool is_durable) { answer = is_durable ? 1 : 0; });
        EXPECT_EQ(answer, -1) << "answered within the call";
        EXPECT_TRUE(mailbox.runUntil([&answer] { return answer >= 0; }));
        return answer == 1;
    }

    static unsigned modeOf(const std::string &file)
    {
        struct stat status {};
        return stat(file.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
    }

    std::string path;
    MAILBOX_T mailbox;

private:
    std::string folder_;
};

TEST_F(Store, FilesThatAreNoStoreAreRefusedWithTheReason)
{
    const struct {
        const char *sql; // on a good store; null: the file is text
        mode_t mode;
        const char *reason;
    } rows[] = {
        {nullptr, 0600, "restore a backup"},
        {"PRAGMA user_version=1000", 0600, "version 1000"},
        {"PRAGMA application_id=1", 0600, "another program"},
        {"", 0644, "chmod 0600"},
        {"", 0620, "chmod 0600"},
        {"", 0640, "opened"},
    };
    for (const auto &row : rows) {
        std::filesystem::remove(path);
        if (row.sql == nullptr)
            std::ofstream(path) << std::string(5000, 'x');
        else {
            (void)openStore(path, nullptr);
            execute(*openDatabase(path), row.sql);
        }
        ASSERT_EQ(chmod(path.c_str(), row.mode), 0);
        EXPECT_THAT(refusal(), HasSubstr(row.reason));
    }
    const StorePtr store = openStore(path, mailbox.poster());
    EXPECT_THAT(refusal(), HasSubstr("another back end"));
    path = "/nowhere/store.db";
    EXPECT_THAT(refusal(), HasSubstr("/nowhere/store.db: it cannot be written: No such file"));
}

TEST_F(Store, DamageInTheMiddleIsFoundAtTheStart)
{
    {
        const StorePtr store = openStore(path, mailbox.poster());
        for (int i = 0; i < 200; i++)
            ASSERT_TRUE(write(*store, std::string(100, 'x') + std::to_string(i)));
    }
    std::fstream file(path, std::ios::in | std::ios::out);
    file.seekp(3 * 4096 - 2000);
    file << std::string(9000, '\x7f');
    file.close();
    EXPECT_THAT(refusal(), HasSubstr("restore a backup"));
}

TEST_F(Store, FailuresAndAFullDiskAreLeftBehindWithoutARestart)
{
    (void)signal(SIGXFSZ, SIG_IGN);
    StorePtr store = openStore(path, mailbox.poster());
    EXPECT_TRUE(write(*store, "before"));
    EXPECT_FALSE(write(*store, "before")); // the name is taken
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
    const rlimit full{0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    const bool is_durable = write(*store, "meanwhile");
    setrlimit(RLIMIT_FSIZE, &usual);
    EXPECT_FALSE(is_durable);
    EXPECT_TRUE(write(*store, "after"));
    EXPECT_EQ(readStore(*store, "SELECT name FROM meta"),
              (std::vector<STORE_ROW_T>{{"after"}, {"before"}}));
}

TEST_F(Store, AFullQueueAnswersAtOnce)
{
    std::size_t answers = 0, refused = 0;
    std::promise<void> release;
    const auto post = mailbox.poster();
    const auto released = release.get_future().share();
    const StorePtr store = openStore(path, [&, io = std::this_thread::get_id()](auto function) {
        if (std::this_thread::get_id() != io) released.wait(); // so the queue is not taken
        post(std::move(function));
    });
    const std::size_t count = 2 * STORE_QUEUE_MAX + 10; // the first batch takes no more than half
    for (std::size_t i = 0; i < count; i++)
        writeStore(*store, {"DELETE FROM meta", {}}, [&](bool is_durable) {
            answers++;
            refused += is_durable ? 0 : 1;
        });
    EXPECT_TRUE(mailbox.runUntil([&] { return refused >= 10; }));
    release.set_value();
    EXPECT_TRUE(mailbox.runUntil([&] { return answers == count; }));
    EXPECT_LE(refused, count - STORE_QUEUE_MAX);
}

TEST_F(Store, BackupIsAWholeStoreOfItsOwn)
{
    const std::string target = path + ".backup";
    const StorePtr store = openStore(path, mailbox.poster());
    EXPECT_EQ(modeOf(path), 0600U);
    EXPECT_EQ(modeOf(path + "-wal"), 0600U);
    ASSERT_TRUE(write(*store, "first"));
    backUpStore(path, target, false);
    EXPECT_EQ(modeOf(target), 0600U);
    EXPECT_EQ(query(*openDatabase(target), "PRAGMA journal_mode")[0], STORE_ROW_T{"delete"});
    ASSERT_TRUE(write(*store, "second"));
    EXPECT_THROW(backUpStore(path, target, false), std::runtime_error);
    EXPECT_THROW(backUpStore(path, path, true), std::runtime_error);
    const auto names = [](const std::string &file) {
        return readStore(*openStore(file, nullptr), "SELECT name FROM meta").size();
    };
    EXPECT_EQ(names(target), 1U);
    backUpStore(path, target, true);
    EXPECT_EQ(names(target), 2U);
    EXPECT_FALSE(std::filesystem::exists(target + "-wal"));
    const auto files =
        std::filesystem::directory_iterator(std::filesystem::path(path).parent_path());
    EXPECT_EQ(std::distance(begin(files), end(files)), 4); // nothing but store, log, index, backup
}

TEST_F(Store, DeviceRecordsOutliveARestartAndAKill)
{
    const DEVICE_KEY_T left{"pk", "left"}, stays{"pk", "stays"}, removed{"pk", "removed"};
    for (const bool is_again : {false, true}) {
        const StorePtr store = openStore(path, mailbox.poster());
        DEVICE_RECORDS_T records = loadDeviceRecords(store.get());
        if (!is_again) {
            for (int i = 0; i < 1000; i++) { // flaps
                noteDeviceCame(records, left, "192.0.2.1", 1000 + 2 * i);
                noteDeviceLeft(records, left, "gone", 1001 + 2 * i);
            }
            noteDeviceCame(records, stays, "192.0.2.2", 5000);
            noteDeviceReplaced(records, stays, 6000);
            noteDeviceCame(records, removed, "192.0.2.3", 5000);
            forgetDevice(records, removed);
            continue;
        }
        EXPECT_EQ(records.records.size(), 2U);
        const DEVICE_RECORD_T &gone = records.records[left];
        EXPECT_EQ(gone.last_seen_ms, 2999);
        EXPECT_EQ(gone.last_reason, "gone");
        EXPECT_EQ(gone.last_address, "192.0.2.1");
        const DEVICE_RECORD_T &interrupted = records.records[stays];
        EXPECT_EQ(interrupted.connected_since_ms, 0);
        EXPECT_EQ(interrupted.replaced_ms, 6000);
        EXPECT_EQ(interrupted.last_reason, "the back end was interrupted");
    }
}
