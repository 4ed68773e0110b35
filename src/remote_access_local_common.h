// Reading of a whole configuration file.
#pragma once

namespace local_common {

// The file's content with a terminating NUL, which the caller frees with free(); or null: no path,
// not readable, empty, not a regular file, no memory. Failures are logged here.
char *_load_cfg_from_json(const char *path);

} // namespace local_common
