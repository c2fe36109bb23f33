// Volumes: statistics, native type, and directories made along a path.

#pragma once

#include <vaultry/file_status.h>

#include <sys/types.h>

namespace platform {

// Never follows a final link (ELOOP) and never blocks on a FIFO. 0, or -1 with errno.
int GetVolumeStatus(const char *path, TQVolumeStatus *out);

// Whether volumes of this type are local, persistent, and hold attributes and flags.
bool IsNativeVolumeType(const char *typeName);

// Whether the volume of an open item is known to keep what a flush has answered for: `syncfs` reaches it, it tells a late
// error to a descriptor that did not write, and it lists the access lists that an item has. False where it can't be told.
bool VolumeHonoursFlush(int fd);

// Makes `path` and every missing parent. 0, or an errno value. What exists is fine if it is a directory.
int MakePath(const char *path, mode_t mode);

} // namespace platform
