// Removal of whole trees, protected items included.
//
// One walk: what stands in the way of an item's removal is taken away just before its turn comes. Files go as they
// are met, directories on the way back up. What others remove meanwhile is no failure.

#include "Shared/vaultry_fs_wrappers.h"

#include "Platform/FileStatus.h"
#include "Platform/TreeWalk.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;
using Entry = TreeWalk::Entry;

constexpr uint32_t kDeletionBlockers = kTQFlagImmutable | kTQFlagAppend;
constexpr mode_t kDirectoryWriteBits = 0220;

bool ClearDeletionBlockers(const Item &item, const TQFileStatus &status)
{
    return (status.flags & kDeletionBlockers) == 0 ||
           platform::SetFlags(item, Links::NoFollow, status.flags & ~kDeletionBlockers) == 0;
}

// A directory gives up its contents only with write permission. Flags go first: an immutable directory refuses chmod.
bool MakeDirectoryDeletable(const Entry &entry, TQError **error)
{
    const mode_t mode = entry.status.mode;
    const bool writable = (mode & kDirectoryWriteBits) == kDirectoryWriteBits; // then chmod would change nothing
    if (ClearDeletionBlockers(entry.item, entry.status) &&
        (writable || platform::SetMode(entry.item, Links::NoFollow, (mode | kDirectoryWriteBits) & 07777) == 0))
        return true;
    return Failure(error).Errno("Failed to make \"%s\" deletable", entry.item.path);
}

class Removal {
public:
    Removal(const TreeRemoval &how, TQError **error) : how_(how), error_(error) {}

    bool Remove(const Entry &entry);

private:
    bool IsExpected(const Entry &entry) const
    {
        return entry.level > 0 || !how_.expected ||
               (entry.status.device == how_.expected->device && entry.status.inode == how_.expected->inode);
    }
    bool GoesLast(const Entry &entry) const
    {
        return entry.level == 1 && how_.last && strcmp(entry.item.name, how_.last) == 0;
    }
    bool RemoveFile(const Item &item, const TQFileStatus &status);
    bool RemoveDirectory(const Entry &entry);
    bool RemoveLast(const Entry &root);
    bool Unlink(const Item &item, int unlinkFlags);
    bool Fail(const Entry &entry);

    const TreeRemoval &how_;
    TQError **error_;
};

bool Removal::Unlink(const Item &item, int unlinkFlags)
{
    const bool gone = unlinkat(item.directory, item.name, unlinkFlags) == 0;
    if (gone && how_.begun) *how_.begun = true;
    return gone || errno == ENOENT || Failure(error_).Errno("Failed to remove \"%s\"", item.path);
}

bool Removal::RemoveFile(const Item &item, const TQFileStatus &status)
{
    if (!ClearDeletionBlockers(item, status))
        return Failure(error_).Errno("Failed to make \"%s\" deletable", item.path);
    return Unlink(item, 0);
}

bool Removal::RemoveLast(const Entry &root)
{
    const Item item{root.fd, how_.last, root.item.path};
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) == 0) return RemoveFile(item, status);
    return errno == ENOENT || Failure(error_).Errno("Failed to make \"%s\" deletable", item.path);
}

bool Removal::RemoveDirectory(const Entry &entry)
{
    if (entry.level == 0 && how_.last && entry.fd >= 0 && !RemoveLast(entry)) return false;
    return (how_.keepRoot && entry.level == 0) || Unlink(entry.item, AT_REMOVEDIR);
}

bool Removal::Fail(const Entry &entry)
{
    return Failure(error_).Errno("fts_read() failed for path '%s'\n", entry.item.path);
}

bool Removal::Remove(const Entry &entry)
{
    if (entry.hasStatus && !IsExpected(entry)) {
        errno = ESTALE;
        return Fail(entry);
    }
    switch (entry.kind) {
    case Kind::Directory:
        return MakeDirectoryDeletable(entry, error_);
    case Kind::File:
    case Kind::Link:
    case Kind::Other:
        return GoesLast(entry) || RemoveFile(entry.item, entry.status);
    case Kind::DirectoryDone:
    case Kind::Unreadable:
        return RemoveDirectory(entry);
    case Kind::NoStatus:
    case Kind::Error:
        errno = entry.error;
        return errno == ENOENT || Fail(entry);
    }
    return true;
}

} // namespace

bool _RemoveTreeAt(const Item &root, const TreeRemoval &how, TQError **error)
{
    TreeWalk walk;
    if (!walk.Open(root)) return Failure(error).Errno("fts_open(\"%s\") failed", root.path);
    Removal removal(how, error);
    while (const Entry *entry = walk.Next())
        if (!removal.Remove(*entry)) return false;
    return true;
}

bool _RemoveTreeInternal(const char *path, bool keepRoot, TQError **error)
{
    return _RemoveTreeAt(Item::AtPath(path ? path : ""), {.keepRoot = keepRoot}, error);
}

bool _RemoveTree(const char *path, uintptr_t, TQError **error)
{
    return _RemoveTreeInternal(path, /*keepRoot=*/false, error);
}

bool _RemoveSubTrees(const char *path, uintptr_t, TQError **error)
{
    return _RemoveTreeInternal(path, /*keepRoot=*/true, error);
}
