#include "Shared/vaultry_storage_lift.h"

#include "Platform/FileStatus.h"
#include "Platform/ScopeExit.h"
#include "Shared/vaultry_internal_failure.h"

#include <cerrno>

bool LiftedGeneration::Look()
{
    return platform::GetStatus(Item::AtPath(path_), Links::NoFollow, &before_) == 0;
}

// After a refusal. A server may have made the change and its answer been lost; what can't be told counts as changed.
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
