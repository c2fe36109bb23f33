// Access-control lists of one item, given to another; and what stands for one that can't be given.

#pragma once

#include "Platform/Item.h"

#include <cerrno>
#include <cstddef>
#include <sys/types.h>

namespace platform {

// Gives the open item `to` the lists that `from` has, and takes away those that it has not. Lists that a directory hands
// down count only where both are directories. A list that the volume can't hold, or that names somebody whom a user
// namespace doesn't know, is left out; `denied` is then what the mode of `to` may not grant. 0, or -1 with errno; errno
// is untouched on success. The mode of `to` may have changed then.
int GiveListsOf(const Item &from, Links links, int to, mode_t *denied);

// Whether a list that was refused with `error` is to be left out.
inline bool IsListForgiven(int error)
{
    return error == ENOTSUP || error == EINVAL;
}

// What a mode without its access list, in the form in which the kernel hands it out, may not grant, so that nobody gets
// more than the list gave. Whom it names falls into the group or among the others then.
mode_t DeniedByList(const unsigned char *list, size_t size);

} // namespace platform
