// The names of local accounts, asked for by a thread of their own: a name service may answer from
// across a network, or never.
// Threads   lookUp and its callback: the thread of the io_context.
// Limits    an answer is used for NAME_LIFE; after NAME_WAIT without one the number stands for the
//           name. One question for each account is under way.
// Ownership the thread keeps what it needs; it is left behind when the process ends.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <sys/types.h>

namespace backend {

constexpr auto NAME_LIFE = std::chrono::seconds(60);
constexpr auto NAME_WAIT = std::chrono::seconds(2);

struct ACCOUNT_NAMES_T;
std::shared_ptr<ACCOUNT_NAMES_T> startAccountNames(boost::asio::io_context &io);

// found comes once, perhaps within the call: the name, or "uid N".
void lookUpAccount(const std::shared_ptr<ACCOUNT_NAMES_T> &names, uid_t uid,
                   std::function<void(const std::string &name)> found);

// No callback comes any more.
void stopAccountNames(ACCOUNT_NAMES_T &names);

} // namespace backend
