// One store, seen from inside.
//
//     <root>/<name>                               one generation: a file or a tree, without write bits; for the span of
//                                                 a change its top item has its owner's
//     <root>/.vaultry_staging/<7 random>/staged   what one operation is building or removing
//     <root>/.vaultry_staging/<7 random>/.vaultry_owner   whose it is; see vaultry_client_managed_owner.h
//     <root>/.vaultry_lockfile                    empty, but for later versions; 0400; locked with flock
//
// Between operations the root has no write bit, and staging holds nothing but copies that a caller has asked for and
// documents that could not go home. What a killed operation had lifted stays lifted, and what it had staged stays
// there, until a repair; a root that can't be protected again is only logged. A name in the root that begins with "."
// is no generation. The root is writable only for its owner, and only while its exclusive lock is held. Two exceptions:
// the store's own files are made without the lock, since there is none before; and destroying a store takes none, and
// lets its group write, too, to what it removes.

#pragma once

#include "Platform/ErrnoKeeper.h"
#include "Platform/Item.h"
#include "Shared/PathBuffer.h"

#include <vaultry/storage.h>

#include <sys/types.h>

class StagingDirectory;
struct OwnerNote;

struct TQClientManagedStorage {
    char *rootPath; // absolute, owned
};

inline constexpr char kStagingName[] = ".vaultry_staging";
inline constexpr char kUniqueTemplate[] = "XXXXXXX"; // of an operation's directory in staging
inline constexpr char kLockFileName[] = ".vaultry_lockfile";
inline constexpr mode_t kStagingMode = 0700;
inline constexpr mode_t kLockFileMode = 0400;

// False, and a refusal, for a store of a later version. One that has no lock file is none of any.
bool _RequireKnownFormat(const char *rootPath, const Item &lockFile, TQError **error);

// --- the lock

// The store lock: many readers or one writer, across threads and processes.
//
// flock belongs to the open file, not to the process. Each operation therefore opens its own descriptor, and two
// threads exclude each other just as two processes do. fd is -1 when nothing is held, and nothing waited for.
//
// A killed process gives the lock back, unless it had forked meanwhile: then its child, which shares the open file,
// keeps it until the child ends or runs another program. The lock is ended by a call of its own, so that a child of a
// process that lives keeps nothing. A signal ends the wait for it only if the thread's progress is cancelled by then.
struct StoreLock {
    int fd = -1;
};

bool _GetPathToLockFile(const char *rootPath, PathBuffer &path, TQError **error);
bool _ReadLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error);
bool _WriteLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error);
bool _TQLockGenerationInternal(const char *lockFilePath, StoreLock *lock, int operation, TQError **error);
bool _LockItem(const Item &lockFile, StoreLock *lock, int operation, TQError **error);
void _UnlockGenerationStore(StoreLock *lock);

// While it lives, a cancelled progress ends no wait of this thread: the cancel that led to an undoing must not end
// that, too.
class UndoingScope {
public:
    UndoingScope();
    ~UndoingScope();
    UndoingScope(const UndoingScope &) = delete;
    UndoingScope &operator=(const UndoingScope &) = delete;

private:
    bool before_;
};

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

    // By the lock file itself, for who has no handle.
    bool At(const Item &lockFile, bool exclusive, TQError **error);

private:
    StoreLock lock_;
};

// --- protection of the root directory

// Gives the owner write permission. The exclusive lock is held, if there is one yet.
bool _UnprotectGenerationStore(const char *rootPath, TQError **error);
bool _UnprotectStoreRoot(const Item &root, TQError **error);

// Takes all write permission. Failures are logged.
void _ProtectGenerationStore(const char *rootPath);
void _ProtectStoreRoot(const Item &root);

// Brings the names in the root and its protection to disk.
bool _FlushGenerationStore(const char *rootPath, TQError **error);

// --- paths

// The path of a generation; with `mustExist`, of one that is there.
bool _GetPathToGeneration(const char *rootPath, const char *name, bool mustExist, PathBuffer &path, TQError **error);

// A path in a fresh staging directory of its own; nothing is there yet. StagingDirectory adds the owner file.
bool _GetUniqueStagingPath(const char *rootPath, PathBuffer &path, TQError **error);

// Removes the whole unique staging directory that `path` lies in.
bool _RemoveStagingPath(const char *rootPath, const char *path, TQError **error);

// --- copies for a restore

// TQClientManagedStorageCopyOut for an operation that goes on: the staging directory stays its own.
bool _CopyOutToStaging(const TQClientManagedStorage *store, const char *name, const OwnerNote &note,
                       StagingDirectory &staging, uint16_t *mode, uint32_t *flags, TQError **error);

// TQClientManagedStorageCopyGeneration; what is `durable` is on disk when it returns true.
bool _CopyGeneration(const TQClientManagedStorage *store, const char *name, const char *destination, bool durable,
                     TQError **error);
