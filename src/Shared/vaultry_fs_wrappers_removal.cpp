// Removal of whole trees, protected items included.
//
// One walk: what stands in the way of an item's removal is taken away just before its turn comes. Files go as they
// are met, directories on the way back up. What others remove meanwhile is no failure.

#include "Shared/vaultry_fs_wrappers.h"

#include "Platform/FileStatus.h"
#include "Platform/TreeWalk.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;

constexpr uint32_t kDeletionBlockers = kTQFlagImmutable | kTQFlagAppend;
constexpr mode_t kDirectoryWriteBits = 0220;

bool ClearDeletionBlockers(const TreeWalk::Entry &entry)
{
    const uint32_t flags = entry.status.flags;
    return (flags & kDeletionBlockers) == 0 ||
           platform::SetFlags(entry.item, Links::NoFollow, flags & ~kDeletionBlockers) == 0;
}

// A directory gives up its contents only with write permission. Flags go first: an immutable directory refuses chmod.
bool MakeDirectoryDeletable(const TreeWalk::Entry &entry, TQError **error)
{
    const mode_t mode = entry.status.mode;
    const bool writable = (mode & kDirectoryWriteBits) == kDirectoryWriteBits; // then chmod would change nothing
    if (ClearDeletionBlockers(entry) &&
        (writable || platform::SetMode(entry.item, Links::NoFollow, (mode | kDirectoryWriteBits) & 07777) == 0))
        return true;
    return Failure(error).Errno("Failed to make \"%s\" deletable", entry.item.path);
}

bool RemoveEntry(const TreeWalk::Entry &entry, int unlinkFlags, TQError **error)
{
    if (unlinkat(entry.item.directory, entry.item.name, unlinkFlags) == 0 || errno == ENOENT) return true;
    return Failure(error).Errno("Failed to remove \"%s\"", entry.item.path);
}

bool RemoveOne(const TreeWalk::Entry &entry, bool keepRoot, TQError **error)
{
    switch (entry.kind) {
    case Kind::Directory:
        return MakeDirectoryDeletable(entry, error);
    case Kind::File:
    case Kind::Link:
    case Kind::Other:
        if (!ClearDeletionBlockers(entry))
            return Failure(error).Errno("Failed to make \"%s\" deletable", entry.item.path);
        return RemoveEntry(entry, 0, error);
    case Kind::DirectoryDone:
    case Kind::Unreadable:
        return (keepRoot && entry.level == 0) || RemoveEntry(entry, AT_REMOVEDIR, error);
    case Kind::NoStatus:
    case Kind::Error:
        if (entry.error == ENOENT) return true;
        errno = entry.error;
        return Failure(error).Errno("fts_read() failed for path '%s'\n", entry.item.path);
    }
    return true;
}

} // namespace

bool _RemoveTreeInternal(const char *path, bool keepRoot, TQError **error)
{
    TreeWalk walk;
    const char *root = path ? path : "";
    if (!walk.Open(root)) return Failure(error).Errno("fts_open(\"%s\") failed", root);
    while (const TreeWalk::Entry *entry = walk.Next())
        if (!RemoveOne(*entry, keepRoot, error)) return false;
    return true;
}

bool _RemoveTree(const char *path, uintptr_t, TQError **error)
{
    return _RemoveTreeInternal(path, /*keepRoot=*/false, error);
}

bool _RemoveSubTrees(const char *path, uintptr_t, TQError **error)
{
    return _RemoveTreeInternal(path, /*keepRoot=*/true, error);
}
