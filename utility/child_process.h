// Runs a program to its end and takes what it prints, and a folder of one's own for the files that
// it works on. No shell, and nothing that the caller has open or in its environment goes along.
// Threads  no shared state; SIGCHLD is not needed, and a handler for it does not disturb.
// Limits   CHILD_OUTPUT_MAX bytes of each output; the program is killed when it has more, or takes
//          longer.
#pragma once

#include "utility/handles.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

constexpr std::size_t CHILD_OUTPUT_MAX = 65536;

struct CHILD_T {
    std::vector<std::string> command;     // the program's path first; or its name, to be looked up
    std::vector<std::string> environment; // "NAME=value"
    std::chrono::milliseconds time{10000};
    int input = -1;  // borrowed; the program has it as descriptor 3. -1: nothing
    int cancel = -1; // borrowed; the program is killed once this can be read. -1: never
};

struct CHILD_RESULT_T {
    int status = -1; // its exit status; -1: it could not be started, or was killed
    std::string output;
    std::string errors; // what it has printed, or why it did not end by itself
};

CHILD_RESULT_T run_child(const CHILD_T &child);

// Mode 0700; removed with all that is in it. Throws std::runtime_error.
class PrivateFolder {
public:
    PrivateFolder();
    PrivateFolder(const PrivateFolder &) = delete;
    PrivateFolder &operator=(const PrivateFolder &) = delete;
    ~PrivateFolder();
    const std::string &path() const noexcept
    {
        return path_;
    }
    void remove() noexcept;

private:
    std::string path_;
};
