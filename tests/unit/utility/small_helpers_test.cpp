#include "utility/bus_address.h"
#include "utility/handles.h"
#include "utility/message_id.h"
#include "utility/socket_owner.h"
#include "utility/terminal_text.h"
#include "utility/thread_handle.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

using testing::HasSubstr;

TEST(TerminalText, ReplacesWhatWorksOnTheTerminalOrHides)
{
    for (const auto &[text, expected] : std::map<std::string, std::string>{
             {"gw-1 \xc3\xa9\xe2\x82\xac",
              "gw-1 \xc3\xa9\xe2\x82\xac"}, // printable, of 2 and 3 bytes
             {"\x1b[2J\x7f", "?[2J?"},
             {"\xc2\x9b"
              "2J",
              "?2J"},
             {"a\xe2\x80\xae"
              "b\xd8\x9c\xe2\x81\xa6",
              "a?b??"}, // U+202E, U+061C, U+2066
             {"\xe2\x80\xa8\xe2\x80\x8b\xef\xbb\xbf\xf3\xa0\x81\x81", "????"},
             {"\x9b\xe2\x80", "???"}}) { // not UTF-8
        EXPECT_EQ(expected, shown(text));
    }
}

TEST(SocketOwner, IsThatOfAConnectedPeerOnly)
{
    const UniqueFd listener{::socket(AF_INET, SOCK_STREAM, 0)};
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof own;
    auto *const address = reinterpret_cast<sockaddr *>(&own);
    ASSERT_EQ(0, ::bind(listener.get(), address, size));
    ASSERT_EQ(0, ::listen(listener.get(), 1));
    ASSERT_EQ(0, ::getsockname(listener.get(), address, &size));
    sockaddr_in6 mapped{};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = own.sin_port;
    mapped.sin6_addr = {{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 127, 0, 0, 1}}};
    for (const bool is_mapped : {false, true}) {
        UniqueFd client{::socket(is_mapped ? AF_INET6 : AF_INET, SOCK_STREAM, 0)};
        const auto *const to = is_mapped ? reinterpret_cast<sockaddr *>(&mapped) : address;
        ASSERT_EQ(0, ::connect(client.get(), to, is_mapped ? sizeof mapped : sizeof own));
        const UniqueFd accepted{::accept(listener.get(), nullptr, nullptr)};
        EXPECT_EQ(::geteuid(), loopback_peer_owner(accepted.get()));
        client.reset(); // the kernel still holds it, for an account that it does not tell
        EXPECT_EQ(std::nullopt, loopback_peer_owner(accepted.get()));
    }
}

TEST(MessageId, DrawsTheSequenceOfTheUnseededGenerator)
{
    char text[3] = "xx";
    EXPECT_STREQ("xx", randomString(text, 0));
    EXPECT_STREQ("", randomString(text, 1));
    EXPECT_EQ('x', text[1]);
    const char *shared = generateMsgId();
    EXPECT_STREQ("PKdhtXMmr18n2L9K88eMlGn7CcctT9", shared);
    std::srand(1); // the state of a process that never seeds
    for (int i = 0; i < 30; ++i)
        (void)std::rand();
    const std::string alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (int i = 0; i < 1000; ++i) {
        std::string expected(30, ' ');
        for (char &character : expected)
            character = alphabet[static_cast<std::size_t>(std::rand()) % alphabet.size()];
        ASSERT_EQ(expected, generateMsgId());
    }
    EXPECT_EQ(shared, generateMsgId());
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
