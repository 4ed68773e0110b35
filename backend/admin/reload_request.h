// Tells the running back end to read its files again, over its control socket.
// Failure  an answer that is no is a std::runtime_error; that nobody listens is none.
#pragma once

#include <string>

namespace backend {

// What became of it, in words for the administrator. control: path of the socket, or empty.
std::string requestReload(const std::string &control);

} // namespace backend
