// A session over a WebSocket: binary frames are its bytes, text frames are JSON:
//   to the back end    {"end":"sending"}  the input has ended
//   from the back end  {"ended":REASON,"whole":BOOL,"bytes_up":N,"bytes_down":N}  the last frame
// Threads  one, which carries both ways: a side that takes nothing stops only what goes there.
// Limits   64 KiB are under way each way. A line on which nothing is heard for SILENCE_MAX is given
//          up, except while the output takes nothing and so nothing is read.
#pragma once

#include "operator/carrier/session.h"

#include <chrono>
#include <memory>
#include <nlohmann/json_fwd.hpp>

struct HTTPS_CLIENT_T;

std::unique_ptr<Session> openWebSocketSession(HTTPS_CLIENT_T &client, const nlohmann::json &request,
                                              SESSION_ENDS_T &ends, std::chrono::seconds time);
