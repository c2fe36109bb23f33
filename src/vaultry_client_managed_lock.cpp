// The store lock.

#include "vaultry_client_managed.h"

#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/progress.h>
#include <vaultry/url.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

bool _GetPathToLockFile(const char *rootPath, PathBuffer &path, TQError **error)
{
    if (path.Format("%s/%s", rootPath, kLockFileName)) return true;
    return Failure(error).Refused(kTQStatusBadPath, "The path to the store lock was too long");
}

static bool _LockGenerationStore(const char *rootPath, StoreLock *lock, int operation, TQError **error)
{
    PathBuffer path;
    return _GetPathToLockFile(rootPath, path, error) && _TQLockGenerationInternal(path.c_str(), lock, operation, error);
}

bool _ReadLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error)
{
    return _LockGenerationStore(rootPath, lock, LOCK_SH, error);
}

bool _WriteLockGenerationStore(const char *rootPath, StoreLock *lock, TQError **error)
{
    return _LockGenerationStore(rootPath, lock, LOCK_EX, error);
}

static thread_local bool isUndoing;

UndoingScope::UndoingScope() : before_(isUndoing)
{
    isUndoing = true;
}

UndoingScope::~UndoingScope()
{
    isUndoing = before_;
}

static bool _IsGivenUp()
{
    const TQProgress *progress = isUndoing ? nullptr : TQProgressGetCurrent();
    return progress && TQProgressIsCancelled(progress);
}

namespace {

// Shows that the operation waits, on a child of the thread's progress: several threads may share that.
class ShownWait {
public:
    explicit ShownWait(const char *lockFile)
    {
        TQProgress *const current = TQProgressGetCurrent();
        if (!current) return;
        const ErrnoKeeper keeper;
        progress_ = Ref<TQProgress>::Adopt(TQProgressCreateChild(current, 0));
        const auto file = Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPath(lockFile, /*isDirectory=*/false));
        TQProgressSetUserInfo(progress_.get(), kTQProgressFileURLKey, file.get());
        TQProgressSetUserInfo(progress_.get(), kTQProgressFileOperationKindKey, kTQProgressFileOperationKindWaiting);
        TQProgressSetCompletedUnits(progress_.get(), 0); // which tells the observers
    }
    ~ShownWait()
    {
        const ErrnoKeeper keeper;
        TQProgressSetUserInfo(progress_.get(), kTQProgressFileOperationKindKey, nullptr);
        TQProgressSetCompletedUnits(progress_.get(), 0);
    }
    ShownWait(const ShownWait &) = delete;
    ShownWait &operator=(const ShownWait &) = delete;

private:
    Ref<TQProgress> progress_;
};

} // namespace

// Waits without limit. A signal does not end the wait, but a client may use one to say that it has given up. The client
// may have done so before there was anything to wait for.
static int _WaitForLock(int fd, int operation, const char *path)
{
    if (flock(fd, operation | LOCK_NB) == 0) return 0;
    if (errno != EINTR && errno != EWOULDBLOCK) return -1;
    const ShownWait shown(path);
    do {
        if (_IsGivenUp()) {
            errno = ECANCELED;
            return -1;
        }
        if (flock(fd, operation) == 0) return 0;
    } while (errno == EINTR);
    return -1;
}

bool _TQLockGenerationInternal(const char *lockFilePath, StoreLock *lock, int operation, TQError **error)
{
    return _LockItem(Item::AtPath(lockFilePath), lock, operation, error);
}

bool _LockItem(const Item &lockFile, StoreLock *lock, int operation, TQError **error)
{
    // A second lock through one holder would lose the first one's descriptor: a bug in the caller.
    if (lock->fd != -1) {
        errno = EINVAL;
        return Failure(error).Errno("%p->fd isn't -1", static_cast<void *>(lock));
    }
    lock->fd = openat(lockFile.directory, lockFile.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (lock->fd < 0) return Failure(error).Errno("Failed to open generation path \"%s\" for locking", lockFile.path);
    if (_WaitForLock(lock->fd, operation, lockFile.path) == 0) return true;

    Failure(error).Errno("Failed to lock generation path \"%s\"", lockFile.path);
    (void)close(lock->fd);
    lock->fd = -1;
    return false;
}

void _UnlockGenerationStore(StoreLock *lock)
{
    if (lock->fd < 0) {
        errno = EINVAL;
        Failure(nullptr).Errno("%p->fd is -1", static_cast<void *>(lock));
        return;
    }
    // A lock that stays held would stop every other process for good. Ending this process frees it.
    if (flock(lock->fd, LOCK_UN) != 0) abort();
    (void)close(lock->fd);
    lock->fd = -1;
}

static bool _RequireStore(const TQClientManagedStorage *store, TQError **error)
{
    return store || Failure(error).Refused(kTQStatusInvalidArgument, "no store was supplied");
}

bool HeldLock::ForReading(const TQClientManagedStorage *store, TQError **error)
{
    return _RequireStore(store, error) && _ReadLockGenerationStore(store->rootPath, &lock_, error);
}

bool HeldLock::ForWriting(const TQClientManagedStorage *store, TQError **error)
{
    return _RequireStore(store, error) && _WriteLockGenerationStore(store->rootPath, &lock_, error);
}

bool HeldLock::At(const Item &lockFile, bool exclusive, TQError **error)
{
    return _LockItem(lockFile, &lock_, exclusive ? LOCK_EX : LOCK_SH, error);
}
