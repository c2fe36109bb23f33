// File-system wrappers, seen from inside.

#pragma once

#include "Platform/Item.h"

#include <vaultry/filesystem.h>

#include <vaultry/path.h>

struct TreeRemoval {
    bool keepRoot = false;      // a root directory stays
    bool keepsShared = false;   // no flag is taken from a file with several links, which may be that of a generation
    bool isNested = false;      // a part of another removal: nothing in it may turn out to be of another kind
    const char *last = nullptr; // an entry directly below the root that goes when all else has gone
    // What the root must be (device and inode), else ESTALE. Null: whatever is there.
    const TQFileStatus *expected = nullptr;
    bool *begun = nullptr; // set true as soon as a part of the tree has gone, whoever removed it
};

// Removes the tree at `root`, as _RemoveTree does.
bool _RemoveTreeAt(const Item &root, const TreeRemoval &how, TQError **error);

// The same at a path.
bool _RemoveTreeInternal(const char *path, bool keepRoot, TQError **error);

// TQFSSetFileNameExtensionHiding for an item known by descriptor.
void _SetFileNameExtensionHiding(const Item &item, Links links, bool hide);

// One step of TQSetRemoveValues.
void _RemoveValueCB(TQValue *value, void *targetSet);

// _TransferBirthTime for a source whose status is known and a destination known by descriptor.
bool _TransferBirthTimeTo(const Item &destination, const char *sourcePath, const TQFileStatus &source);
