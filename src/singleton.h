// Single-instance guard: a PID file whose write lock is held for the life of the process (fcntl(2)
// record locks).
#pragma once

constexpr char PID_DIRECTORY[] = "/tmp/brimlock";
constexpr char PID_FILE[] = "/tmp/brimlock/remote_terminal.pid";

// 0 when this process is now the only instance: the file holds its id in decimal and one NUL byte.
// -1 otherwise. A record lock ends when any descriptor of its file is closed in the process:
// nothing else may open PID_FILE.
[[nodiscard]] int ensureSingletonDaemon();
