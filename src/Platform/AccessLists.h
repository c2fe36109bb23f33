// The access-control lists of a whole item, given to another; copying carries them by itself.

#pragma once

#include "Platform/Item.h"

namespace platform {

// Gives the open item `to` the lists that `from` has, and takes away those that it has not. Lists that a directory hands
// down count only where both are directories. 0, or -1 with errno; errno is untouched on success. The mode of `to` may
// have changed then.
int GiveListsOf(const Item &from, Links links, int to);

} // namespace platform
