// The proxy thread: waits for the configuration, sets its context up once, and then follows the
// remote-access switch and runs the cloud channel's state machine for the life of the process.
#pragma once

struct REMOTE_ACCESS_CONFIG_T;
struct REMOTE_PROXY_T;

// The body; the argument is the configuration record. Started detached on the record's
// proxy_thread.
void *remoteProxyThread(void *argument);

// Buffers, session table, services text, and what is copied or borrowed from the record. 0 / -1,
// logged here.
[[nodiscard]] int initRemoteProxyResource(REMOTE_PROXY_T *proxy, REMOTE_ACCESS_CONFIG_T *record);

// Follows the record's debug switch, and ends the back-off when remote access has been switched on.
void syncProxyConfig(REMOTE_PROXY_T *proxy, REMOTE_ACCESS_CONFIG_T *record);
