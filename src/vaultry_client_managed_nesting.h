// Documents and stores never hold each other.
//
// A restore replaces what it restores to, and a move takes what it moves: done to a part of a store, or to a folder
// around one, either would cost generations. Stores and documents are told by device and inode, whatever names lead
// there.
//
// False is a refusal (kTQStatusInvalidArgument), or a path that can't be looked at. A path at which there is nothing
// holds nothing and lies where its folder lies; where that is missing too, whoever works there says so.

#pragma once

#include <vaultry/error.h>

// For what is at `path`, or will be: it lies in no store.
bool _RequireOutsideStores(const char *path, TQError **error);

// For a document at `path` of the store at `root`: it is no folder around it, nor the store itself.
bool _RequireNoStoreInside(const char *path, const char *root, TQError **error);

// For a directory that is to become a store: none of those around it is one.
bool _RequireNoStoreAround(const char *root, TQError **error);
