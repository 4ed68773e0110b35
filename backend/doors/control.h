// The control socket: the requests of an operator's tool. A Unix stream socket; everyone who may
// write to its file may use every device, so the file's permissions protect it. Each connection
// carries one request, a JSON object on one line of at most REQUEST_MAX bytes, and then the
// answers, one JSON object per line:
//   {"do":"devices"}                                    {"ok":true,"devices":[...]}
//   {"do":"services","device":D}                        {"ok":true,"services":[...]}
//   {"do":"sessions"}                                   {"ok":true,"sessions":[...]}
//   {"do":"verify","device":D,"user":U,"password":P}    {"ok":true,"code":0,"message":"..."}
//   {"do":"connect","device":D,"service":S}             {"ok":true,"session":"..."}, and when the
//        session ends {"ended":"REASON","whole":true,"bytes_up":N,"bytes_down":N}
// A request has 5 s to come, and its last answer LIMITS_T::answer_time to be taken.
// A request that fails is answered with {"ok":false,"error":"..."}. "connect" comes with a
// connected stream socket with its first byte (unix(7), SCM_RIGHTS): its other end is the session's
// client. The session is cut off two seconds after its connection here has been closed.
// D is DEVICE_NAME, or PRODUCT_KEY:DEVICE_NAME.
// Ownership  a connection belongs to its running operations and keeps the control socket's record.
// Threads    the thread of the io_context.
// Failure    openControl throws std::runtime_error.
#pragma once

#include <memory>
#include <string>

namespace backend {

struct SERVER_T;
struct CONTROL_T;

constexpr std::size_t REQUEST_MAX = 4096;

// Listens at the path, mode 0660. A socket file that nobody listens on any more is replaced.
std::shared_ptr<CONTROL_T> openControl(SERVER_T &server, const std::string &path);

// Takes no further connection and removes the file. Sessions continue.
void closeControl(CONTROL_T &control);

} // namespace backend
