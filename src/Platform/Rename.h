// Renames that replace nothing, and one that exchanges two items.

#pragma once

#include "Platform/Item.h"
#include "Platform/ItemId.h"

#include <cerrno>

namespace platform {

// Whether a rename that failed with `error` was refused because the file system or the kernel does not know its flag.
inline bool IsRenameFlagUnknown(int error)
{
    return error == EINVAL || error == ENOSYS || error == ENOTSUP; // which Linux has as EOPNOTSUPP, too
}

// Whether the item `id` stands at a name; Unknown if looking failed.
enum class Held { No, Yes, Unknown };
Held HoldsItem(const Item &place, const ItemId &id);

// Whether the item `id` is at `to`, and no longer at `from`, after a rename that failed. Some volumes rename, and lose
// the answer. errno is kept.
Held HasMoved(const Item &from, const ItemId &id, const Item &to);

// Moves the item `id`. 0, or -1 with errno: EEXIST if there is anything at `to`, a dangling link too. errno is
// untouched on success. If the item is at `to` alone, it has been moved, whatever the kernel answered. Where the kernel
// or the file system does not know such a rename, a file has both names for an instant. It keeps both if the process is
// killed then or can't tell which is left; the next such move removes the old one. A folder may take the place of an
// empty one that is made in the same instant.
int RenameIntoNothing(const Item &from, const ItemId &id, const Item &to);

// Exchanges what stands at two names of an open directory, in one step. 0, or -1 with errno; where the file system
// can't, IsRenameFlagUnknown says so.
int ExchangeAt(int directory, const char *one, const char *other);

} // namespace platform
