// Owners for what cJSON hands out. It brings cJSON with it: no header of the daemon includes it.
#pragma once

#include "utility/handles.h"

#include <cjson/cJSON.h>

using JsonPtr = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>; // with all that hangs on it
using JsonText = std::unique_ptr<char, Releaser<cJSON_free>>;   // what cJSON_Print... wrote
