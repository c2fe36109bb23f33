// "No space" that does not come from a full disk.
//
// ext4 keeps all extended attributes of an item in about 4 KiB and answers as a full disk does when they are used up.
// The remedy is different, so the user has to be told.

#pragma once

#include <vaultry/error.h>

#include <string>

// Whether `error` says that there is no space although the file system at `directory` could hold the whole tree
// at `needed`.
bool IsAttributeSpace(const TQError *error, const std::string &directory, const std::string &needed);

// The same for the errno of a call that writes only an attribute.
bool IsAttributeSpace(int reason, const std::string &directory);

inline constexpr char kAttributeSpaceIsFull[] =
    "the disk is not full: it is the space for the item's own extended attributes (its access-control list among "
    "them), of which a file system such as ext4 has about 4 KiB for each item";
