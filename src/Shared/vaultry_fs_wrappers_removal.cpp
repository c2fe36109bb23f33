// Removal of whole trees, protected items included.
//
// One walk: what stands in the way of an item's removal is taken away just before its turn comes. Files go as they are
// met, directories on the way back up. It is no failure if others remove items meanwhile. What is mounted inside is
// left as it is.
//
// Always: rights change only on the item that was looked at, never on what has taken its name. A removal that fails
// before anything has gone puts them back.

#include "Shared/vaultry_fs_wrappers.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Platform/ItemId.h"
#include "Platform/ProcPath.h"
#include "Platform/TreeWalk.h"
#include "Platform/UniqueFd.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Kind = TreeWalk::Kind;
using Entry = TreeWalk::Entry;

constexpr mode_t kDirectoryWriteBits = 0220;

bool IsBlocked(const TQFileStatus &status)
{
    return (status.flags & kBlockingFlags) != 0 && (S_ISREG(status.mode) || S_ISDIR(status.mode));
}

// Only a directory needs write permission, for the removal of its contents.
bool LacksWriteBits(const TQFileStatus &status)
{
    return S_ISDIR(status.mode) && (status.mode & kDirectoryWriteBits) != kDirectoryWriteBits;
}

// Changes the rights of an item that bar its removal, and puts them back. Flags go first and come back last: an
// immutable item refuses chmod.
class HeldItem {
public:
    // For a directory that is open.
    explicit HeldItem(int fd) : fd_(fd) {}

    // For any item, even one that may not be opened: by a descriptor that only points to it, and its path in /proc.
    HeldItem(const Item &item, const TQFileStatus &status) : own_(platform::PinItem(item, status)), fd_(own_.get()) {}

    // If not, errno says why: ESTALE if something else has the name.
    bool isHeld() const { return fd_ >= 0; }

    bool MakeDeletable(const TQFileStatus &status) const
    {
        if (IsBlocked(status) && !SetFlags(status.flags & ~kBlockingFlags)) return false;
        if (!LacksWriteBits(status) || SetMode(status.mode | kDirectoryWriteBits)) return true;
        const ErrnoKeeper keeper;
        if (IsBlocked(status)) (void)SetFlags(status.flags);
        return false;
    }
    bool PutBack(const TQFileStatus &status) const
    {
        return (!LacksWriteBits(status) || SetMode(status.mode)) && (!IsBlocked(status) || SetFlags(status.flags));
    }

private:
    bool SetMode(mode_t mode) const
    {
        mode &= 07777;
        if (!own_) return fchmod(fd_, mode) == 0;
        return platform::SetMode(Item::AtPath(platform::ProcPath(fd_).c_str()), Links::Follow, mode) == 0;
    }
    bool SetFlags(uint32_t flags) const
    {
        if (!own_) return platform::SetFlagsOfFd(fd_, flags) == 0;
        return platform::SetFlags(Item::AtPath(platform::ProcPath(fd_).c_str()), Links::Follow, flags) == 0;
    }

    UniqueFd own_;
    int fd_ = -1;
};

class Removal {
public:
    Removal(const TreeRemoval &how, TQError **error) : how_(how), error_(error) {}

    bool Run(const Item &root);

private:
    bool Remove(const Entry &entry);
    bool MakeDirectoryDeletable(const Entry &entry);
    bool MayTakeFlags(const TQFileStatus &status) const;
    bool RemoveFile(const Item &item);
    bool RemoveBlocked(const Item &item, const TQFileStatus &status);
    bool MayRemoveInside(const TQFileStatus &status) const;
    bool RemoveTree(const Item &item, const TQFileStatus &status);
    bool RemoveDirectory(const Entry &entry);
    bool RemoveLast(const Entry &root);
    bool Unlink(const Item &item, int unlinkFlags);
    bool FailedToUnlink(const Item &item);
    bool HasGone();

    bool PutBack(const HeldItem &held, const char *path, const TQFileStatus &status) const;
    bool PutBackDirectory(const Entry &entry) const;
    void PutBackAbove();

    const TreeRemoval &how_;
    TQError **error_;
    TreeWalk walk_;
    bool begun_ = false;
    bool isAtRoot_ = false;
    uint64_t rootDevice_ = 0;
};

// Notes that the tree is no longer whole, whoever removed a part of it.
bool Removal::HasGone()
{
    begun_ = true;
    if (how_.begun) *how_.begun = true;
    return true;
}

// Whether it has gone, whoever removed it; if not, false with errno.
bool IsUnlinked(const Item &item, int unlinkFlags)
{
    return unlinkat(item.directory, item.name, unlinkFlags) == 0 || errno == ENOENT;
}

bool Removal::Unlink(const Item &item, int unlinkFlags)
{
    return IsUnlinked(item, unlinkFlags) ? HasGone() : FailedToUnlink(item);
}

// Always false.
bool Removal::FailedToUnlink(const Item &item)
{
    Failure(error_).Errno("Failed to remove \"%s\"", item.path);
    // A server may remove the item, and its answer be lost. If that can't be told, the item counts as gone.
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) HasGone();
    return false;
}

// Whether flags bar the removal of a file, and may be taken. What is mounted on it keeps its flags, and so does what is
// somebody else's too.
bool Removal::MayTakeFlags(const TQFileStatus &status) const
{
    const bool isOthersToo = how_.keepsShared && status.linkCount > 1;
    return IsBlocked(status) && !status.isMountRoot && !isOthersToo;
}

// Flags are so rare that a file is looked at only where the kernel has refused its removal.
bool Removal::RemoveFile(const Item &item)
{
    if (IsUnlinked(item, 0)) return HasGone();
    const int why = errno;
    TQFileStatus status;
    const bool isKnown = (why == EPERM || why == EISDIR) && platform::GetStatus(item, Links::NoFollow, &status) == 0;
    if (!isKnown && errno == ENOENT) return HasGone();
    if (isKnown && MayRemoveInside(status)) return RemoveTree(item, status);
    const bool isFile = isKnown && !S_ISDIR(status.mode);
    if (isFile && MayTakeFlags(status)) return RemoveBlocked(item, status);
    if (isFile && !IsBlocked(status)) return Unlink(item, 0); // others may have taken the flag meanwhile
    errno = why;
    return FailedToUnlink(item);
}

// Whether an item was told as a file, and is a directory that may go too. The root must be what it was, and what is
// mounted on an item stays.
bool Removal::MayRemoveInside(const TQFileStatus &status) const
{
    return S_ISDIR(status.mode) && !isAtRoot_ && !how_.isNested && !status.isMountRoot && status.device == rootDevice_;
}

bool Removal::RemoveTree(const Item &item, const TQFileStatus &status)
{
    bool begun = false;
    const bool isRemoved = _RemoveTreeAt(
        item, {.keepsShared = how_.keepsShared, .isNested = true, .expected = &status, .begun = &begun}, error_);
    if (begun || isRemoved) HasGone();
    return isRemoved;
}

bool Removal::RemoveBlocked(const Item &item, const TQFileStatus &status)
{
    const HeldItem held(item, status);
    if (!held.isHeld() && errno == ENOENT) return HasGone();
    if (!held.isHeld() || !held.MakeDeletable(status))
        return Failure(error_).Errno("Failed to make \"%s\" deletable", item.path);
    return Unlink(item, 0) || PutBack(held, item.path, status);
}

bool Removal::MakeDirectoryDeletable(const Entry &entry)
{
    if (entry.isElsewhere || !(IsBlocked(entry.status) || LacksWriteBits(entry.status))) return true;
    const HeldItem open(walk_.OpenDirectory());
    if (open.isHeld() ? open.MakeDeletable(entry.status) : errno == ENOENT) return true; // the walk goes on to its end
    if (!open.isHeld() && errno == EACCES) {
        const HeldItem closed(entry.item, entry.status);
        if (closed.isHeld() ? closed.MakeDeletable(entry.status) : errno == ENOENT) return true;
    }
    return Failure(error_).Errno("Failed to make \"%s\" deletable", entry.item.path);
}

bool Removal::RemoveLast(const Entry &root)
{
    char path[TreeWalk::kPathLimit];
    (void)snprintf(path, sizeof path, "%s/%s", root.item.path, how_.last);
    const Item item{root.fd, how_.last, path};
    TQFileStatus status;
    return (platform::GetStatus(item, Links::NoFollow, &status) != 0 && errno == ENOENT) || RemoveFile(item);
}

bool Removal::RemoveDirectory(const Entry &entry)
{
    const bool isRoot = entry.level == 0;
    if (isRoot && how_.last && entry.fd >= 0 && !RemoveLast(entry)) return PutBackDirectory(entry);
    if (isRoot && how_.keepRoot) return true;
    return Unlink(entry.item, AT_REMOVEDIR) || PutBackDirectory(entry);
}

bool Removal::Remove(const Entry &entry)
{
    isAtRoot_ = entry.level == 0;
    if (isAtRoot_ && entry.hasStatus) rootDevice_ = entry.status.device;
    if (entry.level == 0 && entry.hasStatus && how_.expected &&
        ItemId::Of(entry.status) != ItemId::Of(*how_.expected)) {
        errno = ESTALE;
        return Failure(error_).Errno("Failed to remove \"%s\"", entry.item.path);
    }
    switch (entry.kind) {
    case Kind::Directory:
        return MakeDirectoryDeletable(entry);
    case Kind::File:
    case Kind::Link:
    case Kind::Other:
        if (entry.level == 1 && how_.last && strcmp(entry.item.name, how_.last) == 0) return true;
        return RemoveFile(entry.item);
    case Kind::DirectoryDone:
    case Kind::Unreadable:
        return RemoveDirectory(entry);
    case Kind::NoStatus:
    case Kind::Error:
        if (entry.error == ENOENT) return entry.level == 0 || HasGone();
        errno = entry.error;
        return Failure(error_).Errno("fts_read() failed for path '%s'\n", entry.item.path);
    }
    return true;
}

// Always returns false, since the removal has failed.
bool Removal::PutBack(const HeldItem &held, const char *path, const TQFileStatus &status) const
{
    const ErrnoKeeper keeper;
    if (!begun_ && !(held.isHeld() && held.PutBack(status)))
        Failure(nullptr).Errno("Failed to put the rights of \"%s\" back", path);
    return false;
}

bool Removal::PutBackDirectory(const Entry &entry) const
{
    if (begun_ || entry.isElsewhere || !(IsBlocked(entry.status) || LacksWriteBits(entry.status))) return false;
    if (entry.fd >= 0) return PutBack(HeldItem(entry.fd), entry.item.path, entry.status);
    return PutBack(HeldItem(entry.item, entry.status), entry.item.path, entry.status);
}

// As long as nothing has gone, only the directories on the way down to where it failed were made deletable.
void Removal::PutBackAbove()
{
    const ErrnoKeeper keeper;
    walk_.SkipRest();
    while (const Entry *entry = begun_ ? nullptr : walk_.Next()) {
        (void)PutBackDirectory(*entry);
        walk_.SkipRest();
    }
}

bool Removal::Run(const Item &root)
{
    if (!walk_.Open(root, TreeWalk::Volumes::One, TreeWalk::Look::KindOnly))
        return Failure(error_).Errno("fts_open(\"%s\") failed", root.path);
    while (const Entry *entry = walk_.Next()) {
        if (Remove(*entry)) continue;
        PutBackAbove();
        return false;
    }
    return true;
}

} // namespace

bool _RemoveTreeAt(const Item &root, const TreeRemoval &how, TQError **error)
{
    return Removal(how, error).Run(root);
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
