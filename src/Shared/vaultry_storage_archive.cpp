// Archiving: an item's write permissions recorded in one byte, and then taken away.

#include "Shared/vaultry_storage.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
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

uint32_t LiftedFlags(const TQFileStatus &status)
{
    return status.flags & ~(kBlockingFlags | kTQFlagTracked);
}

bool NeedsLifting(const TQFileStatus &status)
{
    // A link's rights are those of its target, which may lie outside the tree: it is left alone.
    return !S_ISLNK(status.mode) && (LiftedFlags(status) != status.flags || (status.mode & 0200) == 0);
}

// Setting an attribute takes the item's own write permission, however its descriptor was opened.
mode_t LiftedMode(const TQFileStatus &status)
{
    return (status.mode | 0200) & 07777;
}

bool LiftOpen(int fd, const ArchivedItem &archived, TQError **error)
{
    const TQFileStatus &before = archived.before;
    const bool isWritable = (archived.modeNow.value_or(before.mode) & 0200) != 0;
    if ((LiftedFlags(before) == before.flags || platform::SetFlagsOfFd(fd, LiftedFlags(before)) == 0) &&
        (isWritable || fchmod(fd, LiftedMode(before)) == 0))
        return true;
    return Failure(error).Errno("failed to make path \"%s\" writable", archived.item.path);
}

// An item that can't be opened before it is lifted is held by a descriptor that only points to it. So nothing else is
// lifted, whatever its name leads to by now.
bool LiftPinned(const ArchivedItem &archived, const TQFileStatus &now, TQError **error)
{
    const TQFileStatus &before = archived.before;
    const UniqueFd pinned = platform::PinItem(archived.item, now);
    if (pinned &&
        (LiftedFlags(before) == before.flags ||
         platform::SetFlagsOfPinned(pinned.get(), now, LiftedFlags(before)) == 0) &&
        (LiftedMode(before) == (before.mode & 07777) ||
         platform::SetModeOfPinned(pinned.get(), LiftedMode(before)) == 0))
        return true;
    return Failure(error).Errno("failed to make path \"%s\" writable", archived.item.path);
}

// Never blocks, not even on a FIFO, which fails later, when the attribute is set.
UniqueFd OpenForArchiving(const Item &item, const TQFileStatus &now)
{
    const int access = S_ISDIR(now.mode) ? O_RDONLY : O_RDWR;
    UniqueFd fd(openat(item.directory, item.name, access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    TQFileStatus found;
    if (!fd || platform::GetStatusOfFd(fd.get(), &found) != 0) return UniqueFd();
    if (ItemId::Of(found) == ItemId::Of(now)) return fd;
    errno = ESTALE;
    return UniqueFd();
}

bool StoreUncompressed(int fd, const Item &item, const TQFileStatus &status, TQError **error)
{
    if ((status.flags & kTQFlagCompressed) == 0) return true;
    const uint32_t flags = status.flags & ~(kTQFlagCompressed | kTQFlagTracked | kBlockingFlags);
    if (platform::SetFlagsOfFd(fd, flags) == 0) return true;
    return Failure(error).Errno("failed make path \"%s\" uncompressed", item.path);
}

bool RecordPermissions(int fd, const ArchivedItem &archived, TQError **error)
{
    const uint8_t own = SavedPermissionsOf(archived.before.mode, archived.before.flags);
    const uint8_t saved = archived.record.value_or(own);
    const auto write = archived.replaceRecord ? platform::SetAttributeOfFd : platform::AddAttributeOfFd;
    const auto isWritten = [&] { return write(fd, kSavedPermissionsAttribute, &saved, sizeof saved) == 0; };
    if (isWritten()) return true;
    const int refused = errno;
    // The mode of a new file may have been assumed, and another thread have changed the process's umask.
    const bool mayBeWrong = archived.modeNow && refused == EACCES;
    if (mayBeWrong && fchmod(fd, LiftedMode(archived.before)) == 0 && isWritten()) return true;
    // A byte that is there already stays: it says what the document had when it was first archived. The refusal may
    // also be of a full volume, which asks for room before it looks for the byte.
    if (!archived.replaceRecord && _FDHasAttribute(fd, kSavedPermissionsAttribute)) return true;
    errno = refused;
    return Failure(error).Errno("failed to save original permissions for \"%s\"", archived.item.path);
}

bool TakeWriteAccess(int fd, const Item &item, const TQFileStatus &status, bool makeReadable, TQError **error)
{
    mode_t mode = status.mode & 07777 & ~kWriteBits;
    if (makeReadable) mode |= S_ISDIR(status.mode) ? 0555 : 0444;
    if (fchmod(fd, mode) == 0) return true;
    return Failure(error).Errno("failed to set archived permissions for \"%s\"", item.path);
}

bool ArchiveLifted(int fd, const ArchivedItem &archived, TQError **error)
{
    return StoreUncompressed(fd, archived.item, archived.before, error) && RecordPermissions(fd, archived, error) &&
           TakeWriteAccess(fd, archived.item, archived.before, archived.makeReadable, error);
}

// How the items of a tree are archived.
struct TreeArchiving {
    bool makeReadable;
    bool moved;
    uint64_t *totalSize; // may be null
    bool keepLinks = false;
    platform::VolumeMemory volumes{};
};

// A moved sidecar is not archived, but it is somebody's file, and so it is flushed. (Whoever moved the root flushes
// that.)
bool KeepSidecar(const TreeWalk::Entry &entry, TreeArchiving &how, TQError **error)
{
    if (!how.moved || entry.level == 0 || how.volumes.HonoursFlush(entry.item.directory, entry.status.device))
        return true;
    const UniqueFd fd(openat(entry.item.directory, entry.item.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd && platform::FlushFd(fd.get()) == 0) return true;
    return Failure(error).Errno("Failed to flush \"%s\" to disk", entry.item.path);
}

bool FinishArchiving(UniqueFd &fd, const ArchivedItem &archived, const TQFileStatus &now, TQError **error)
{
    const bool reached = !archived.flush || archived.flush->HonoursFlush(fd.get(), now.device);
    if ((reached || platform::FlushFd(fd.get()) == 0) && fd.Close() == 0) return true;
    return Failure(error).Errno("Failed to flush \"%s\" to disk", archived.item.path);
}

// `before` is what the item has. If a copy takes the place of a hard link, it becomes what the copy has: a copy of
// another owner's file belongs to its maker, and the file's set-id bits would lend rights that nobody gave.
bool ArchiveEntry(const TreeWalk::Entry &entry, TreeArchiving &how, TQFileStatus *before, TQError **error)
{
    UniqueFd copy;
    switch (entry.kind) {
    case Kind::Unreadable:
    case Kind::NoStatus:
    case Kind::Error:
        errno = entry.error;
        return Failure(error).Errno("fts_read() failed for path '%s'\n", entry.item.path);
    case Kind::Directory: // finished after its contents: without its write bit it takes no more children
        return true;
    case Kind::File:
        if (IsSidecarName(entry.item.name)) return KeepSidecar(entry, how, error);
        if (entry.status.linkCount >= 2) {
            const bool noteParent = how.moved && entry.level > 0;
            copy = _BreakHardLink({entry.item, entry.status, entry.parentPathLength, noteParent}, before, error);
            if (!copy) return false;
        }
        if (how.totalSize) *how.totalSize += entry.status.size;
        break;
    case Kind::Link: // has neither rights nor attributes that could be recorded
        if (how.keepLinks && entry.level > 0) return true;
        break;
    case Kind::DirectoryDone:
    case Kind::Other:
        break;
    }
    const ArchivedItem archived{.item = entry.item,
                                .before = *before,
                                .makeReadable = how.makeReadable,
                                .replaceRecord = how.moved,
                                .flush = how.moved ? &how.volumes : nullptr};
    // For an instant, the name may still lead to what it was on a volume that hosts share.
    if (copy) return _ArchiveOpenItem(archived, copy.get(), error) && FinishArchiving(copy, archived, *before, error);
    return _ArchiveItemAt(archived, *before, error);
}

// Whether a moved tree will stay whole and can be copied out. It has to be on one volume, since what is mounted inside
// goes when it is unmounted. It also has to be within the kernel's limit for paths, which a copy always is.
bool CanStay(const TreeWalk::Entry &entry, TQError **error)
{
    const bool elsewhere = entry.hasStatus && entry.isElsewhere;
    if (!elsewhere && strlen(entry.item.path) < PATH_MAX) return true;
    errno = elsewhere ? EXDEV : ENAMETOOLONG;
    return Failure(error).Errno("fts_read() failed for path '%s'\n", entry.item.path);
}

void PutBackModeAndFlags(const TreeWalk::Entry &entry, const TQFileStatus &before)
{
    if (!entry.hasStatus || entry.kind == Kind::Link) return;
    const ErrnoKeeper keeper;
    const UniqueFd pinned = platform::PinItem(entry.item, before);
    TQFileStatus found;
    if (!pinned || platform::SetModeOfPinned(pinned.get(), before.mode & 07777) != 0)
        Failure(nullptr).Errno("Failed to put the mode of \"%s\" back", entry.item.path);
    if (!pinned || platform::GetStatusOfFd(pinned.get(), &found) != 0 ||
        (platform::SetFlagsOfPinned(pinned.get(), found, before.flags) != 0 && errno != ENOTSUP))
        Failure(nullptr).Errno("Failed to put the flags of \"%s\" back", entry.item.path);
}

bool ArchiveTree(const char *path, TreeArchiving how, TQError **error)
{
    TreeWalk walk;
    const char *root = path ? path : "";
    if (!walk.Open(root)) return Failure(error).Errno("fts_open(\"%s\") failed", root);
    while (const TreeWalk::Entry *entry = walk.Next()) {
        TQFileStatus before = entry->status;
        if ((!how.moved || CanStay(*entry, error)) && ArchiveEntry(*entry, how, &before, error)) continue;
        if (how.moved) PutBackModeAndFlags(*entry, before);
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

uint32_t SavedFlags(uint8_t saved)
{
    return ((saved & kSavedImmutable) ? uint32_t{kTQFlagImmutable} : 0) |
           ((saved & kSavedAppend) ? uint32_t{kTQFlagAppend} : 0);
}

bool IsSidecarName(const char *name)
{
    const char *last = strrchr(name, '/');
    return strncmp(last ? last + 1 : name, "._", 2) == 0;
}

bool _ArchiveOpenItem(const ArchivedItem &archived, int fd, TQError **error)
{
    return LiftOpen(fd, archived, error) && ArchiveLifted(fd, archived, error);
}

bool _ArchiveItemAt(const ArchivedItem &archived, const TQFileStatus &now, TQError **error)
{
    const Item &item = archived.item;
    if (NeedsLifting(archived.before) && !LiftPinned(archived, now, error)) return false;

    // Opening a device uses it: some rewind a tape or reset the machine. None takes an attribute.
    if (S_ISCHR(now.mode) || S_ISBLK(now.mode)) {
        errno = EPERM;
        return Failure(error).Errno("failed to save original permissions for \"%s\"", item.path);
    }
    UniqueFd fd = OpenForArchiving(item, now);
    if (!fd) return Failure(error).Errno("failed to open generation item \"%s\"", item.path);
    return ArchiveLifted(fd.get(), archived, error) && FinishArchiving(fd, archived, now, error);
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
    const TQFileStatus &before = status ? *status : own;
    return _ArchiveItemAt({.item = item, .before = before, .makeReadable = makeReadable}, known ? own : before, error);
}

bool TQArchiveTree(const char *path, bool makeReadable, uint64_t *totalSize, TQError **error)
{
    return ArchiveTree(path, {.makeReadable = makeReadable, .moved = false, .totalSize = totalSize}, error);
}

bool _ArchiveMovedTree(const char *path, bool makeReadable, bool keepLinks, uint64_t *totalSize, TQError **error)
{
    return ArchiveTree(
        path, {.makeReadable = makeReadable, .moved = true, .totalSize = totalSize, .keepLinks = keepLinks}, error);
}
