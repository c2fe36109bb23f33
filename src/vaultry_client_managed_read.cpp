// Reading generations: where one lies, and copies of it.

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_item.h"
#include "vaultry_client_managed_locked.h"
#include "vaultry_client_managed_nesting.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/FileStatus.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/filesystem.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool ApplyFinalRights(const char *destination, uint16_t mode, uint32_t flags, TQError **error)
{
    const Item item = Item::AtPath(destination);
    if (S_ISDIR(mode) && platform::SetMode(item, Links::NoFollow, mode & 07777) != 0)
        return Failure(error).Errno("failed to set final mode on \"%s\"", destination);
    if (flags != 0 && platform::SetFlags(item, Links::NoFollow, flags) != 0 && errno != ENOTSUP)
        return Failure(error).Errno("failed to set final flags on \"%s\"", destination);
    return true;
}

// For what was made and could not be looked at, or was another item by then.
void RemoveIfEmpty(const Item &item)
{
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) return;
    if (S_ISDIR(status.mode))
        (void)unlinkat(item.directory, item.name, AT_REMOVEDIR);
    else if (S_ISLNK(status.mode) || status.size == 0)
        (void)unlinkat(item.directory, item.name, 0);
}

// If somebody has put another item there since we looked, or saved over the copy, that item is not ours to remove.
void RemoveMade(const char *path, const platform::DuplixMade &made)
{
    if (!made.something) return;
    if (made.item.inode == 0) return RemoveIfEmpty(Item::AtPath(path));
    TreeRemoval how;
    how.expected = &made.item;
    (void)_RemoveTreeAt(Item::AtPath(path), how, nullptr);
}

// Where the part lies, as long as its generation is locked.
class LockedPart {
public:
    bool ForReading(const TQClientManagedStorage *store, const CopiedPart &part, TQError **error)
    {
        if (!generation_.ForReading(store, part.name, error)) return false;
        const char *const top = generation_.path();
        if (!part.item) return path_.Append(top);
        return Find(top, part.item, item_, error) &&
               (part.from == 0 ? path_.Append(item_.c_str()) : FindFolder(top, part, error));
    }
    Item item() const
    {
        if (!found_.isThere) return Item::AtPath(path_.c_str());
        return {found_.folder.get(), strrchr(path_.c_str(), '/') + 1, path_.c_str()};
    }
    const char *only() const { return only_; } // the path of the item, if it is not all that is copied

private:
    bool Find(const char *top, const char *item, PathBuffer &path, TQError **error)
    {
        if (!_FindItem(top, item, &found_, error)) return false;
        if (!path.Format("%s/%s", top, item))
            return Failure(error).Refused(kTQStatusBadPath, "The supplied item path is too long");
        return found_.isThere ||
               Failure(error).Refused(kTQStatusInvalidArgument, "The supplied item \"%s\" doesn't exist", item);
    }
    bool FindFolder(const char *top, const CopiedPart &part, TQError **error)
    {
        PathBuffer folder;
        only_ = item_.c_str();
        return folder.Format("%.*s", static_cast<int>(part.from), part.item) && Find(top, folder.c_str(), path_, error);
    }

    LockedGeneration generation_;
    FoundItem found_;
    PathBuffer path_, item_;
    const char *only_ = nullptr;
};

} // namespace

TQURL *TQClientManagedStorageCopyURLForGeneration(const TQClientManagedStorage *store, const char *name,
                                                  TQError **error)
{
    LockedGeneration generation;
    if (!generation.ForReading(store, name, error)) return nullptr;
    TQURL *url = TQURLCreateWithFileSystemPath(generation.path(), /*isDirectory=*/false);
    return url ? url : Failure(error).Status(kTQStatusFailed, "malloc failed");
}

bool _CopyOutToStaging(const TQClientManagedStorage *store, const CopiedPart &part, const OwnerNote &note,
                       StagingDirectory &staging, uint16_t *mode, uint32_t *flags, TQError **error)
{
    LockedPart locked;
    const bool forClient = note.work == Work::CopyOut;
    return locked.ForReading(store, part, error) && staging.Make(store->rootPath, note, error) &&
           _CopyOutGeneration(locked.item(), staging.staged(), mode, flags, /*made=*/nullptr,
                              /*flushEach=*/!forClient, /*leaveWritable=*/forClient, locked.only(), error);
}

bool TQClientManagedStorageCopyOut(const TQClientManagedStorage *store, const char *name, char *stagedPath,
                                   uint16_t *mode, uint32_t *flags, TQError **error)
{
    if (store && !stagedPath) return Failure(error).Refused(kTQStatusBadPath, "no path buffer was supplied");
    StagingDirectory staging;
    if (!_CopyOutToStaging(store, {name}, OwnerNote::Of(Work::CopyOut, name), staging, mode, flags, error))
        return false;
    memcpy(stagedPath, staging.staged(), strlen(staging.staged()) + 1);
    staging.Keep();
    return true;
}

bool TQClientManagedStorageCopyOutDone(const TQClientManagedStorage *store, const char *stagedPath, TQError **error)
{
    if (!store) return Failure(error).Refused(kTQStatusInvalidArgument, "no store was supplied");
    return _RemoveStagingPath(store->rootPath, stagedPath, error);
}

bool TQClientManagedStorageCopyGeneration(const TQClientManagedStorage *store, const char *name,
                                          const char *destination, TQError **error)
{
    return _CopyGeneration(store, {name}, destination, /*durable=*/false, error);
}

bool TQClientManagedStorageCopyGenerationItem(const TQClientManagedStorage *store, const char *name, const char *item,
                                              const char *destination, TQError **error)
{
    if (store && !item) return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied item path was invalid");
    return _CopyGeneration(store, {name, item}, destination, /*durable=*/false, error);
}

bool _CopyGeneration(const TQClientManagedStorage *store, const CopiedPart &part, const char *destination, bool durable,
                     TQError **error)
{
    LockedPart locked;
    if (!locked.ForReading(store, part, error)) return false;
    if (!destination || destination[0] == '\0')
        return Failure(error).Refused(kTQStatusBadPath, "no destination path was supplied");
    const TrimmedPath trimmed(destination);
    if (!trimmed) return Failure(error).Refused(kTQStatusBadPath, "the destination path is too long");
    const char *target = trimmed.c_str();
    if (_PathExists(target)) return Failure(error).Refused(kTQStatusExists, "path \"%s\" already exists", target);
    if (!_RequireOutsideStores(target, error)) return false;

    const TreeFlush flush = durable ? TreeFlush::At(target) : TreeFlush();
    uint16_t mode = 0;
    uint32_t flags = 0;
    platform::DuplixMade made;
    if (_CopyOutGeneration(locked.item(), target, &mode, &flags, &made, durable, /*leaveWritable=*/false, locked.only(),
                           error) &&
        ApplyFinalRights(target, mode, flags, error) &&
        (!durable || (flush.Flush(target, mode, error) && _FlushEntry(target, error))))
        return true;
    RemoveMade(target, made);
    return false;
}
