// Volumes: statistics, native type, and directories made along a path.

#pragma once

#include <vaultry/file_status.h>

#include <sys/types.h>

namespace platform {

// Never follows a final link (ELOOP) and never blocks on a FIFO. 0, or -1 with errno.
int GetVolumeStatus(const char *path, TQVolumeStatus *out);

// Whether volumes of this type are local, persistent, and hold attributes and flags.
bool IsNativeVolumeType(const char *typeName);

// Makes `path` and every missing parent. 0, or an errno value. What exists is fine if it is a directory.
int MakePath(const char *path, mode_t mode);

} // namespace platform
