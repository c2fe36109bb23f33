#include "Shared/vaultry_storage_lift.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <cerrno>
#include <sys/stat.h>

bool LiftedGeneration::Look()
{
    isLookedAt_ = isLookedAt_ || platform::GetStatus(Item::AtPath(path_), Links::NoFollow, &before_) == 0;
    return isLookedAt_;
}

// Called after a refusal. A server may have made the change, and its answer been lost. If that can't be told, the item
// counts as changed.
bool LiftedGeneration::IsChanged() const
{
    const ErrnoKeeper keeper;
    TQFileStatus now;
    if (platform::GetStatus(Item::AtPath(path_), Links::NoFollow, &now) != 0) return errno != ENOENT;
    return now.mode != before_.mode || now.flags != before_.flags;
}

bool LiftedGeneration::TakeImmutableFlag()
{
    const uint32_t flags = before_.flags & ~uint32_t{kTQFlagImmutable};
    if (flags == before_.flags) return true;
    const bool done = platform::SetFlags(Item::AtPath(path_), Links::NoFollow, flags) == 0;
    flagTaken_ = done || IsChanged();
    return done;
}

bool LiftedGeneration::AddOwnerWrite()
{
    const bool done = platform::SetMode(Item::AtPath(path_), Links::NoFollow, (before_.mode | 0200) & 07777) == 0;
    modeChanged_ = done || IsChanged();
    return done;
}

bool LiftedGeneration::Gone(bool gone)
{
    if (gone) flagTaken_ = modeChanged_ = false;
    return gone;
}

LiftedGeneration::~LiftedGeneration()
{
    const ErrnoKeeper keeper;
    const Item item = Item::AtPath(path_);
    if (modeChanged_ && platform::SetMode(item, Links::NoFollow, before_.mode & 07777) != 0)
        Failure(nullptr).Errno("Failed to revert permissions on generation root at \"%s\"", path_);
    if (flagTaken_ && platform::SetFlags(item, Links::NoFollow, before_.flags) != 0)
        Failure(nullptr).Errno("Failed to revert flags on generation root at \"%s\"", path_);
}

bool _MakePinnedMovable(int fd, const TQFileStatus &status)
{
    if (platform::SetFlagsOfPinned(fd, status, status.flags & ~kBlockingFlags) != 0) return false;
    return !S_ISDIR(status.mode) || (status.mode & 0200) != 0 ||
           platform::SetModeOfPinned(fd, (status.mode | 0200) & 07777) == 0;
}

bool _MakeMovable(const char *path, const TQFileStatus &status)
{
    const bool isMovable = (status.flags & kBlockingFlags) == 0 && (!S_ISDIR(status.mode) || (status.mode & 0200) != 0);
    if (isMovable) return true;
    const UniqueFd pinned = platform::PinItem(Item::AtPath(path), status);
    return pinned && _MakePinnedMovable(pinned.get(), status);
}
