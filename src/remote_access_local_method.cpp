#include "src/remote_access_local_method.h"

#include "common/log.h"
#include "src/bus_error.h"
#include "src/config.h"
#include "src/config_keys.h"
#include "src/proxy.h"
#include "src/service_catalogue.h"
#include "utility/bus_handles.h"
#include "utility/json_handles.h"
#include "utility/text.h"
#include "utility/utf8.h"

#include <array>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char INTROSPECTION[] =
    " <!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\" "
    "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\"> "
    "<!-- dbus-sharp 0.8.1 --> "
    "<node>   <interface name=\"org.freedesktop.DBus.Introspectable\">     <method "
    "name=\"Introspect\">"
    "       <arg name=\"data\" direction=\"out\" type=\"s\" />     </method>   </interface> "
    "</node>";
static_assert(sizeof INTROSPECTION - 1 == 352);

constexpr char STATE_FORMAT[] =
    "{\"code\": 0, \"message\": \"success\", \"data\": {\"state\": %d}}";
constexpr std::size_t STATE_REPLY_SIZE = 256;
constexpr int REPLY_DONE = 0;
constexpr int REPLY_REFUSED = -1;
constexpr int HEARTBEAT_WAITS = 3;

constexpr auto g_local_method_table = std::to_array<LOCAL_METHOD_T>({
    {"Introspect", remoteAccessMethodIntrospect},
    {"OpenRemoteAccess", openRemoteAccess},
    {"CloseRemoteAccess", closeRemoteAccess},
    {"GetRemoteAccessSession", getRemoteAccessSession},
    {"notify_config", syncConfigParam},
    {"queryRemoteChannelState", queryRemoteChannelState},
    {"queryEdgeServicesAvailable", queryEdgeServicesAvailable},
    {"queryRemoteThreadRunState", queryRemoteThreadRunState},
    {"queryAllSessionInfo", queryAllSessionInfo},
});

// The next read/write of the main loop puts the reply on the wire.
void sendReply(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *call, int type, const void *value)
{
    const DBusMessagePtr reply{dbus_message_new_method_return(call)};
    if (!reply || dbus_message_append_args(reply.get(), type, value, DBUS_TYPE_INVALID) == 0)
        return;
    (void)dbus_connection_send(record->bus_conn, reply.get(),
                               nullptr); // on failure the caller times out
}

void replyNumber(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *call, dbus_int32_t number)
{
    sendReply(record, call, DBUS_TYPE_INT32, &number);
}

// libdbus ends the process on text that is not UTF-8, and a name cut at its field's size may end
// inside a character.
void makeUtf8(char *text)
{
    while (*text != '\0') {
        const std::size_t length = utf8_character_length({text, ::strnlen(text, 4)});
        if (length == 0) *text = '?';
        text += length > 0 ? length : 1;
    }
}

void replyText(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *call, char *text)
{
    makeUtf8(text);
    sendReply(record, call, DBUS_TYPE_STRING, static_cast<const void *>(&text));
}

void replyState(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *call, int state)
{
    char text[STATE_REPLY_SIZE];
    format_text(text, STATE_FORMAT, state);
    replyText(record, call, text);
}

// The envelope of the two documents; takes data. Null without memory.
JsonText printDocument(JsonPtr root, JsonPtr data)
{
    cJSON_AddNumberToObject(root.get(), "code", 0);
    cJSON_AddStringToObject(root.get(), "message", "success");
    cJSON_AddItemToObject(root.get(), "data", data.release());
    return JsonText{cJSON_PrintUnformatted(root.get())};
}

int setSessionInfoToList(SESSION_NODE_T *session, void *array)
{
    JsonPtr element{cJSON_CreateObject()};
    if (!element) {
        RA_WARN("cjson create failed");
        return 0;
    }
    if (session->socket_fd > 0) {
        RA_DEBUG("local socket: %d", session->socket_fd);
        cJSON_AddNumberToObject(element.get(), "socket", session->socket_fd);
        cJSON_AddStringToObject(element.get(), "sessionId", session->session_id);
        // A session that matched no catalogue entry has no name; the element keeps its shape.
        const char *const name = session->service != nullptr ? session->service->service_name : "";
        cJSON_AddStringToObject(element.get(), "serviceName", name);
    }
    cJSON_AddItemToArray(static_cast<cJSON *>(array), element.release());
    return 0;
}

} // namespace

std::span<const LOCAL_METHOD_T> localMethods()
{
    return g_local_method_table;
}

int getLocalMethodCount()
{
    return static_cast<int>(g_local_method_table.size());
}

void commandRemoteAccess(REMOTE_ACCESS_CONFIG_T *record, int remote_switch)
{
    record->remote_access_switch.store(remote_switch, std::memory_order_relaxed);
    record->switch_changed.store(
        1, std::memory_order_release); // after the value: the proxy thread takes the mark first
}

void remoteAccessMethodIntrospect(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("remote access module method introspect to be called!");
    const char *const document = INTROSPECTION;
    sendReply(record, message, DBUS_TYPE_STRING, static_cast<const void *>(&document));
}

void openRemoteAccess(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("open remote-access channel method to be called !");
    commandRemoteAccess(record, 1);
    replyNumber(record, message, REPLY_DONE);
}

void closeRemoteAccess(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("close remote-access channel method to be called !");
    commandRemoteAccess(record, 0);
    replyNumber(record, message, REPLY_DONE);
}

void getRemoteAccessSession(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("get remote-access session method to be called !");
    BusError error;
    const char *session_id = nullptr;
    dbus_message_get_args(message, error, DBUS_TYPE_STRING, &session_id, DBUS_TYPE_INVALID);
    if (check_and_abort(error) != 0) {
        RA_WARN("dbus_message_get_args() failed");
        return replyNumber(record, message, REPLY_REFUSED);
    }
    if (session_id == nullptr) {
        RA_WARN("sessionID is NULL !");
        return replyNumber(record, message, REPLY_REFUSED);
    }
    const bool open = checkOneSessionInTable(&g_remote_proxy.session_table, session_id) == 0;
    replyNumber(record, message, open ? -1 : 0);
}

void syncConfigParam(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("syncConfigParam method to be called !");
    BusError error;
    const char *key = nullptr;
    const char *value = nullptr;
    dbus_message_get_args(message, error, DBUS_TYPE_STRING, &key, DBUS_TYPE_STRING, &value,
                          DBUS_TYPE_INVALID);
    if (check_and_abort(error) != 0) {
        RA_WARN("dbus_message_get_args() failed");
        return replyNumber(record, message, REPLY_REFUSED);
    }
    if (key == nullptr || value == nullptr) {
        RA_WARN("key or value is NULL !");
        return replyNumber(record, message, REPLY_REFUSED);
    }
    if (std::strcmp(key, KEY_DEBUG_SWITCH) == 0) {
        RA_INFO("config %s : %s", key, value);
        record->debug_switch.store(parse_int32(value), std::memory_order_relaxed);
        return replyNumber(record, message, REPLY_DONE);
    }
    if (std::strcmp(key, KEY_TRANS_TIMEOUT) == 0) {
        RA_INFO("config %s : %s", key, value);
        record->trans_timeout.store(parse_int32(value), std::memory_order_relaxed);
        return replyNumber(record, message, REPLY_DONE);
    }
    RA_WARN("key error %s", key);
    replyNumber(record, message, REPLY_REFUSED);
}

void queryRemoteChannelState(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("query remote Access State method to be called !");
    replyState(record, message, channelState(&g_remote_proxy) == CHANNEL_STATE_CONNECTED ? 1 : 0);
}

void queryEdgeServicesAvailable(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("query edge services available method to be called !");
    JsonPtr root{cJSON_CreateObject()};
    if (!root) {
        RA_WARN("cjson create failed");
        return;
    }
    JsonPtr data{cJSON_CreateObject()};
    // Null until the proxy thread has set it up; neither null nor text that does not parse adds
    // anything.
    const char *const services = g_remote_proxy.services_info.load(std::memory_order_acquire);
    cJSON_AddItemToObject(data.get(), "serviceList",
                          services != nullptr ? cJSON_Parse(services) : nullptr);
    const JsonText text = printDocument(std::move(root), std::move(data));
    if (!text) {
        RA_WARN("cjson print failed");
        return;
    }
    replyText(record, message, text.get());
}

void queryRemoteThreadRunState(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    RA_INFO("query proxy thread run state method to be called !");
    const std::int32_t before = g_remote_proxy.heartbeat.load(std::memory_order_relaxed);
    int state = 0;
    for (int waited = 0; waited < HEARTBEAT_WAITS && state == 0; ++waited) {
        ::sleep(1);
        if (g_remote_proxy.heartbeat.load(std::memory_order_relaxed) != before) state = 1;
    }
    replyState(record, message, state);
}

void queryAllSessionInfo(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    JsonPtr array{cJSON_CreateArray()};
    JsonPtr root{cJSON_CreateObject()};
    JsonPtr data{cJSON_CreateObject()};
    traverseSessionTable(&g_remote_proxy.session_table, setSessionInfoToList, array.get());
    cJSON_AddItemToObject(data.get(), "sessionList", array.release());
    const JsonText text = printDocument(std::move(root), std::move(data));
    if (!text) {
        RA_WARN("cjson print failed");
        return;
    }
    replyText(record, message, text.get());
}
