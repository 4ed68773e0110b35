// The daemon's use of the MQTT bridge: the cloud topics it subscribes, the cloud messages that
// arrive as a bus signal, and, for an installation of unknown edition, its self-description.
//
// Threads  subscribing runs on the task worker, on the worker's connection and with the task list's
//          lock held; everything else on the main thread, on the record's bus_conn.
// Blocking 1 s for each topic, 500 ms for each other call.
// Failure  logged here, 0 / -1; nothing is retried here: the task is run again, the main loop's
//          next pass calls again.
#pragma once

struct DBusConnection;
struct DBusMessage;
struct REMOTE_ACCESS_CONFIG_T;
struct TASK_NODE_T;

constexpr char SUBSCRIBE_TOPICS_TASK[] = "subscribe_cloud_topic_task";
constexpr char SUBSCRIBE_EVENT[] = "subscribe_event";

// 0 when the bridge answered with code 0.
[[nodiscard]] int subscribeCloudTopic(DBusConnection *conn, const char *topic, int qos);
// Every topic that the edition needs, from the first, whatever an earlier run has achieved. -1 at
// the first failure.
[[nodiscard]] int subscribeAllCloudTopics(const REMOTE_ACCESS_CONFIG_T *record,
                                          DBusConnection *conn);
// The same as a task; the argument is the record.
int subscribeCloudTopicTask(TASK_NODE_T *task, void *argument, DBusConnection *conn);

// A SUBSCRIBE_EVENT signal: topic and payload, whoever sent it. An unknown topic is logged and 0.
int cloudDownDataProc(REMOTE_ACCESS_CONFIG_T *record, DBusMessage *message);
// Payloads: {"status":N} sets the switch; {"code":200} acknowledges the self-description, another
// code withdraws that.
int cloudCommondProc(REMOTE_ACCESS_CONFIG_T *record, const char *payload);
int versionInfoToCloudReply(REMOTE_ACCESS_CONFIG_T *record, const char *payload);
int triggerPublishSelfDescribedToCloud(REMOTE_ACCESS_CONFIG_T *record);

int publishSelfDescribedToCloud(REMOTE_ACCESS_CONFIG_T *record);
// Each succeeds at most once in the life of the process; afterwards it does nothing.
int openCloudChannel(REMOTE_ACCESS_CONFIG_T *record);
int closeCloudChannel(REMOTE_ACCESS_CONFIG_T *record);
