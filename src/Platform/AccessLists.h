// Gives one item the access-control lists of another. Copying an item already carries its lists.

#pragma once

#include "Platform/Item.h"

namespace platform {

// Gives the open item `to` the lists that `from` has, and takes away those that `from` does not have. Default lists
// count only where both are directories. 0, or -1 with errno; errno is untouched on success. A success may have changed
// the mode of `to`.
int GiveListsOf(const Item &from, Links links, int to);

} // namespace platform
