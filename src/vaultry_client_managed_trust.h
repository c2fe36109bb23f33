// What root may do outside a store on the word of somebody else's.
//
// A store's notes say where documents belong. They are its owner's words: a repair by root follows them only where the
// owner could have done the same without root. Anybody else is stopped by the kernel itself.

#pragma once

#include <vaultry/file_status.h>

#include <sys/types.h>

// Whether `owner` may make, rename and remove entries in the open `folder`, as far as owners, modes and the sticky bit
// tell; groups and access lists, which can't be told for another user, count as no. `item`, unless null, is one that is
// in it.
bool _OwnerMayChange(int folder, const TQFileStatus *item, uid_t owner);
