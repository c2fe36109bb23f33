// Renames that replace nothing, and one that exchanges two items.

#pragma once

#include "Platform/Item.h"

namespace platform {

// 0, or -1 with errno: EEXIST if there is anything at `to`, a dangling link too. errno is untouched on success.
int RenameIntoNothing(const Item &from, const Item &to);

// Exchanges what stands at two names of an open directory, in one step. 0, or -1 with errno: EINVAL, ENOSYS or ENOTSUP
// where the file system can't.
int ExchangeAt(int directory, const char *one, const char *other);

} // namespace platform
