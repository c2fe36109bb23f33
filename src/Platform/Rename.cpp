#include "Platform/Rename.h"

#include "Platform/FileStatus.h"
#include "Platform/ScopeExit.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

Held HoldsItem(const Item &place, const ItemId &id)
{
    TQFileStatus status;
    if (GetStatus(place, Links::NoFollow, &status) != 0) return errno == ENOENT ? Held::No : Held::Unknown;
    return ItemId::Of(status) == id ? Held::Yes : Held::No;
}

static bool _IsAt(const Item &place, const ItemId &id)
{
    const ErrnoKeeper keeper;
    return HoldsItem(place, id) == Held::Yes;
}

// The file has two names now, and the first is removed. If it is certain that the first is still there, the second is
// removed instead. If that can't be told, both stay.
static bool _DropFirstName(const Item &from, const ItemId &id, const Item &to)
{
    if (unlinkat(from.directory, from.name, 0) == 0) return true;
    const ErrnoKeeper keeper;
    const Held held = HoldsItem(from, id);
    if (held == Held::Yes) (void)unlinkat(to.directory, to.name, 0); // the item keeps the name that it had
    return held == Held::No;
}

// A link replaces nothing, and leaves no gap in which somebody could take the name. False with EEXIST, or if the item
// can't be linked, or if its first name could not be removed.
static bool _MoveByLink(const Item &from, const ItemId &id, const Item &to)
{
    const bool isLinked = linkat(from.directory, from.name, to.directory, to.name, 0) == 0 || _IsAt(to, id);
    return isLinked && _DropFirstName(from, id, to);
}

// Finishes a move by link that was killed between its two steps and left both names.
static bool _FinishMoveByLink(const Item &from, const ItemId &id, const Item &to)
{
    const ErrnoKeeper keeper;
    TQFileStatus status;
    return GetStatus(from, Links::NoFollow, &status) == 0 && ItemId::Of(status) == id && !S_ISDIR(status.mode) &&
           HoldsItem(to, id) == Held::Yes && unlinkat(from.directory, from.name, 0) == 0;
}

// Looking first leaves a gap, but keeps what is there already.
static bool _MoveAfterLook(const Item &from, const Item &to)
{
    TQFileStatus status;
    if (GetStatus(to, Links::NoFollow, &status) != 0)
        return errno == ENOENT && renameat(from.directory, from.name, to.directory, to.name) == 0;
    errno = EEXIST;
    return false;
}

static bool _Move(const Item &from, const ItemId &id, const Item &to)
{
    if (renameat2(from.directory, from.name, to.directory, to.name, RENAME_NOREPLACE) == 0) return true;
    if (IsRenameFlagUnknown(errno)) {
        if (_MoveByLink(from, id, to)) return true;
        // A folder, or a file that may not be linked.
        if (errno != EEXIST && !_IsAt(to, id) && _MoveAfterLook(from, to)) return true;
    }
    return errno == EEXIST && _FinishMoveByLink(from, id, to);
}

Held HasMoved(const Item &from, const ItemId &id, const Item &to)
{
    const ErrnoKeeper keeper;
    const Held arrived = HoldsItem(to, id), stayed = HoldsItem(from, id);
    if (arrived == Held::Unknown || stayed == Held::Unknown) return Held::Unknown;
    return arrived == Held::Yes && stayed == Held::No ? Held::Yes : Held::No;
}

int RenameIntoNothing(const Item &from, const ItemId &id, const Item &to)
{
    const int before = errno;
    if (!_Move(from, id, to) && HasMoved(from, id, to) != Held::Yes) return -1;
    errno = before;
    return 0;
}

int ExchangeAt(int directory, const char *one, const char *other)
{
    return renameat2(directory, one, directory, other, RENAME_EXCHANGE);
}

} // namespace platform
