// Renames that replace nothing, and one that exchanges two items.

#pragma once

#include "Platform/Item.h"
#include "Platform/ItemId.h"

#include <cerrno>

namespace platform {

// Whether a rename that failed with `error` was refused for its flag, which the file system or the kernel does not
// know.
inline bool IsRenameFlagUnknown(int error)
{
    return error == EINVAL || error == ENOSYS || error == ENOTSUP || error == EOPNOTSUPP;
}

// Whether the item `id` stands at a name. An error is neither.
enum class Held { No, Yes, Unknown };
Held HoldsItem(const Item &place, const ItemId &id);

// Whether the item `id` is at `to`, and no longer at `from`, after a rename that failed: some volumes lose the answer of
// what they did. errno is kept.
Held HasMoved(const Item &from, const ItemId &id, const Item &to);

// Moves the item `id`. 0, or -1 with errno: EEXIST if there is anything at `to`, a dangling link too. errno is untouched
// on success. What is at `to` alone has been moved, whatever the kernel's answer was. Where such a rename is unknown, a
// file has both names for an instant, and keeps them if the process is killed then, or can't tell which is left; the next
// such move ends with one. A folder may take the place of an empty one that is made in the same instant.
int RenameIntoNothing(const Item &from, const ItemId &id, const Item &to);

// Exchanges what stands at two names of an open directory, in one step. 0, or -1 with errno; where the file system
// can't, IsRenameFlagUnknown says so.
int ExchangeAt(int directory, const char *one, const char *other);

} // namespace platform
