// Documents and stores never hold each other.
//
// A restore replaces its target, and a move takes its source away. Done to a part of a store, or to a folder around
// one, either would cost generations. Stores and documents are recognised by device and inode, whatever names lead
// there.
//
// False means a refusal (kTQStatusInvalidArgument), or a path that can't be looked at. If there is nothing at a path,
// it holds nothing and lies where its folder lies. If the folder is missing too, the operation that works there reports
// it.

#pragma once

#include <vaultry/error.h>

// Requires that what is at `path`, or will be, lies in no store.
bool _RequireOutsideStores(const char *path, TQError **error);

// Requires that the document at `path` is neither the store at `root` nor a folder around it.
bool _RequireNoStoreInside(const char *path, const char *root, TQError **error);

// Requires that no directory around `root`, which is to become a store, is one.
bool _RequireNoStoreAround(const char *root, TQError **error);
