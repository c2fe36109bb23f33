// One store, seen from inside.
//
//     <root>/<name>                               one generation: a file or a tree, without write bits
//     <root>/.vaultry_staging/<7 random>/staged   what one operation is building or removing
//     <root>/.vaultry_lockfile                    empty, 0400; locked with flock
//
// Always, between operations: the root has no write bit, and staging holds nothing but copies that a caller has
// asked for. A name in the root that begins with "." is the store's own. The root is writable only for its
// owner, and only while its exclusive lock is held.

#pragma once

#include "Platform/ScopeExit.h"
#include "Shared/PathBuffer.h"

#include <vaultry/storage.h>

struct TQClientManagedStorage {
    char *rootPath; // absolute, owned
};

inline constexpr char kStagingName[] = ".vaultry_staging";
inline constexpr char kLockFileName[] = ".vaultry_lockfile";

// --- the lock

// The store lock: many readers or one writer, across threads and processes.
//
// flock belongs to the open file, not to the process. Each operation therefore opens its own descriptor, and two
// threads exclude each other just as two processes do. Always: fd is -1 exactly when nothing is
// held; a killed process gives the lock back.
struct StoreLock {
    int fd = -1;
};

bool _GetPathToLockFile(const char *rootPath, PathBuffer &path, TQError **error);
bool _ReadLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error);
bool _WriteLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error);
bool _TQLockGenerationInternal(const char *lockFilePath, StoreLock *lock, int operation, TQError **error);
void _UnlockGenerationStore(StoreLock *lock);

// Unlocks at the end of its scope; taken in the first line of an operation.
class HeldLock {
public:
    HeldLock() = default;
    ~HeldLock()
    {
        if (lock_.fd < 0) return;
        const ErrnoKeeper keeper;
        _UnlockGenerationStore(&lock_);
    }
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;

    // False if there is no store, or the lock can't be had.
    bool ForReading(const TQClientManagedStorage *store, TQError **error);
    bool ForWriting(const TQClientManagedStorage *store, TQError **error);

    // By the path of the lock file, for who has no handle.
    bool At(const char *lockFile, bool exclusive, TQError **error);

private:
    StoreLock lock_;
};

// --- protection of the root directory

// Gives the owner write permission. The exclusive lock is held.
bool _UnprotectGenerationStore(const char *rootPath, TQError **error);

// Takes all write permission. Failures are logged.
void _ProtectGenerationStore(const char *rootPath);

// Brings the names in the root and its protection to disk.
bool _FlushGenerationStore(const char *rootPath, TQError **error);

// --- paths

// The path of a generation; with `mustExist`, of one that is there.
bool _GetPathToGeneration(const char *rootPath, const char *name, bool mustExist, PathBuffer &path, TQError **error);

// A path in a fresh staging directory of its own; nothing is there yet.
bool _GetUniqueStagingPath(const char *rootPath, PathBuffer &path, TQError **error);

// Removes the whole unique staging directory that `path` lies in.
bool _RemoveStagingPath(const char *rootPath, const char *path, TQError **error);
