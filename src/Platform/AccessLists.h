// Access-control lists: those of one item given to another, and what a list says. Copying an item already carries its
// lists.

#pragma once

#include "Platform/Item.h"

#include <cerrno>
#include <cstddef>
#include <sys/types.h>

namespace platform {

// Gives the open item `to` the lists that `from` has, and takes away those that `from` does not have. Default lists
// count only where both are directories. A list is left out if the volume can't hold it, or if it names somebody whom a
// user namespace does not know; `denied` then says what the mode of `to` may not grant. 0, or -1 with errno; errno is
// untouched on success. A success may have changed the mode of `to`.
int GiveListsOf(const Item &from, Links links, int to, mode_t *denied);

// Whether a list that was refused with `error` is left out.
inline bool IsListForgiven(int error)
{
    return error == ENOTSUP || error == EINVAL;
}

// What a mode without its access list may not grant, so that nobody gets more than the list gave. Those whom the list
// names then fall into the group or among the others. `list` has the form in which the kernel hands it out.
mode_t DeniedByList(const unsigned char *list, size_t size);

// Makes of an access list what the kernel makes of it when its item loses all write bits.
void TakeWriteFromList(unsigned char *list, size_t size);

} // namespace platform
