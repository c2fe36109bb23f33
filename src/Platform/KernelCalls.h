// System calls that are younger than the C library of our oldest target, so that it has no name for them.
//
// Each answers -1 with ENOSYS where the kernel has no such call. A sandbox may answer EPERM for numbers that it does
// not know. A first probe with arguments that no kernel accepts tells such an answer from a refusal that concerns the
// item.

#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace platform::kernel {

// Linux 5.6. Opens for reading what lies below `directory`, on its volume and reached through no link.
int OpenBelow(int directory, const char *path, int flags);

// Linux 6.6.
int FchmodAt2(int directory, const char *name, mode_t mode, int atFlags);

// Linux 6.13.
ssize_t GetXattrAt(int directory, const char *name, int atFlags, const char *attribute, void *buffer, size_t size);
int SetXattrAt(int directory, const char *name, int atFlags, const char *attribute, const void *value, size_t size);
int RemoveXattrAt(int directory, const char *name, int atFlags, const char *attribute);

// Linux 6.17: the inode flags of an item that can't be opened. The bits of xflags are FS_XFLAG_….
struct FileAttr {
    uint64_t xflags;
    uint32_t extentSize;
    uint32_t extentCount;
    uint32_t projectId;
    uint32_t cowExtentSize;
};
int FileGetAttr(int directory, const char *name, FileAttr *attr, int atFlags);
int FileSetAttr(int directory, const char *name, const FileAttr &attr, int atFlags);

} // namespace platform::kernel
