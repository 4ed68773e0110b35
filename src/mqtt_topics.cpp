#include "src/mqtt_topics.h"

#include "common/bus_names.h"
#include "common/log.h"
#include "src/bus_error.h"
#include "src/config.h"
#include "src/remote_access_local_method.h"
#include "utility/bus_handles.h"
#include "utility/json_scanner.h"
#include "utility/text.h"
#include "utility/utf8.h"

#include <cstring>
#include <optional>

namespace {

constexpr int SUBSCRIBE_TIMEOUT_MS = 1000;
constexpr int CALL_TIMEOUT_MS = 500;
constexpr int QOS = 0;
constexpr std::int32_t SELF_DESCRIPTION_ACCEPTED = 200;
constexpr char SELF_DESCRIPTION_FORMAT[] = "{\"version\":\"%s\",\"spec\":\"lite\"}";
constexpr std::size_t SELF_DESCRIPTION_SIZE = 128;

// Of the main thread; neither is ever cleared.
int cloud_channel_opened = 0;
int cloud_channel_closed = 0;

DBusMessagePtr newBridgeCall(const char *member)
{
    return DBusMessagePtr{
        dbus_message_new_method_call(BRIDGE_NAME, BRIDGE_OBJECT_PATH, BRIDGE_NAME, member)};
}

// Two texts and the quality of service. False, and nothing sent, when a text is not one that the
// bus takes: libdbus would end the process.
bool appendBridgeArguments(DBusMessage *call, const char *first, const char *second,
                           dbus_int32_t qos)
{
    if (!is_bus_text(first) || !is_bus_text(second)) return false;
    return dbus_message_append_args(call, DBUS_TYPE_STRING, &first, DBUS_TYPE_STRING, &second,
                                    DBUS_TYPE_INT32, &qos, DBUS_TYPE_INVALID) != 0;
}

// A call of the main thread, of which only the answer's arrival counts. 0 / -1; failures are lines
// of the operation `owner`.
int callBridge(const char *owner, DBusConnection *conn, DBusMessagePtr call)
{
    BusError error;
    const DBusMessagePtr reply{
        dbus_connection_send_with_reply_and_block(conn, call.get(), CALL_TIMEOUT_MS, error)};
    call.reset();
    if (check_and_abort(error) != 0) {
        RA_WARN_FOR(owner, "dbus_connection_send_with_reply_and_block is error!");
        return -1;
    }
    if (!reply) {
        RA_WARN_FOR(owner, "method call cloud-proxy error!");
        return -1;
    }
    return 0;
}

// The numeric member of a JSON payload.
std::optional<std::int32_t> numberMember(const char *payload, const char *key)
{
    const JSON_VALUE_T value = json_lookup({payload, std::strlen(payload)}, key);
    if (value.type != JSON_TYPE_NUMBER || value.text.empty()) return std::nullopt;
    return parse_int32(value.text);
}

bool isTopic(const char *topic, const char (&field)[TOPIC_SIZE])
{
    char own[TOPIC_SIZE];
    copyCloudTopic(field, own);
    return std::strcmp(topic, own) == 0;
}

} // namespace

int subscribeCloudTopic(DBusConnection *conn, const char *topic, int qos)
{
    if (conn == nullptr) {
        RA_WARN("dbus connection is NULL");
        return -1;
    }
    DBusMessagePtr call = newBridgeCall("subscribe");
    if (!call) return -1;
    if (!appendBridgeArguments(call.get(), topic, BUS_NAME, qos)) {
        call.reset();
        RA_WARN("dbus set args for message error");
        return -1;
    }
    BusError error;
    const DBusMessagePtr reply{
        dbus_connection_send_with_reply_and_block(conn, call.get(), SUBSCRIBE_TIMEOUT_MS, error)};
    call.reset();
    if (check_and_abort(error) != 0) {
        RA_WARN("dbus_connection_send_with_reply_and_block is error!");
        return -1;
    }
    if (!reply) {
        RA_WARN("method call cloud-proxy to subscribe cloud topic error!");
        return -1;
    }
    const char *answer = nullptr;
    dbus_message_get_args(reply.get(), error, DBUS_TYPE_STRING, &answer, DBUS_TYPE_INVALID);
    if (check_and_abort(error) != 0) {
        RA_WARN("get args from method reply is error!");
        return -1;
    }
    if (answer == nullptr) {
        RA_WARN("subscribe cloud topic reply string is null.");
        return -1;
    }
    const std::optional<std::int32_t> code = numberMember(answer, "code");
    if (!code) {
        RA_ERROR("failed to read subscribe result json");
        return -1;
    }
    if (*code == 0) return 0;
    RA_WARN("subscribe cloud topic error!result=%d", *code);
    return -1;
}

int subscribeAllCloudTopics(const REMOTE_ACCESS_CONFIG_T *record, DBusConnection *conn)
{
    // This thread is the one that writes the topics, so it reads them without the lock.
    if (subscribeCloudTopic(conn, record->topic_debug_switch, QOS) != 0) return -1;
    if (record->edition != EDITION_UNKNOWN) return 0;
    if (subscribeCloudTopic(conn, record->topic_ability_post_reply, QOS) != 0) return -1;
    return subscribeCloudTopic(conn, record->topic_ability_get, QOS);
}

int subscribeCloudTopicTask(TASK_NODE_T * /*task*/, void *argument, DBusConnection *conn)
{
    return subscribeAllCloudTopics(static_cast<const REMOTE_ACCESS_CONFIG_T *>(argument), conn);
}

int cloudDownDataProc(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message)
{
    BusError error;
    const char *topic = nullptr;
    const char *payload = nullptr;
    dbus_message_get_args(message, error, DBUS_TYPE_STRING, &topic, DBUS_TYPE_STRING, &payload,
                          DBUS_TYPE_INVALID);
    if (check_and_abort(error) != 0) {
        RA_WARN("params of cloud commond is error!");
        return -1;
    }
    RA_INFO("cloud data topic:%s, payload:%s", topic, payload);
    if (isTopic(topic, record->topic_debug_switch)) {
        RA_INFO("cloud commond to remote access daemon!");
        return cloudCommondProc(record, payload);
    }
    if (isTopic(topic, record->topic_ability_post_reply))
        return versionInfoToCloudReply(record, payload);
    if (isTopic(topic, record->topic_ability_get))
        return triggerPublishSelfDescribedToCloud(record);
    RA_WARN("cloud message is error, topic:%s, payload:%s", topic, payload);
    return 0;
}

int cloudCommondProc(REMOTE_ACCESS_CONFIG_T *record, const char *payload)
{
    const std::optional<std::int32_t> status = numberMember(payload, "status");
    if (!status) {
        RA_ERROR("failed to read cloud commond json");
        return -1;
    }
    RA_INFO("remote access daemon switch:%d", *status);
    commandRemoteAccess(record, *status);
    return 0;
}

int versionInfoToCloudReply(REMOTE_ACCESS_CONFIG_T *record, const char *payload)
{
    const std::optional<std::int32_t> code = numberMember(payload, "code");
    if (!code) {
        RA_ERROR("failed to read cloud commond json");
        return -1;
    }
    record->self_described.store(*code == SELF_DESCRIPTION_ACCEPTED ? 1 : 0,
                                 std::memory_order_relaxed);
    return 0;
}

int triggerPublishSelfDescribedToCloud(REMOTE_ACCESS_CONFIG_T *record)
{
    RA_INFO("trigger to publish self info to cloud!");
    record->self_described.store(0, std::memory_order_relaxed);
    return 0;
}

int publishSelfDescribedToCloud(REMOTE_ACCESS_CONFIG_T *record)
{
    RA_INFO("start to publish self info to cloud!");
    DBusMessagePtr call = newBridgeCall("publish");
    if (!call) return -1;
    char topic[TOPIC_SIZE];
    copyCloudTopic(record->topic_ability_post, topic);
    char payload[SELF_DESCRIPTION_SIZE];
    format_text(payload, SELF_DESCRIPTION_FORMAT, record->version);
    if (!appendBridgeArguments(call.get(), topic, payload, QOS)) {
        call.reset();
        RA_WARN("dbus set args for message error");
        return -1;
    }
    if (callBridge(__func__, record->bus_conn, std::move(call)) != 0) return -1;
    RA_INFO("publish self info to cloud success!");
    return 0;
}

int openCloudChannel(REMOTE_ACCESS_CONFIG_T *record)
{
    if (cloud_channel_opened != 0) return 0;
    RA_INFO("start to open cloud channel!");
    DBusMessagePtr call = newBridgeCall("open_cloud_channel");
    if (!call || callBridge(__func__, record->bus_conn, std::move(call)) != 0) return -1;
    cloud_channel_opened = 1;
    RA_INFO("open cloud channel success!");
    return 0;
}

int closeCloudChannel(REMOTE_ACCESS_CONFIG_T *record)
{
    if (cloud_channel_closed != 0) return 0;
    RA_INFO("start to close cloud channel!");
    DBusMessagePtr call = newBridgeCall("close_cloud_channel");
    if (!call || callBridge(__func__, record->bus_conn, std::move(call)) != 0) return -1;
    cloud_channel_closed = 1;
    RA_INFO("close cloud channel success!");
    return 0;
}
