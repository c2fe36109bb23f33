// Status records, modes and file flags of items.
//
// All return 0, or -1 with errno; errno is untouched on success. A status is one statx.
//
// Flags are inode flags, and setting them needs a descriptor, or file_setattr where the kernel has it and
// the item can't be opened. Bits that already stand are not set again: that would need a
// privilege, or a file system, that leaving them alone does not. What the file system cannot hold, 0x40, and any
// item that is neither file nor directory answer ENOTSUP; the kernel's EPERM stays EPERM. Inode
// flags that have no bit in our word survive.

#pragma once

#include "Platform/Item.h"
#include "Platform/UniqueFd.h"

#include <vaultry/file_status.h>

#include <sys/stat.h>

// An item with one of these takes neither a change of its mode nor a new name.
inline constexpr uint32_t kBlockingFlags = kTQFlagImmutable | kTQFlagAppend;

namespace platform {

int GetStatus(const Item &item, Links links, TQFileStatus *out);
int GetStatusOfFd(int fd, TQFileStatus *out);

int SetFlags(const Item &item, Links links, uint32_t flags);
int SetFlagsOfFd(int fd, uint32_t flags);

// Whether this thread has the privilege that setting and clearing kBlockingFlags takes. Root in a container may have it
// in vain.
bool MaySetBlockingFlags();

// With Links::NoFollow a link answers EOPNOTSUPP, and nothing it points to is touched.
int SetMode(const Item &item, Links links, mode_t mode);

// For work on exactly the item that was looked at before, whatever its name leads to meanwhile. The descriptor only
// points: it takes neither permission nor time of access, and reads nothing. Empty, with ESTALE if the item is another
// by device or inode, or with errno.
UniqueFd PinItem(const Item &item, const TQFileStatus &expected);
int SetModeOfPinned(int fd, mode_t mode); // of a link EOPNOTSUPP
// `status` is the item's as it stands.
int SetFlagsOfPinned(int fd, const TQFileStatus &status, uint32_t flags);

// Linux has no call that writes a birth time: always -1 with ENOTSUP.
int SetBirthTime(const Item &item, const struct timespec &time);
int SetBirthTimeOfFd(int fd, const struct timespec &time);

} // namespace platform
