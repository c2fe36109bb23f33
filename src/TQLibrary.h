// The library object, seen from inside.

#pragma once

#include <vaultry/library.h>
#include <vaultry/storage.h>

// The store handle of a library object, lent; null for a null object.
const TQClientManagedStorage *_StorageOf(const TQLibrary *library);

// Does the work of all ways to add, and of the backup that a restore makes.
bool _AddGenerationInternal(TQLibrary *library, const TQString *name, const TQURL *document,
                            const TQAddRequest *request, TQError **error);
