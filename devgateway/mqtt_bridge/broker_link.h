// Broker link: the one connection to the MQTT broker, driven by the caller's loop; no call waits
// for the network. Each connection is a fresh client with a clean session: what was not taken when
// a connection broke is lost and never sent late, so the caller may answer its own callers that it
// failed.
//
// Owns     the client and its socket.
// Threads  one.
// Limits   BROKER_UNANSWERED_MAX requests that the broker has not answered, of them
//          BROKER_UNTAKEN_MAX messages; more are refused.
// Failure  a connection that is not up within CONNECT_LIMIT_MS is given up, and so is one whose
//          broker has been silent for twice KEEPALIVE_S. A lost or failed one is tried again
//          RETRY_MS later (the host's other addresses at once), for as long as the link is wanted.
//          Logged once for each outage.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct mosquitto;
struct pollfd;

constexpr int CONNECT_LIMIT_MS = 5000;
constexpr int RETRY_MS = 1000;
constexpr int KEEPALIVE_S = 15;
constexpr int BROKER_UNANSWERED_MAX = 512;
constexpr int BROKER_UNTAKEN_MAX = 32;

enum BROKER_STATE { BROKER_DOWN, BROKER_CONNECTING, BROKER_UP };

enum BROKER_REFUSAL : int { BROKER_BUSY = -1, BROKER_NOT_SENT = -2 };

enum BROKER_EVENT { BROKER_CONNECTED, BROKER_LOST, BROKER_ANSWERED, BROKER_MESSAGE };

struct BROKER_EVENT_T {
    BROKER_EVENT kind;
    int request = 0;       // ANSWERED: what broker_subscribe or broker_publish returned
    bool accepted = false; // ANSWERED
    std::string topic;     // MESSAGE
    std::string payload;   // MESSAGE: any bytes
};

struct BrokerClientDeleter {
    void operator()(mosquitto *client) const noexcept;
};

struct BROKER_LINK_T {
    std::vector<std::string> addresses; // numeric; tried in turn
    std::size_t next_address = 0;
    int port = 0;
    std::string client_id; // empty: the library makes one up
    bool wanted = false;
    BROKER_STATE state = BROKER_DOWN;
    std::int64_t next_ms = 0; // DOWN: when to try again; CONNECTING: when to give up
    int unanswered = 0;       // requests on this connection
    int untaken = 0;          // messages among them
    bool outage_reported = false;
    std::string refusal; // why the broker refused the connection
    std::unique_ptr<mosquitto, BrokerClientDeleter> client;
    std::vector<BROKER_EVENT_T> events; // for the caller, who empties it
};

// Finds the addresses of host once, since a resolver that does not answer would hold up the
// module's callers at every attempt later. 0, or -1 after logging why.
[[nodiscard]] int find_broker(BROKER_LINK_T &link, const char *host, int port);

// Begins to connect at once unless the link is up or on its way.
void open_broker(BROKER_LINK_T &link, std::int64_t now_ms);

// Disconnects from the broker and stays disconnected until open_broker. That is no BROKER_LOST.
void close_broker(BROKER_LINK_T &link);

// What to wait for: the socket, and the milliseconds until serve_broker is needed without it (-1:
// never).
pollfd broker_pollfd(const BROKER_LINK_T &link) noexcept;
int broker_timeout_ms(const BROKER_LINK_T &link, std::int64_t now_ms) noexcept;

// Does what is due: sends, receives, connects, gives up. Fills events.
void serve_broker(BROKER_LINK_T &link, short revents, std::int64_t now_ms);

// Both need the link up. The request's number, above 0; BROKER_BUSY at a limit; BROKER_NOT_SENT
// when the library refuses.
[[nodiscard]] int broker_subscribe(BROKER_LINK_T &link, const std::string &topic, int qos);

// A message of QoS 0 is sent with QoS 1, because for QoS 0 a broker does not acknowledge the
// message. It still arrives at most once: a connection sends it once, and it does not outlive
// the connection.
[[nodiscard]] int broker_publish(BROKER_LINK_T &link, const std::string &topic,
                                 const std::string &payload, int qos);
