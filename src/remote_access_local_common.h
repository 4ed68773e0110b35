// Reading of a whole configuration file.
#pragma once

#include "utility/handles.h"

namespace local_common {

// The file's content with a terminating NUL, or null: no path, not readable, empty, not a regular
// file, no memory. Failures are logged here.
HeapText _load_cfg_from_json(const char *path);

} // namespace local_common
