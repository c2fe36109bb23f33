// Makes the directories along a path.

#pragma once

#include <sys/types.h>

namespace platform {

// Makes `path` and every missing parent. 0, or an errno value. A directory that exists already is not an error.
int MakePath(const char *path, mode_t mode);

} // namespace platform
