// File-system wrappers, seen from inside.

#pragma once

#include "Platform/Item.h"

#include <vaultry/filesystem.h>

#include <vaultry/path.h>

// Removes the tree at `path`; with `keepRoot` a root directory stays.
bool _RemoveTreeInternal(const char *path, bool keepRoot, TQError **error);

// One step of TQSetRemoveValues.
void _RemoveValueCB(TQValue *value, void *targetSet);

// _TransferBirthTime for a source whose status is known and a destination known by descriptor.
bool _TransferBirthTimeTo(const Item &destination, const char *sourcePath, const TQFileStatus &source);
