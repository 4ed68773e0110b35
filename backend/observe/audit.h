// The audit: one JSON object on one line for each session, written when it ends, and for each that
// was refused, by the device or because it is away:
// {"ended":"2026-11-23T01:02:03Z","asked":"...","who":"...","device":"...","service":"...",
//  "session":"...","bytes_up":N,"bytes_down":N,"whole":true,"reason":"..."}
// and for each check of an account on a device:
// {"checked":"...","who":"...","device":"...","account":"...","right":false,"reason":"..."}
// Times are UTC. session is empty for one that was refused. bytes_up came from the device.
// whole: everything that the device sent has gone to the client. right: the device knows the
// account and its password; else the reason has the device's words, or why it did not answer.
// Threads  the thread of the io_context.
// Failure  openAudit throws std::runtime_error; a line that cannot be written whole goes to the
//          log, and the next one begins on a line of its own.
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

void auditAccountCheck(const std::string &who, const std::string &device,
                       const std::string &account, bool is_right, const std::string &reason);

} // namespace backend
