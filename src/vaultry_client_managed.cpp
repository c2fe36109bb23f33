// A store's life: made in an existing directory, opened again, destroyed; and the protection of its root.

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_nesting.h"

#include "Platform/FileStatus.h"
#include "Platform/UniqueFd.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/filesystem.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/file.h>

namespace {

struct StoreFiles {
    const char *root;
    PathBuffer staging;
    PathBuffer lockFile;
};

bool NameStoreFiles(StoreFiles &files, TQError **error)
{
    if (!files.staging.Format("%s/%s", files.root, kStagingName))
        return Failure(error).Refused(kTQStatusBadPath, "failed to get staging dir path");
    return _GetPathToLockFile(files.root, files.lockFile, error);
}

// Opens the lock file of a store, only to lock it or to see whether that is possible.
UniqueFd OpenLockFile(const StoreFiles &files, int creationFlag)
{
    return UniqueFd(
        open(files.lockFile.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | creationFlag, kLockFileMode));
}

// A store that stands whole is left as it is. Lifting its protection here would let another process's add fail in
// between, and would refuse a store on a read-only mount, which can still be read.
bool LookWhetherWhole(const StoreFiles &files, bool *standsWhole, TQError **error)
{
    const ErrnoKeeper keeper;
    TQFileStatus root;
    TQFileStatus staging;
    if (platform::GetStatus(Item::AtPath(files.root), Links::Follow, &root) != 0)
        return Failure(error).Errno("stat(\"%s\") failed", files.root);
    const bool hasStaging = platform::GetStatus(Item::AtPath(files.staging.c_str()), Links::NoFollow, &staging) == 0;
    if (!hasStaging && errno != ENOENT) return Failure(error).Errno("stat(\"%s\") failed", files.staging.c_str());
    *standsWhole = (root.mode & kWriteBits) == 0 && hasStaging && OpenLockFile(files, 0);
    return true;
}

// The directory gets its mode whatever the umask is, even if an earlier maker was cut short before giving it. If
// something else stands at the name, it is left alone.
bool MakeStagingArea(const char *path)
{
    const Item item = Item::AtPath(path);
    TQFileStatus status;
    if (mkdir(path, kStagingMode) != 0 && errno != EEXIST) return false;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) return false;
    if (!S_ISDIR(status.mode) || (status.mode & 0777) == kStagingMode) return true;
    return platform::SetMode(item, Links::NoFollow, kStagingMode) == 0;
}

bool MakeLockFile(const StoreFiles &files)
{
    UniqueFd fd = OpenLockFile(files, O_CREAT | O_EXCL);
    if (fd) return fchmod(fd.get(), kLockFileMode) == 0 && fd.Close() == 0;
    return errno == EEXIST && OpenLockFile(files, O_CREAT); // O_CREAT refuses a directory
}

// If a step fails, the root stays writable, so that the cause can be put right and this be tried again.
bool MakeStoreFiles(const StoreFiles &files, TQError **error)
{
    if (!_UnprotectGenerationStore(files.root, error)) return false;
    if (!MakeStagingArea(files.staging.c_str()))
        return Failure(error).Refused(kTQStatusBadPath, "mkdir \"%s\" failed", files.staging.c_str());
    if (!MakeLockFile(files))
        return Failure(error).Refused(kTQStatusBadPath, "Failed to create lock file at path \"%s\"",
                                      files.lockFile.c_str());

    // Another process may already be adding, with the root lifted under its lock.
    StoreLock lock;
    if (!_WriteLockGenerationStore(files.root, &lock, error)) return false;
    _ProtectGenerationStore(files.root);
    _UnlockGenerationStore(&lock);
    return true;
}

TQClientManagedStorage *MakeHandle(const char *rootPath, TQError **error)
{
    std::unique_ptr<TQClientManagedStorage> store(new (std::nothrow) TQClientManagedStorage{});
    if (store) store->rootPath = strdup(rootPath);
    if (!store || !store->rootPath) return Failure(error).Status(kTQStatusFailed, "malloc failed");
    return store.release();
}

} // namespace

// Where a volume does not answer, nobody can say what is there and what is not.
bool _RequireRootDirectory(const char *rootPath, TQError **error)
{
    const int before = errno;
    errno = 0;
    if (_IsDirectory(rootPath, /*status=*/nullptr)) {
        errno = before;
        return true;
    }
    for (const int silence : {ENOTCONN, ECONNABORTED, ESTALE, EIO, ETIMEDOUT, EHOSTDOWN})
        if (errno == silence) return Failure(error).Errno("stat(\"%s\") failed", rootPath);
    return Failure(error).Status(kTQStatusBadPath, "The supplied path \"%s\" does not exist", rootPath ? rootPath : "");
}

TQClientManagedStorage *TQClientManagedStorageCreate(const char *rootPath, TQError **error)
{
    if (!_RequireRootDirectory(rootPath, error)) return nullptr;
    StoreFiles files{rootPath, {}, {}};
    if (!NameStoreFiles(files, error)) return nullptr;
    if (!_RequireKnownFormat(rootPath, Item::AtPath(files.lockFile.c_str()), error)) return nullptr;
    bool standsWhole = false;
    if (!LookWhetherWhole(files, &standsWhole, error)) return nullptr;
    if (!standsWhole && !(_RequireNoStoreAround(rootPath, error) && MakeStoreFiles(files, error))) return nullptr;
    return MakeHandle(rootPath, error);
}

void TQClientManagedStorageFree(TQClientManagedStorage *store)
{
    if (!store) return;
    free(store->rootPath);
    delete store;
}

bool TQClientManagedStorageDestroy(const char *rootPath, TQError **error)
{
    const char *const root = rootPath ? rootPath : "";
    PathBuffer lockFile;
    if (lockFile.Format("%s/%s", root, kLockFileName) &&
        !_RequireKnownFormat(root, Item::AtPath(lockFile.c_str()), error))
        return false;
    // As long as the lock file is there, a store whose destruction was killed can be told from any other directory.
    return _RemoveTreeAt(Item::AtPath(root), {.last = kLockFileName}, error);
}

// A lock file that is not empty was written by a later version, whose format this one can't know.
bool _RequireKnownFormat(const char *rootPath, const Item &lockFile, TQError **error)
{
    const ErrnoKeeper keeper;
    TQFileStatus status;
    if (platform::GetStatus(lockFile, Links::NoFollow, &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return true;
        return Failure(error).Errno("stat(\"%s\") failed", lockFile.path);
    }
    if (!S_ISREG(status.mode) || status.size == 0) return true;
    return Failure(error).Refused(kTQStatusNotSupported, "the store \"%s\" was made by a later version", rootPath);
}

// Asymmetric on purpose: lifting gives write permission to the owner alone and always calls chmod; protecting takes
// it from everybody, and only where there is some.

bool _UnprotectGenerationStore(const char *rootPath, TQError **error)
{
    return _UnprotectStoreRoot(Item::AtPath(rootPath), error);
}

bool _UnprotectStoreRoot(const Item &root, TQError **error)
{
    TQFileStatus status;
    if (platform::GetStatus(root, Links::Follow, &status) != 0)
        return Failure(error).Errno("failed to unprotect store at \"%s\", stat failed", root.path);
    const mode_t mode = (status.mode | 0200) & 07777;
    if (platform::SetMode(root, Links::Follow, mode) == 0) return true;
    Failure(error).Errno("failed to unprotect store at \"%s\", chomd(%04o) failed", root.path, mode);
    (void)platform::SetFlags(root, Links::Follow, status.flags);
    return false;
}

void _ProtectGenerationStore(const char *rootPath)
{
    _ProtectStoreRoot(Item::AtPath(rootPath));
}

void _ProtectStoreRoot(const Item &root)
{
    const ErrnoKeeper keeper;
    TQFileStatus status;
    if (platform::GetStatus(root, Links::Follow, &status) != 0) {
        Failure(nullptr).Errno("failed to protect store at \"%s\", stat failed", root.path);
        return;
    }
    if ((status.mode & kWriteBits) == 0) return;
    const mode_t mode = status.mode & 07777 & ~kWriteBits;
    if (platform::SetMode(root, Links::Follow, mode) != 0)
        Failure(nullptr).Errno("failed to protect store at \"%s\", chomd(%04o) failed", root.path, mode);
}

// Flushes the root as the directory of its lock file, which is always there: the root may have become a link to where
// the store was moved, or may no longer be readable.
bool _FlushGenerationStore(const char *rootPath, TQError **error)
{
    PathBuffer lockFile;
    return _GetPathToLockFile(rootPath, lockFile, error) && _FlushEntry(lockFile.c_str(), error);
}
