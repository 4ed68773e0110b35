// The clients against a manager at the other end of a direct connection, where it can answer as
// badly as it likes.
#include "common/bus_handles.h"
#include "platform/config_manager/config_manager.h"
#include "platform/watchdog/watchdog.h"
#include "utility/handles.h"

#include <atomic>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <thread>

namespace {

constexpr int TIMEOUT_MS = 10'000;
constexpr int SHORT_MS = 50;
constexpr int PASS_MS = 20;
constexpr char NOT_UTF8[] = "\xff";

class BusClients : public ::testing::Test {
protected:
    void SetUp() override
    {
        BusError error;
        server_ = dbus_server_listen("unix:tmpdir=/tmp", error);
        ASSERT_NE(server_, nullptr);
        dbus_server_set_new_connection_function(server_, take_connection, this, nullptr);
        dbus_server_set_watch_functions(server_, take_watch, forget_watch, nullptr, this, nullptr);
        const std::unique_ptr<char, Releaser<dbus_free>> address{dbus_server_get_address(server_)};
        conn_.reset(dbus_connection_open_private(address.get(), error));
        ASSERT_NE(conn_, nullptr);
        manager_ = std::thread{[this] { serve(); }};
    }
    void TearDown() override
    {
        stop_ = true;
        manager_.join();
        peer_.reset();
        dbus_server_disconnect(server_);
        dbus_server_unref(server_);
    }

    std::pair<int, std::string> get(const char *key, int timeout_ms = TIMEOUT_MS)
    {
        char *value = nullptr;
        const int result = get_config(conn_.get(), key, &value, timeout_ms);
        const HeapText owned{value};
        return {result, value != nullptr ? value : "(null)"};
    }

    DBusConnectionPtr conn_;

private:
    static void take_connection(DBusServer *, DBusConnection *conn, void *self)
    {
        static_cast<BusClients *>(self)->peer_.reset(dbus_connection_ref(conn));
    }
    static dbus_bool_t take_watch(DBusWatch *watch, void *self)
    {
        static_cast<BusClients *>(self)->watch_ = watch;
        return TRUE;
    }
    static void forget_watch(DBusWatch *, void *) {}

    void serve()
    {
        pollfd arrival{dbus_watch_get_unix_fd(watch_), POLLIN, 0};
        if (::poll(&arrival, 1, TIMEOUT_MS) == 1) dbus_watch_handle(watch_, DBUS_WATCH_READABLE);
        while (!stop_ && peer_ != nullptr && dbus_connection_read_write(peer_.get(), PASS_MS)) {
            while (const DBusMessagePtr call{dbus_connection_pop_message(peer_.get())}) {
                handle(call.get());
            }
        }
    }

    // Answers as the last argument that is a text, the key, asks for.
    void handle(DBusMessage *call)
    {
        const bool get = dbus_message_is_method_call(call, "iot.gateway.config_manager", "get") &&
                         dbus_message_has_path(call, "/iot/gateway/config_manager");
        const char *module = "";
        const char *key = "";
        dbus_int32_t flag = 0;
        const bool understood =
            get ? dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_INVALID)
                : dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &module, DBUS_TYPE_STRING,
                                        &key, DBUS_TYPE_INT32, &flag, DBUS_TYPE_INVALID);
        const std::string kind = understood ? key : "error";
        if (late_ != nullptr) send(std::exchange(late_, nullptr));
        if (kind == "silent") return;
        if (kind == "error") {
            send(DBusMessagePtr{dbus_message_new_error(call, DBUS_ERROR_FAILED, "no")});
            return;
        }
        const dbus_int32_t code = kind == "absent"    ? 1
                                  : kind == "refused" ? -1
                                  : kind == "odd"     ? 7
                                  : kind == "flag"    ? flag - 1
                                                      : 0;
        const std::string value =
            kind == "long" ? std::string(1 << 20, 'v') : "value of " + kind + module;
        const char *const text = value.c_str();
        DBusMessagePtr answer{dbus_message_new_method_return(call)};
        dbus_message_append_args(answer.get(), DBUS_TYPE_INT32, &code, DBUS_TYPE_INVALID);
        // A malformed answer holds a text too many.
        for (int texts = (get ? 1 : 0) + (kind == "malformed" ? 1 : 0); texts > 0; --texts) {
            dbus_message_append_args(answer.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        }
        if (kind == "late") {
            late_ = std::move(answer);
        } else {
            send(answer);
        }
    }

    void send(const DBusMessagePtr &answer)
    {
        dbus_connection_send(peer_.get(), answer.get(), nullptr);
    }

    DBusServer *server_ = nullptr;
    DBusWatch *watch_ = nullptr; // the server's
    DBusConnectionPtr peer_;     // the manager's end
    DBusMessagePtr late_;
    std::thread manager_;
    std::atomic<bool> stop_{false};
};

TEST_F(BusClients, TellEachKindOfAnswerApart)
{
    const struct {
        const char *key;
        int result;
        std::string value;
    } rows[] = {
        {"set", CONFIG_OK, "value of set"},         {"long", CONFIG_OK, std::string(1 << 20, 'v')},
        {"absent", CONFIG_NOT_SET, "(null)"},       {"odd", CONFIG_BAD_ANSWER, "(null)"},
        {"malformed", CONFIG_BAD_ANSWER, "(null)"}, {"refused", CONFIG_NO_ANSWER, "(null)"},
        {"error", CONFIG_NO_ANSWER, "(null)"},      {NOT_UTF8, CONFIG_NO_ANSWER, "(null)"},
        {nullptr, CONFIG_NO_ANSWER, "(null)"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(get(row.key), std::pair(row.result, row.value)) << (row.key ? row.key : "null");
        const int result = subscribe_config(conn_.get(), "iot.gateway.x", row.key, 1, TIMEOUT_MS);
        EXPECT_EQ(result, row.result) << (row.key ? row.key : "null");
    }
    EXPECT_EQ(subscribe_config(conn_.get(), "iot.gateway.x", "flag", 2, TIMEOUT_MS), 1);
    EXPECT_EQ(subscribe_config(conn_.get(), NOT_UTF8, "set", 1, TIMEOUT_MS), CONFIG_NO_ANSWER);
}

TEST_F(BusClients, NeverTakeALateAnswerForTheNextOne)
{
    EXPECT_EQ(get("silent", SHORT_MS), std::pair(int{CONFIG_NO_ANSWER}, std::string{"(null)"}));
    EXPECT_EQ(get("late", SHORT_MS), std::pair(int{CONFIG_NO_ANSWER}, std::string{"(null)"}));
    EXPECT_EQ(get("set"), std::pair(int{CONFIG_OK}, std::string{"value of set"}));
}

TEST_F(BusClients, GiveUpWithoutAConnection)
{
    char *value = nullptr;
    EXPECT_EQ(get_config(nullptr, "set", &value, TIMEOUT_MS), CONFIG_NO_ANSWER);
    EXPECT_EQ(get_config(conn_.get(), "set", nullptr, TIMEOUT_MS), CONFIG_NO_ANSWER);
    EXPECT_EQ(subscribe_config(nullptr, "iot.gateway.x", "set", 1, TIMEOUT_MS), CONFIG_NO_ANSWER);
    dbus_connection_close(conn_.get());
    EXPECT_EQ(get("set").first, CONFIG_NO_ANSWER);
}

TEST(WatchdogClient, BuildsTheFeedSignal)
{
    const DBusMessagePtr feed{
        watchdog_new_feeddog_signal("iot.gateway.x", "/iot/gateway/x", "mainThread", 20)};
    ASSERT_NE(feed, nullptr);
    EXPECT_TRUE(dbus_message_is_signal(feed.get(), "iot.gateway.watchdog", "feed_dog"));
    EXPECT_STREQ(dbus_message_get_path(feed.get()), "/iot/gateway/x");
    const char *module = nullptr;
    const char *thread = nullptr;
    dbus_int32_t timeout_s = 0;
    ASSERT_TRUE(dbus_message_get_args(feed.get(), nullptr, DBUS_TYPE_STRING, &module,
                                      DBUS_TYPE_STRING, &thread, DBUS_TYPE_INT32, &timeout_s,
                                      DBUS_TYPE_INVALID));
    EXPECT_STREQ(module, "iot.gateway.x");
    EXPECT_STREQ(thread, "mainThread");
    EXPECT_EQ(timeout_s, 20);

    EXPECT_EQ(watchdog_new_feeddog_signal(NOT_UTF8, "/x", "t", 1), nullptr);
    EXPECT_EQ(watchdog_new_feeddog_signal("m", "no path", "t", 1), nullptr);
    EXPECT_EQ(watchdog_new_feeddog_signal("m", nullptr, "t", 1), nullptr);
    EXPECT_EQ(watchdog_new_feeddog_signal("m", "/x", nullptr, 1), nullptr);
}

} // namespace
