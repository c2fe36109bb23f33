// Renames that replace nothing, and one that exchanges two items.

#pragma once

#include "Platform/Item.h"

#include <cerrno>

namespace platform {

// Whether a rename that failed with `error` was refused for its flag, which the file system or the kernel does not
// know.
inline bool IsRenameFlagUnknown(int error)
{
    return error == EINVAL || error == ENOSYS || error == ENOTSUP || error == EOPNOTSUPP;
}

// 0, or -1 with errno: EEXIST if there is anything at `to`, a dangling link too. errno is untouched on success. Where
// such a rename is unknown, a file has both names for an instant; a folder may take the place of an empty one that is
// made in the same instant.
int RenameIntoNothing(const Item &from, const Item &to);

// Exchanges what stands at two names of an open directory, in one step. 0, or -1 with errno; where the file system
// can't, IsRenameFlagUnknown says so.
int ExchangeAt(int directory, const char *one, const char *other);

} // namespace platform
