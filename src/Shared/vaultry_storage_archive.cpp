// Archiving: an item's write permissions recorded in one byte, and then taken away.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/TreeWalk.h"
#include "Platform/UniqueFd.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;

constexpr uint32_t kProtectingFlags = kTQFlagImmutable | kTQFlagAppend;

// A link's rights are those of its target, which may lie outside the tree: it is left alone.
bool LiftForArchiving(const Item &item, int fd, const TQFileStatus &status, TQError **error)
{
    if (S_ISLNK(status.mode)) return true;

    const uint32_t flags = status.flags & ~(kProtectingFlags | kTQFlagTracked);
    if (flags != status.flags &&
        (fd >= 0 ? platform::SetFlagsOfFd(fd, flags) : platform::SetFlags(item, Links::NoFollow, flags)) != 0)
        return Failure(error).Errno("failed to make path \"%s\" writable", item.path);

    // Setting an attribute takes the item's own write permission, however its descriptor was opened.
    const mode_t mode = (status.mode | 0200) & 07777;
    if ((status.mode & 0200) == 0 && (fd >= 0 ? fchmod(fd, mode) : platform::SetMode(item, Links::NoFollow, mode)) != 0)
        return Failure(error).Errno("failed to make path \"%s\" writable", item.path);
    return true;
}

// Never blocks, on a FIFO either; that fails later, when the attribute is set.
int OpenForArchiving(const Item &item, const TQFileStatus &status)
{
    const int access = S_ISDIR(status.mode) ? O_RDONLY : O_RDWR;
    return openat(item.directory, item.name, access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

bool StoreUncompressed(int fd, const Item &item, const TQFileStatus &status, TQError **error)
{
    if ((status.flags & kTQFlagCompressed) == 0) return true;
    const uint32_t flags = status.flags & ~(kTQFlagCompressed | kTQFlagTracked | kProtectingFlags);
    if (platform::SetFlagsOfFd(fd, flags) == 0) return true;
    return Failure(error).Errno("failed make path \"%s\" uncompressed", item.path);
}

// An item that was archived before keeps the byte of that time: it says what the document had.
bool RecordPermissions(int fd, const Item &item, const TQFileStatus &status, TQError **error)
{
    const uint8_t saved = SavedPermissionsOf(status.mode, status.flags);
    if (platform::AddAttributeOfFd(fd, kSavedPermissionsAttribute, &saved, sizeof saved) == 0) return true;
    // Refused for the byte that is there, or, on a full volume, for want of room before the byte was looked for.
    const int refused = errno;
    if (_FDHasAttribute(fd, kSavedPermissionsAttribute)) return true;
    errno = refused;
    return Failure(error).Errno("failed to save original permissions for \"%s\"", item.path);
}

bool TakeWriteAccess(int fd, const Item &item, const TQFileStatus &status, bool makeReadable, TQError **error)
{
    mode_t mode = status.mode & 07777 & ~kWriteBits;
    if (makeReadable) mode |= S_ISDIR(status.mode) ? 0555 : 0444;
    if (fchmod(fd, mode) == 0) return true;
    return Failure(error).Errno("failed to set archived permissions for \"%s\"", item.path);
}

bool ArchiveEntry(const TreeWalk::Entry &entry, bool makeReadable, uint64_t *totalSize, TQError **error)
{
    switch (entry.kind) {
    case Kind::Unreadable:
    case Kind::NoStatus:
    case Kind::Error:
        errno = entry.error;
        return Failure(error).Errno("fts_read() failed for path '%s'\n", entry.item.path);
    case Kind::Directory: // finished after its contents: without its write bit it takes no more children
        return true;
    case Kind::File:
        if (IsSidecarName(entry.item.name)) return true;
        if (entry.status.linkCount >= 2 && !_BreakHardLink({entry.item, entry.status, entry.parentPathLength}, error))
            return false;
        if (totalSize) *totalSize += entry.status.size;
        break;
    case Kind::DirectoryDone:
    case Kind::Link:
    case Kind::Other:
        break;
    }
    return _ArchiveItemAt(entry.item, /*fd=*/-1, entry.status, makeReadable, error);
}

// What a moved tree has to be so that it stays whole and can be copied out: on one volume, since what is mounted inside
// goes when it is unmounted, and within the kernel's limit for paths, which a copy keeps by itself.
bool CanStay(const TreeWalk::Entry &entry, uint64_t device, TQError **error)
{
    const bool elsewhere = entry.hasStatus && entry.status.device != device;
    if (!elsewhere && strlen(entry.item.path) < PATH_MAX) return true;
    errno = elsewhere ? EXDEV : ENAMETOOLONG;
    return Failure(error).Errno("fts_read() failed for path '%s'\n", entry.item.path);
}

void PutBackModeAndFlags(const TreeWalk::Entry &entry)
{
    if (!entry.hasStatus || entry.kind == Kind::Link) return;
    const ErrnoKeeper keeper;
    if (platform::SetMode(entry.item, Links::NoFollow, entry.status.mode & 07777) != 0)
        Failure(nullptr).Errno("Failed to put the mode of \"%s\" back", entry.item.path);
    if (platform::SetFlags(entry.item, Links::NoFollow, entry.status.flags) != 0 && errno != ENOTSUP)
        Failure(nullptr).Errno("Failed to put the flags of \"%s\" back", entry.item.path);
}

bool ArchiveTree(const char *path, bool makeReadable, uint64_t *totalSize, bool moved, TQError **error)
{
    TreeWalk walk;
    const char *root = path ? path : "";
    if (!walk.Open(root)) return Failure(error).Errno("fts_open(\"%s\") failed", root);
    uint64_t device = 0;
    while (const TreeWalk::Entry *entry = walk.Next()) {
        if (entry->level == 0) device = entry->status.device;
        if ((!moved || CanStay(*entry, device, error)) && ArchiveEntry(*entry, makeReadable, totalSize, error))
            continue;
        if (moved) PutBackModeAndFlags(*entry);
        return false;
    }
    return true;
}

} // namespace

uint8_t SavedPermissionsOf(uint32_t mode, uint32_t flags)
{
    return static_cast<uint8_t>(((flags & kTQFlagImmutable) ? kSavedImmutable : 0) |
                                ((flags & kTQFlagAppend) ? kSavedAppend : 0) | ((mode & 0200) ? kSavedOwnerWrite : 0) |
                                ((mode & 020) ? kSavedGroupWrite : 0) | ((mode & 02) ? kSavedOtherWrite : 0));
}

mode_t SavedWriteBits(uint8_t saved)
{
    return ((saved & kSavedOwnerWrite) ? 0200U : 0U) | ((saved & kSavedGroupWrite) ? 020U : 0U) |
           ((saved & kSavedOtherWrite) ? 02U : 0U);
}

bool IsSidecarName(const char *name)
{
    const char *last = strrchr(name, '/');
    return strncmp(last ? last + 1 : name, "._", 2) == 0;
}

bool _ArchiveItemAt(const Item &item, int fd, const TQFileStatus &status, bool makeReadable, TQError **error)
{
    if (!LiftForArchiving(item, fd, status, error)) return false;

    // To open a device is to use it: some answer by rewinding a tape or by resetting the machine. None takes an attribute.
    if (S_ISCHR(status.mode) || S_ISBLK(status.mode)) {
        errno = EPERM;
        return Failure(error).Errno("failed to save original permissions for \"%s\"", item.path);
    }
    UniqueFd opened;
    if (fd < 0) {
        opened.Reset(OpenForArchiving(item, status));
        fd = opened.get();
        if (fd < 0) return Failure(error).Errno("failed to open generation item \"%s\"", item.path);
    }
    return StoreUncompressed(fd, item, status, error) && RecordPermissions(fd, item, status, error) &&
           TakeWriteAccess(fd, item, status, makeReadable, error);
}

bool _ArchiveItem(const char *path, const TQFileStatus *status, bool makeReadable, TQError **error)
{
    // The status that was given may be that of a link's target; what the item itself is decides whether it is touched.
    const Item item = Item::AtPath(path ? path : "");
    TQFileStatus own;
    const bool known = platform::GetStatus(item, Links::NoFollow, &own) == 0;
    if (known && S_ISLNK(own.mode)) {
        TQFileStatus target;
        if (!status && platform::GetStatus(item, Links::Follow, &target) != 0)
            return Failure(error).Errno("stat(\"%s\") failed", item.path);
        status = &own;
    }
    if (!status && !known) return Failure(error).Errno("stat(\"%s\") failed", item.path);
    return _ArchiveItemAt(item, /*fd=*/-1, status ? *status : own, makeReadable, error);
}

bool TQArchiveTree(const char *path, bool makeReadable, uint64_t *totalSize, TQError **error)
{
    return ArchiveTree(path, makeReadable, totalSize, /*moved=*/false, error);
}

bool _ArchiveMovedTree(const char *path, bool makeReadable, TQError **error)
{
    return ArchiveTree(path, makeReadable, /*totalSize=*/nullptr, /*moved=*/true, error);
}
