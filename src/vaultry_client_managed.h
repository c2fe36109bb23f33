// One store, seen from inside.
//
//     <root>/<name>                               one generation: a file or a tree, without write bits; during a
//                                                 change its top item has its owner's
//     <root>/.vaultry_staging/<7 random>/staged   what one operation is building or removing
//     <root>/.vaultry_staging/<7 random>/.vaultry_owner   whose it is; see vaultry_client_managed_owner.h
//     <root>/.vaultry_lockfile                    empty, unless a later version made it; 0400; locked with flock
//
// Between operations the root has no write bit, and staging holds only copies that a caller has asked for and documents
// that could not be given back. But what a killed operation had lifted stays lifted, and what it had staged stays
// there, until a repair; and if a root can't be protected again, that is only logged. A name in the root that begins
// with "." is not a generation's. The root is writable only for its owner, and only while its exclusive lock is held.
// There are two exceptions. The store's own files are made without the lock, since there is none before. And destroying
// a store takes no lock, and makes the directories that it removes writable for their group, too.

#pragma once

#include "Platform/ErrnoKeeper.h"
#include "Platform/Item.h"
#include "Shared/PathBuffer.h"

#include <vaultry/file_status.h>
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

bool _RequireRootDirectory(const char *rootPath, TQError **error);

// Refuses a store of a later version. A directory without a lock file passes.
bool _RequireKnownFormat(const char *rootPath, const Item &lockFile, TQError **error);

// --- the lock

// The store lock: many readers or one writer, across threads and processes.
//
// flock belongs to the open file, not to the process. Each operation therefore opens its own descriptor, and two
// threads exclude each other just as two processes do. fd is -1 when no lock is held or waited for.
//
// A killed process gives the lock back, unless it had forked meanwhile: then its child, which shares the open file,
// keeps it until the child ends or runs another program. Unlocking is a call of its own, so that a child of a living
// process keeps nothing. A signal ends the wait for it only if the thread's progress is cancelled by then.
struct StoreLock {
    int fd = -1;
};

bool _GetPathToLockFile(const char *rootPath, PathBuffer &path, TQError **error);
bool _ReadLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error);
bool _WriteLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error);
bool _TQLockGenerationInternal(const char *lockFilePath, StoreLock *lock, int operation, TQError **error);
bool _LockItem(const Item &lockFile, StoreLock *lock, int operation, TQError **error);
void _UnlockGenerationStore(StoreLock *lock);

// While this object lives, a cancelled progress does not end a wait of this thread: a cancel that led to an undoing
// must not end the undoing, too.
class UndoingScope {
public:
    UndoingScope();
    ~UndoingScope();
    UndoingScope(const UndoingScope &) = delete;
    UndoingScope &operator=(const UndoingScope &) = delete;

private:
    bool before_;
};

// Unlocks at the end of its scope.
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

    // False if there is no store, or the lock can't be taken.
    bool ForReading(const TQClientManagedStorage *store, TQError **error);
    bool ForWriting(const TQClientManagedStorage *store, TQError **error);

    // By the lock file itself, for a caller without a handle.
    bool At(const Item &lockFile, bool exclusive, TQError **error);

private:
    StoreLock lock_;
};

// --- protection of the root directory

// Gives the owner write permission. The caller holds the exclusive lock, if there is one yet.
bool _UnprotectGenerationStore(const char *rootPath, TQError **error);
bool _UnprotectStoreRoot(const Item &root, TQError **error);

// Takes all write permission. Failures are logged.
void _ProtectGenerationStore(const char *rootPath);
void _ProtectStoreRoot(const Item &root);

// Lifts the protection when it is first asked to, and puts it back at the end of its scope. The caller holds the
// exclusive lock as long.
class LiftedRoot {
public:
    explicit LiftedRoot(const char *rootPath) : rootPath_(rootPath) {}
    ~LiftedRoot()
    {
        if (isLifted_) _ProtectGenerationStore(rootPath_);
    }
    LiftedRoot(const LiftedRoot &) = delete;
    LiftedRoot &operator=(const LiftedRoot &) = delete;

    bool Lift(TQError **error) { return isLifted_ || (isLifted_ = _UnprotectGenerationStore(rootPath_, error)); }

private:
    const char *rootPath_;
    bool isLifted_ = false;
};

// Brings the names in the root and its protection to disk.
bool _FlushGenerationStore(const char *rootPath, TQError **error);

// --- paths

// The path of a generation; with `mustExist`, of one that exists.
bool _GetPathToGeneration(const char *rootPath, const char *name, bool mustExist, PathBuffer &path, TQError **error);

// A path in a fresh staging directory of its own; nothing is there yet. StagingDirectory adds the owner file. The
// status is that of the staging area.
bool _GetUniqueStagingPath(const char *rootPath, PathBuffer &path, TQFileStatus *area, TQError **error);

// Removes the whole unique staging directory that `path` lies in.
bool _RemoveStagingPath(const char *rootPath, const char *path, TQError **error);

// --- copies for a restore

// What is copied: a generation, or one item of it.
struct CopiedPart {
    const char *name;
    const char *item = nullptr; // its path below the generation's top; null for the whole generation
    // If not 0, how much of that path names the folder that the copy begins with. Nothing comes with it but the folders
    // on the way to the item.
    size_t from = 0;
};

// As TQClientManagedStorageCopyOut, for an operation that goes on: the staging directory stays its own.
bool _CopyOutToStaging(const TQClientManagedStorage *store, const CopiedPart &part, const OwnerNote &note,
                       StagingDirectory &staging, uint16_t *mode, uint32_t *flags, TQError **error);

// As TQClientManagedStorageCopyGeneration; if `durable`, the copy is on disk when it returns true.
bool _CopyGeneration(const TQClientManagedStorage *store, const CopiedPart &part, const char *destination, bool durable,
                     TQError **error);
