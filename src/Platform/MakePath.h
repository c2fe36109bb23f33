// Directories made along a path.

#pragma once

#include <sys/types.h>

namespace platform {

// Makes `path` and every missing parent. 0, or an errno value. What exists is fine if it is a directory.
int MakePath(const char *path, mode_t mode);

} // namespace platform
