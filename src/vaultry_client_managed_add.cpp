// Adding a generation: built, archived and flushed in staging, then moved to its name by one rename. The store is
// locked only at both ends: to find the place, and to move the item there.

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_brought.h"
#include "vaultry_client_managed_folder.h"
#include "vaultry_client_managed_nesting.h"
#include "vaultry_client_managed_request.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/FileStatus.h"
#include "Platform/Flush.h"
#include "Platform/Rename.h"
#include "Runtime/Ref.h"
#include "Runtime/UTF8.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"
#include "Shared/vaultry_storage.h"
#include "Shared/vaultry_storage_lift.h"
#include "Shared/vaultry_storage_share.h"

#include <vaultry/filesystem.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace {

// Makes what the owner file says of this add. A move also notes the document's folder and what its top item had, for
// whoever gives the document back.
OwnerNote MakeNote(const char *source, const OpenedFolder *movedFrom)
{
    OwnerNote note = OwnerNote::Of(movedFrom ? Work::Move : Work::Copy, source);
    TQFileStatus status;
    if (!movedFrom) return note;
    if (*movedFrom && platform::GetStatusOfFd(movedFrom->fd(), &status) == 0) note.folder = ItemMark::Of(status);
    if (platform::GetStatus(Item::AtPath(source), Links::NoFollow, &status) != 0) return note;
    note.topMode = status.mode & 07777;
    note.topFlags = status.flags;
    note.top = ItemId::Of(status);
    _NoteBroughtAttributes(Item::AtPath(source), &note);
    return note;
}

// An item on its way from staging to its name.
struct Placing {
    const char *root;
    const char *staged;
    const char *generation;
    bool copied;
};

// Takes an installed item back to staging, from where a copy is removed and a document given back. In the root, it
// would be listed while half of it is gone.
void TakeBack(const Placing &placing, const TQFileStatus &status)
{
    const ErrnoKeeper keeper;
    TQFileStatus installed = status;
    (void)platform::GetStatus(Item::AtPath(placing.generation), Links::NoFollow, &installed);
    (void)_MakeMovable(placing.generation, installed);
    if (rename(placing.generation, placing.staged) == 0) return;
    if (placing.copied)
        (void)_RemoveTreeAt(Item::AtPath(placing.generation), {.keepsShared = true}, nullptr);
    else
        Failure(nullptr).Errno("Failed to take the document back from \"%s\", where it stays", placing.generation);
}

// Prepares the staged item for a rename to another parent. `status` gets the flags and mode that it had before.
bool MakeStagedMovable(const char *staged, TQFileStatus *status, TQError **error)
{
    if (platform::GetStatus(Item::AtPath(staged), Links::NoFollow, status) != 0)
        return Failure(error).Errno("failed to stat path %s", staged);
    if (_MakeMovable(staged, *status)) return true;
    return Failure(error).Errno("Failed to make staged item at path \"%s\" writable before rename", staged);
}

// After the rename a directory loses its write bit again, and flags come back last: an immutable item refuses chmod.
bool FinishInstalled(const char *generation, const TQFileStatus &status, TQError **error)
{
    const Item item = Item::AtPath(generation);
    if (S_ISDIR(status.mode) && platform::SetMode(item, Links::NoFollow, status.mode & 07777 & ~mode_t{0200}) != 0)
        return Failure(error).Errno("failed to make directory non-writable after moving");
    if (status.flags != 0 && platform::SetFlags(item, Links::NoFollow, status.flags) != 0 && errno != ENOTSUP)
        return Failure(error).Errno("Failed to set flags on item at path \"%s\"", generation);
    return true;
}

// Makes the staged item all that the generation is to be, and brings it to disk. `status` gets what the top item has.
bool Prepare(const char *staged, const TQAddRequest &request, AddedTree &added, const TreeFlush &flush,
             TQFileStatus *status, TQError **error)
{
    if (!_WriteOptionsOver(staged, request.options, added.brought, error) ||
        !_WriteInfoOf(staged, request, added.bytes, error) || !MakeStagedMovable(staged, status, error))
        return false;
    if (!added.file) return flush.Flush(staged, status->mode, error);
    return (platform::FlushFd(added.file.get()) == 0 && added.file.Close() == 0) ||
           Failure(error).Errno("Failed to flush \"%s\" to disk", staged);
}

bool IsFree(const char *generation, TQError **error)
{
    const ErrnoKeeper keeper;
    return !_PathExists(generation) ||
           Failure(error).Refused(kTQStatusExists, "path \"%s\" already exists", generation);
}

// Moves the item from staging to its name. The root is writable until the end of this function. What is malformed is
// dropped last, so that a document whose name was taken is given back with all that it brought.
bool InstallStaged(const Placing &placing, const TQFileStatus &status, const MalformedMetadata &malformed,
                   TQError **error)
{
    LiftedRoot root(placing.root);
    if (!root.Lift(error)) return false;
    if (malformed.IsAny() &&
        (!IsFree(placing.generation, error) || !_DropMalformedMetadata(placing.staged, malformed, error)))
        return false;

    // Nothing is replaced, not even a dangling link that the look before did not see.
    if (platform::RenameIntoNothing(Item::AtPath(placing.staged), ItemId::Of(status),
                                    Item::AtPath(placing.generation)) != 0) {
        if (errno == EEXIST && !IsFree(placing.generation, error)) return false; // somebody was quicker
        return Failure(error).Errno("Failed to install generation; rename (\"%s\" -> \"%s\") failed", placing.staged,
                                    placing.generation);
    }
    if (FinishInstalled(placing.generation, status, error)) return true;
    TakeBack(placing, status);
    return false;
}

// Flushes what has changed at the top item since it was flushed in staging, the name and the protection. The item goes
// first: if the file system keeps a journal, that takes all of them to disk, and the rest costs nothing. Others may
// have removed the generation since, so it goes by descriptor, if the item can be opened.
bool FlushInstalled(const Placing &placing, bool hasChanged, int installed, const char *source, TQError **error)
{
    if (installed >= 0 && platform::FlushFd(installed) != 0)
        return Failure(error).Errno("Failed to flush \"%s\" to disk", placing.generation);
    const bool isFlushed = installed >= 0 || !hasChanged || _FlushItem(placing.generation, error);
    return isFlushed && _FlushGenerationStore(placing.root, error) &&
           (placing.copied || _FlushFormerEntry(source, placing.generation, error));
}

// Where the generation is to lie, if nothing is there. The caller holds the store's lock.
bool FindItsPlace(const char *root, const char *name, PathBuffer &generation, TQError **error)
{
    if (!_GetPathToGeneration(root, name, /*mustExist=*/false, generation, error)) return false;
    // Such a name could be added, but never removed. A name that is not UTF-8 would also stop every listing.
    if (strlen(name) > kGenerationNameLimit)
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name is too long");
    if (!UTF16LengthOfUTF8(name, strlen(name)))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    return IsFree(generation.c_str(), error);
}

bool RequireSource(const char *source, const char *root, bool copy, TQError **error)
{
    if (!source || source[0] == '\0') return Failure(error).Refused(kTQStatusBadPath, "no source path was supplied");
    // A process that gives a moved document back later may have another current directory.
    if (!copy && source[0] != '/')
        return Failure(error).Refused(kTQStatusBadPath, "path \"%s\" is not absolute", source);
    return _RequireNoStoreInside(source, root, error) && (copy || _RequireOutsideStores(source, error));
}

constexpr uint64_t kKnownFlags = kTQAddByMoving | kTQAddKeepLinks | kTQAddInfoIsOptional;
constexpr size_t kFirstSize = offsetof(TQAddRequest, sizeKey) + sizeof TQAddRequest::sizeKey;

bool TakeRequest(const TQAddRequest *given, TQAddRequest *request, TQError **error)
{
    if (!_TakeRequest(given, kFirstSize, kKnownFlags, request, error)) return false;
    const bool isMove = (request->flags & kTQAddByMoving) != 0;
    return !isMove || !request->base ||
           Failure(error).Refused(kTQStatusInvalidArgument, "A document that is moved shares no files");
}

// Whether an item may be renamed into the store; if not, the rename says so.
bool IsOnVolumeOf(const char *root, const ItemId &item)
{
    TQFileStatus status;
    return platform::GetStatus(Item::AtPath(root), Links::Follow, &status) == 0 && status.device == item.device;
}

// One add, step by step. Everything slow is done without the store's lock, so nobody waits for it.
class Adding {
public:
    Adding(const TQClientManagedStorage *store, const char *source, const TQAddRequest &request, TQError **error)
        : store_(store), source_(source), request_(request), copy_((request.flags & kTQAddByMoving) == 0), error_(error)
    {
    }

    // Finds the generation's place, and makes the directory that the work goes on in. Shared lock.
    bool Begin(const char *name)
    {
        HeldLock lock;
        if (!lock.ForReading(store_, error_) || !FindItsPlace(store_->rootPath, name, generation_, error_) ||
            !RequireSource(source_, store_->rootPath, copy_, error_) || !OpenBase())
            return false;
        document_.emplace(source_);
        if (!copy_) movedFrom_.emplace(document_->c_str());
        note_ = MakeNote(document_->c_str(), copy_ ? nullptr : &*movedFrom_);
        // They would take the place of what nobody could give back.
        if (!copy_ && _HasInfo(request_) && note_.topInfo.isTooLong && IsOnVolumeOf(store_->rootPath, note_.top))
            return Failure(error_).Refused(kTQStatusInvalidArgument,
                                           "The info dictionary that \"%s\" brings is too long to be noted", source_);
        return staging_.Make(store_->rootPath, note_, error_);
    }

    // Copies or moves the document there, and makes it a generation. No lock.
    bool Stage()
    {
        const auto flush = TreeFlush::By(staging_.openedFirst());
        // Without the note on disk, nobody would know after a power cut where the document belongs.
        AddedTree added;
        const AddManner manner{.copy = copy_,
                               .keepLinks = (request_.flags & kTQAddKeepLinks) != 0,
                               .base = base_ ? &*base_ : nullptr,
                               .leavesFileOpen = true};
        if ((!copy_ && !staging_.FlushNote(error_)) ||
            !_AddPathAsGeneration(source_, staging_.staged(), manner, &added, error_))
            return false;
        malformed_ = _FindMalformedMetadata(staging_.staged(), added.brought);
        return (!_HasInfo(request_) || DropDamagedInfo()) &&
               Prepare(staging_.staged(), request_, added, flush, &status_, error_);
    }

    // Gives it its name, unless somebody else has taken that meanwhile. Exclusive lock.
    bool Install()
    {
        HeldLock lock;
        if (!lock.ForWriting(store_, error_) || !InstallStaged(placing(), status_, malformed_, error_)) return false;
        staging_.Taken();
        if (HasChanged())
            installed_.Reset(open(generation_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        return true;
    }

    // No lock: others may see the generation before it has its name on disk, as they may a file that is being written.
    bool Flush() { return FlushInstalled(placing(), HasChanged(), installed_.get(), source_, error_); }

    // A moved document may be somebody's only copy, so it is given back. If it can't be, staging stays.
    void GiveBack()
    {
        if (copy_) return;
        const MovedDocument moved{note_.topMode != OwnerNote::kUnknownMode,
                                  note_.top,
                                  note_.topMode,
                                  note_.topFlags,
                                  note_.topOptions,
                                  note_.topInfo,
                                  note_.topName,
                                  staging_.written()};
        const Item home = *movedFrom_ ? movedFrom_->item() : Item::AtPath(source_);
        if (!_GiveDocumentBack(Item::AtPath(staging_.staged()), home, moved)) staging_.Keep();
    }

private:
    // Others may remove the base from now on. Its files can be linked as long as they have a name.
    bool OpenBase()
    {
        if (!request_.base) return true;
        char name[kGenerationNameLimit + 1];
        PathBuffer path;
        if (!TQStringGetGenName(request_.base, name, error_) ||
            !_GetPathToGeneration(store_->rootPath, name, /*mustExist=*/false, path, error_))
            return false;
        base_.emplace().Open(path.c_str());
        return true;
    }

    // Whether the top item has got something back, or lost something, since it was flushed in staging.
    bool HasChanged() const { return S_ISDIR(status_.mode) || status_.flags != 0 || malformed_.IsAny(); }

    // The values that are asked for take its place.
    bool DropDamagedInfo()
    {
        return !std::exchange(malformed_.info, false) ||
               _WriteProtectedAttribute(staging_.staged(), kInfoAttribute, nullptr, 0, error_);
    }

    Placing placing() const { return {store_->rootPath, staging_.staged(), generation_.c_str(), copy_}; }

    const TQClientManagedStorage *const store_;
    const char *const source_;
    const TQAddRequest &request_;
    const bool copy_;
    TQError **const error_;
    PathBuffer generation_;
    std::optional<BaseFiles> base_;
    std::optional<TrimmedPath> document_;
    std::optional<OpenedFolder> movedFrom_;
    OwnerNote note_;
    StagingDirectory staging_;
    MalformedMetadata malformed_;
    TQFileStatus status_{};
    UniqueFd installed_; // the generation, if it is to be flushed once more
};

} // namespace

bool TQClientManagedStorageAdd(const TQClientManagedStorage *store, const char *name, const char *source,
                               uint64_t options, TQError **error, bool copy)
{
    const TQAddRequest request{.size = sizeof request,
                               .flags = copy ? 0 : uint64_t{kTQAddByMoving},
                               .options = options,
                               .base = nullptr,
                               .info = nullptr,
                               .sizeKey = nullptr};
    return TQClientManagedStorageAddWithFlags(store, name, source, &request, error);
}

bool TQClientManagedStorageAddWithFlags(const TQClientManagedStorage *store, const char *name, const char *source,
                                        const TQAddRequest *given, TQError **error)
{
    TQAddRequest request;
    if (!TakeRequest(given, &request, error)) return false;
    Adding adding(store, source, request, error);
    if (!adding.Begin(name)) return false;
    if (adding.Stage() && adding.Install()) return adding.Flush();
    adding.GiveBack();
    return false;
}
