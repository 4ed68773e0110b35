// The audit: one JSON object on one line for each session, written when it ends, and for each that
// was refused, by the device or because it is away:
// {"ended":"2026-11-23T01:02:03Z","asked":"...","who":"...","device":"...","service":"...",
//  "session":"...","bytes_up":N,"bytes_down":N,"whole":true,"reason":"..."}
// Times are UTC. session is empty for one that was refused. bytes_up came from the device.
// whole: everything that the device sent has gone to the client.
// Threads  safe from every thread: a line is one write.
// Failure  openAudit throws std::runtime_error; a line that cannot be written goes to the log.
#pragma once

#include <string>

namespace backend {

struct SESSION_T;

// Lines go to the end of the file, made with mode 0640; "-" is standard output, which is also where
// they go before this is called. Called again it opens the file anew, for a rotated one.
void openAudit(const std::string &path);

void auditSession(const SESSION_T &session);

// For a request that never reached the device.
void auditRefusal(const std::string &who, const std::string &device, const std::string &service,
                  const std::string &reason);

} // namespace backend
