// Status records, modes and file flags of items.
//
// Unless their comments say otherwise, the functions return 0, or -1 with errno; errno is untouched on success. A
// status is one statx.
//
// Flags are inode flags, and setting them needs a descriptor, or file_setattr where the kernel has it and the item
// can't be opened. Flags that are already as they should be are not set again: that would need a privilege, or a file
// system, that leaving them alone does not. The answer is ENOTSUP for a flag that the file system can't hold, for 0x40,
// and for an item that is neither a file nor a directory; the kernel's EPERM stays EPERM. Inode flags that TQFileStatus
// has no bit for stay as they are.

#pragma once

#include "Platform/Item.h"
#include "Platform/UniqueFd.h"

#include <vaultry/file_status.h>

#include <sys/stat.h>

// Neither the mode nor the name of an item with one of these can be changed.
inline constexpr uint32_t kBlockingFlags = kTQFlagImmutable | kTQFlagAppend;

namespace platform {

int GetStatus(const Item &item, Links links, TQFileStatus *out);
int GetStatusOfFd(int fd, TQFileStatus *out);

// A file with fewer blocks than its size takes certainly has holes. One with as many may have holes too: attributes
// take blocks, and there may be some beyond its end.
inline bool HasHoles(const TQFileStatus &status)
{
    return status.blocks * 512 < status.size;
}

int SetFlags(const Item &item, Links links, uint32_t flags);
int SetFlagsOfFd(int fd, uint32_t flags);

// Whether this thread has the privilege to set and clear kBlockingFlags. Root in a container may have it and still be
// refused.
bool MaySetBlockingFlags();

// With Links::NoFollow, a link fails with EOPNOTSUPP, and what it points to is not touched.
int SetMode(const Item &item, Links links, mode_t mode);

// Pins exactly the item that was looked at before, whatever its name leads to by now. The descriptor only points to it:
// opening it needs no permission on the item and changes no access time, and nothing can be read through it. Empty,
// with ESTALE if device or inode are different, or with another errno.
UniqueFd PinItem(const Item &item, const TQFileStatus &expected);
int SetModeOfPinned(int fd, mode_t mode); // EOPNOTSUPP for a link
// `status` is the item's current status.
int SetFlagsOfPinned(int fd, const TQFileStatus &status, uint32_t flags);

// Linux has no call that writes a birth time: always -1 with ENOTSUP.
int SetBirthTime(const Item &item, const struct timespec &time);
int SetBirthTimeOfFd(int fd, const struct timespec &time);

} // namespace platform
