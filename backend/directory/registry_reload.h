// Reads the file of devices again in a thread of its own, because a large one takes a while, and
// puts it to use on the thread of the io_context.
// Ownership  destroying a reload waits for the file that is being read; who asked is not told then.
//            The io_context and the directory outlive it.
// Limits     one file is read at a time. Who asks meanwhile is answered by the next reading, which
//            begins afterwards: what was written before one asked is read.
// Failure    a file that cannot be used changes nothing; the result says why.
#pragma once

#include "backend/directory/directory.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>

namespace backend {

struct RELOADED_T {
    std::string fault;                 // with the file and the place; empty: it is in use
    std::vector<std::string> warnings; // of a file that is in use
    std::size_t devices = 0;           // that are registered now, in any case
};
using ReloadAnswer = std::function<void(const RELOADED_T &)>;

class RegistryReload {
public:
    RegistryReload(boost::asio::io_context &io, DIRECTORY_T &directory, std::string path);
    RegistryReload(const RegistryReload &) = delete;
    RegistryReload &operator=(const RegistryReload &) = delete;
    ~RegistryReload();

    // In the io thread; done is called in it later. Starting the thread may throw.
    void start(ReloadAnswer done);

private:
    struct STATE_T;
    std::shared_ptr<STATE_T> state_;
};

} // namespace backend
