#include "utility/bus_address.h"
#include "utility/message_id.h"
#include "utility/thread_handle.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>

using testing::HasSubstr;

TEST(MessageId, DrawsFromTheUnseededGenerator)
{
    char text[3] = "xx";
    EXPECT_STREQ("xx", randomString(text, 0));
    EXPECT_STREQ("", randomString(text, 1));
    EXPECT_EQ('x', text[1]);
    std::srand(1); // the state of a process that never seeds
    const char *shared = generateMsgId();
    EXPECT_STREQ("PKdhtXMmr18n2L9K88eMlGn7CcctT9", shared);
    EXPECT_EQ(shared, generateMsgId());
    EXPECT_STRNE("PKdhtXMmr18n2L9K88eMlGn7CcctT9", shared);
}

TEST(ThreadHandle, StartsInStateZeroOnly)
{
    THREAD_HANDLE_T handle{};
    for (const auto state : {THREAD_STATE_RUNNING, THREAD_STATE_STOPPING}) {
        handle.run_state.store(state);
        EXPECT_EQ(-1, createDetachedThread(&handle, nullptr, nullptr));
        EXPECT_EQ(state, handle.run_state.load());
    }
    handle.run_state.store(THREAD_STATE_STOPPED);
    EXPECT_EQ(0, stopDetachedThread(&handle));
}

TEST(BusAddress, IsRefusedWhereAnotherAccountMayPutItsOwnBus)
{
    char top[] = "/tmp/ra-bus-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(top));
    const std::string root = top;
    for (const auto &[folder, mode] : std::map<std::string, mode_t>{
             {"/good", 0755}, {"/sticky", 01777}, {"/group", 0775}, {"/open", 0757}}) {
        ASSERT_EQ(0, ::mkdir((root + folder).c_str(), 0700));
        ASSERT_EQ(0, ::chmod((root + folder).c_str(), mode));
        std::ofstream(root + folder + "/socket") << "";
    }
    ASSERT_EQ(0, ::symlink("../good", (root + "/sticky/link").c_str()));
    ASSERT_EQ(0, ::symlink((root + "/open").c_str(), (root + "/good/astray").c_str()));
    ASSERT_EQ(0, ::symlink("circle", (root + "/good/circle").c_str()));

    const auto fault = [&root](const std::string &path) {
        return bus_address_fault("unix:guid=00112233445566778899aabbccddeeff,path=" + root + path);
    };
    for (const char *path : {"/good/socket", "/sticky/socket", "/sticky/link/socket",
                             "//good/./../sticky/link/../good/socket"}) {
        EXPECT_EQ("", fault(path)) << path;
    }
    for (const char *path : {"/group/socket", "/open/socket", "/good/astray/socket"}) {
        EXPECT_THAT(fault(path), HasSubstr("can be changed by other accounts")) << path;
    }
    EXPECT_EQ(root + "/none: No such file or directory", fault("/none/socket"));
    EXPECT_THAT(fault("/good/circle/socket"), HasSubstr("Too many levels"));
    EXPECT_EQ("", bus_address_fault("unix:abstract=somebody"));
    EXPECT_NE("", bus_address_fault("unix:abstract=somebody;unix:path=" + root + "/open/socket"));
    EXPECT_NE("", bus_address_fault("unix:path=relative"));
    EXPECT_NE("", bus_address_fault("no address"));
    if (::geteuid() == 0) {
        const std::string folder = root + "/good"; // becomes another account's
        ASSERT_EQ(0, ::chown(folder.c_str(), 4003, 4003));
        EXPECT_THAT(fault("/good/socket"), HasSubstr(folder + " belongs to uid 4003"));
        ASSERT_EQ(0, ::lchown((root + "/sticky/link").c_str(), 4003, 4003));
        EXPECT_THAT(fault("/sticky/link/socket"), HasSubstr("/link belongs to uid 4003"));
        ASSERT_EQ(0, ::chown((root + "/sticky/socket").c_str(), 4003, 4003));
        EXPECT_THAT(fault("/sticky/socket"), HasSubstr("/socket belongs to uid 4003"));
    }
    std::filesystem::remove_all(root);
}
