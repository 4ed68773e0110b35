// The clients against a manager that answers as badly as it likes: it takes the place of the bus
// library's blocking call. That they are understood by the real one shows end to end.
#include "platform/config_manager/config_manager.h"
#include "platform/watchdog/watchdog.h"
#include "utility/bus_handles.h"
#include "utility/handles.h"

#include <gtest/gtest.h>
#include <string_view>
#include <utility>

namespace {

constexpr int TIMEOUT_MS = 1234;
constexpr char MODULE[] = "iot.gateway.x";
constexpr char NOT_UTF8[] = "\xff";
auto *const BUS = reinterpret_cast<DBusConnection *>(0x100); // only passed on

struct ANSWER_T {
    std::string_view types; // of its values, in the bus's notation; none: there is no answer
    dbus_int32_t code;
};
ANSWER_T answer;

std::pair<int, std::string> get(DBusConnection *conn, const char *key)
{
    char *value = nullptr;
    const int result = get_config(conn, key, &value, TIMEOUT_MS);
    const HeapText owned{value};
    return {result, value != nullptr ? value : "(null)"};
}

} // namespace

extern "C" DBusMessage *__wrap_dbus_connection_send_with_reply_and_block(DBusConnection *conn,
                                                                         DBusMessage *call,
                                                                         int timeout_ms,
                                                                         DBusError *)
{
    EXPECT_EQ(conn, BUS);
    EXPECT_EQ(timeout_ms, TIMEOUT_MS);
    if (answer.types.empty()) return nullptr;
    dbus_message_set_serial(call, 1);
    DBusMessagePtr reply{dbus_message_new_method_return(call)};
    const char *const text = "value";
    for (const char type : answer.types) {
        const void *value = &text;
        if (type == 'i') value = &answer.code;
        dbus_message_append_args(reply.get(), type, value, DBUS_TYPE_INVALID);
    }
    return reply.release();
}

TEST(BusClients, TellEachKindOfAnswerApart)
{
    const struct {
        ANSWER_T answer;
        int get, subscribe;
    } rows[] = {
        {{"is", 0}, CONFIG_OK, CONFIG_BAD_ANSWER},
        {{"i", 0}, CONFIG_BAD_ANSWER, CONFIG_OK},
        {{"is", 1}, CONFIG_NOT_SET, CONFIG_BAD_ANSWER},
        {{"i", 1}, CONFIG_BAD_ANSWER, CONFIG_NOT_SET},
        {{"is", -1}, CONFIG_NO_ANSWER, CONFIG_BAD_ANSWER},
        {{"i", -1}, CONFIG_BAD_ANSWER, CONFIG_NO_ANSWER},
        {{"is", 7}, CONFIG_BAD_ANSWER, CONFIG_BAD_ANSWER},
        {{"i", 7}, CONFIG_BAD_ANSWER, CONFIG_BAD_ANSWER},
        {{"iss", 0}, CONFIG_BAD_ANSWER, CONFIG_BAD_ANSWER},
        {{"si", 0}, CONFIG_BAD_ANSWER, CONFIG_BAD_ANSWER},
        {{"", 0}, CONFIG_NO_ANSWER, CONFIG_NO_ANSWER},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.answer.types) + std::to_string(row.answer.code));
        answer = row.answer;
        const char *const value = row.get == CONFIG_OK ? "value" : "(null)";
        EXPECT_EQ(get(BUS, "key"), std::pair(row.get, std::string(value)));
        EXPECT_EQ(subscribe_config(BUS, MODULE, "key", 1, TIMEOUT_MS), row.subscribe);
    }
}

TEST(BusClients, RefuseWhatTheBusLibraryWouldEndTheProcessFor)
{
    answer = {"is", 0};
    EXPECT_EQ(get(nullptr, "key").first, CONFIG_NO_ANSWER);
    EXPECT_EQ(get(BUS, nullptr).first, CONFIG_NO_ANSWER);
    EXPECT_EQ(get(BUS, NOT_UTF8).first, CONFIG_NO_ANSWER);
    answer = {"i", 0};
    EXPECT_EQ(subscribe_config(nullptr, MODULE, "key", 1, TIMEOUT_MS), CONFIG_NO_ANSWER);
    EXPECT_EQ(subscribe_config(BUS, NOT_UTF8, "key", 1, TIMEOUT_MS), CONFIG_NO_ANSWER);
    EXPECT_EQ(subscribe_config(BUS, MODULE, NOT_UTF8, 1, TIMEOUT_MS), CONFIG_NO_ANSWER);
    EXPECT_EQ(watchdog_new_feeddog_signal(NOT_UTF8, "/x", "t", 1), nullptr);
    EXPECT_EQ(watchdog_new_feeddog_signal("m", "no path", "t", 1), nullptr);
    EXPECT_EQ(watchdog_new_feeddog_signal("m", nullptr, "t", 1), nullptr);
    EXPECT_EQ(watchdog_new_feeddog_signal("m", "/x", nullptr, 1), nullptr);
}
