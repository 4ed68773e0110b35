// The common way in which the daemon reports an error of a bus call.
#pragma once

struct DBusError;

// 0 when no error is set; otherwise logs and frees it and returns -1. The process is never aborted.
int check_and_abort(DBusError *error);
