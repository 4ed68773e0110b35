// The control socket: the requests of an operator's tool. A Unix stream socket; everyone who may
// write to its file may use every device, so the file's permissions protect it. Each connection
// carries one request, a JSON object on one line of at most REQUEST_MAX bytes, and then the
// answers, one JSON object per line; operations.h describes them.
// One account has a quarter of all connections at most, so that it cannot keep others out.
// A request has 5 s to come, and its last answer LIMITS_T::answer_time to be taken.
// "connect" comes with a connected stream socket with its first byte (unix(7), SCM_RIGHTS): its
// other end is the session's client. The session is cut off two seconds after its connection here
// has been closed.
// Ownership  a connection belongs to its running operations and keeps the control socket's record.
// Threads    the thread of the io_context.
// Failure    openControl throws std::runtime_error.
#pragma once

#include "backend/doors/account_names.h"
#include "backend/limits.h"
#include "backend/operations/operations.h"

#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

namespace backend {

struct CONTROL_T;

constexpr std::size_t REQUEST_MAX = 4096;

// Listens at the path, mode 0660. A socket file that nobody listens on any more is replaced.
std::shared_ptr<CONTROL_T> openControl(boost::asio::io_context &io, OPERATIONS_T &operations,
                                       const LIMITS_T &limits,
                                       const std::shared_ptr<ACCOUNT_NAMES_T> &names,
                                       const std::string &path);

// Takes no further connection and removes the file. Sessions continue.
void closeControl(CONTROL_T &control);

} // namespace backend
