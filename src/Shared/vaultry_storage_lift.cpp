#include "Shared/vaultry_storage_lift.h"

#include "Platform/FileStatus.h"
#include "Platform/ScopeExit.h"
#include "Shared/vaultry_internal_failure.h"

bool LiftedGeneration::Look()
{
    return platform::GetStatus(Item::AtPath(path_), Links::NoFollow, &before_) == 0;
}

bool LiftedGeneration::TakeImmutableFlag()
{
    const uint32_t flags = before_.flags & ~uint32_t{kTQFlagImmutable};
    if (flags == before_.flags) return true;
    flagTaken_ = platform::SetFlags(Item::AtPath(path_), Links::NoFollow, flags) == 0;
    return flagTaken_;
}

bool LiftedGeneration::AddOwnerWrite()
{
    modeChanged_ = true; // if it can't be told whether it was, it is put back all the same
    return platform::SetMode(Item::AtPath(path_), Links::NoFollow, (before_.mode | 0200) & 07777) == 0;
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
