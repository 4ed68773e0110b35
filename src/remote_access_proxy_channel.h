// The cloud channel: one client WebSocket connection to the back end, over TLS or plain.
//
// Owner    the caller owns the connection from openCloudProxyChannel to closeCloudProxyChannel. One
//          at a time.
// Threads  the proxy thread alone.
// Bound    open: at most 10 s to connect and 3 s for the upgrade. write: 150 ms of flushing and the
//          clamped time-out, each with at most one step of the library more. Nothing else blocks.
// Failure  logged here, reported by the results below.
#pragma once

#include <cstdint>

struct CLOUD_CHANNEL_T; // a connection of the WebSocket library
struct DATA_BUFFER_T;

enum CHANNEL_READ : std::int32_t {
    CHANNEL_READ_NO_PAYLOAD = 0, // a message without usable payload
    CHANNEL_READ_NO_ROOM = -1,   // the buffer is as it was, the piece is lost
    CHANNEL_READ_NOTHING = -2,   // no message is available
};

// cert_path null = no peer verification; an unreadable one fails. tls_type 0 = plain. Null on
// failure.
CLOUD_CHANNEL_T *openCloudProxyChannel(const char *host, const char *port, const char *cert_path,
                                       int debug_switch, int tls_type);

// Accepts null. Also releases what the library keeps globally.
void closeCloudProxyChannel(CLOUD_CHANNEL_T *conn);

// Appends one piece of a message. Returns the bytes appended or one of CHANNEL_READ. *fin: 1 when
// the piece ended its message, else 0; left as it was by a read that appends nothing.
int readCloudProxyChannel(CLOUD_CHANNEL_T *conn, DATA_BUFFER_T *buffer, int *fin);

// Whether the last piece that was read, appended or not, ended its message.
bool hasCloudProxyChannelMessageEnded(const CLOUD_CHANNEL_T *conn);

// One binary message. length when all of it went to the socket; -1 when sending failed; 0 when
// earlier bytes could not be flushed (nothing was taken); otherwise the count that left in time
// (the rest may still leave later). timeout_ms is clamped to 50 to 10000.
int writeCloudProxyChannel(CLOUD_CHANNEL_T *conn, const char *bytes, int length, int timeout_ms);

// Routes the library's log lines to the logger, or drops them. Accepts null.
void setCloudProxyChannelDebug(CLOUD_CHANNEL_T *conn, int debug_switch);

// The descriptor; -1 once the connection has ended.
int getCloudProxyChannelSocket(CLOUD_CHANNEL_T *conn);

// True when a read can make progress on bytes that select does not see any more.
bool hasCloudProxyChannelPendingInput(CLOUD_CHANNEL_T *conn);
