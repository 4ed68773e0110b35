// Owners for cJSON objects. No header of the daemon includes this one, because it includes cJSON.
#pragma once

#include "utility/handles.h"

#include <cjson/cJSON.h>

using JsonPtr = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>; // and its children
using JsonText = std::unique_ptr<char, Releaser<cJSON_free>>;   // what cJSON_Print... wrote
