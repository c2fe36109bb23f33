// One generation of a store, locked.

#pragma once

#include "vaultry_client_managed.h"

// A generation that exists, and the lock that keeps it so while it is looked at or changed.
class LockedGeneration {
public:
    bool ForReading(const TQClientManagedStorage *store, const char *name, TQError **error)
    {
        return lock_.ForReading(store, error) && Resolve(store, name, error);
    }
    bool ForWriting(const TQClientManagedStorage *store, const char *name, TQError **error)
    {
        return lock_.ForWriting(store, error) && Resolve(store, name, error);
    }
    const char *path() const { return path_.c_str(); }

private:
    bool Resolve(const TQClientManagedStorage *store, const char *name, TQError **error)
    {
        // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): taking the lock refuses a null store
        return _GetPathToGeneration(store->rootPath, name, /*mustExist=*/true, path_, error);
    }

    HeldLock lock_;
    PathBuffer path_;
};
