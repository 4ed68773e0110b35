// The interface as another build of the WebSocket library has it: a size is a long there, and it
// keeps no reason for a failure. The daemon's channel is compiled against it and never run.
#pragma once

#define nopoll_msg_get_payload_size nopoll_msg_get_payload_size_as_int
#define nopoll_ctx_failure nopoll_ctx_failure_is_not_there
#include "platform/nopoll/nopoll.h"
#undef nopoll_msg_get_payload_size
#undef nopoll_ctx_failure

extern "C" long nopoll_msg_get_payload_size(noPollMsg *msg);
