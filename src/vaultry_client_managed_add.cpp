// Adding a generation: built, archived and flushed in staging, then moved to its name by one rename. The store is
// locked only at both ends: to find the place, and to move the item there.

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_folder.h"
#include "vaultry_client_managed_nesting.h"
#include "vaultry_client_managed_request.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/Attributes.h"
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
#include <vaultry/number.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/limits.h>
#include <optional>
#include <sys/stat.h>

namespace {

// What a document brings of an info dictionary that is about to get more values.
BroughtInfo ReadBroughtInfo(const Item &item, std::vector<char> &bytes)
{
    bytes.resize(XATTR_SIZE_MAX);
    const ssize_t length = platform::GetAttribute(item, Links::NoFollow, kInfoAttribute, bytes.data(), bytes.size());
    bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
    const bool isThere = length >= 0;
    return {.isKnown = isThere || errno == ENODATA || errno == ENOTSUP,
            .isThere = isThere,
            .bytes = isThere ? &bytes : nullptr};
}

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
    BroughtOptions &options = note.topOptions;
    const ssize_t length = platform::GetAttribute(Item::AtPath(source), Links::NoFollow, kOptionsAttribute,
                                                  &options.word, sizeof options.word);
    options.isThere = length == sizeof options.word;
    options.isKnown = options.isThere || (length < 0 && (errno == ENODATA || errno == ENOTSUP));
    return note;
}

// Which attributes of these names that the document brought along are damaged. They would be taken for the store's, and
// the generation could be listed but not described.
struct MalformedMetadata {
    bool info = false, displayName = false;
    bool IsAny() const { return info || displayName; }
};

MalformedMetadata FindMalformedMetadata(const char *staged, const BroughtMetadata &brought)
{
    const Item item = Item::AtPath(staged);
    const auto has = [&](const char *name) {
        return platform::GetAttribute(item, Links::NoFollow, name, nullptr, 0) >= 0;
    };
    const bool isInfoWell =
        !brought.info || !has(kInfoAttribute) || Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(staged, nullptr));
    const bool isNameWell = !brought.displayName || !has(kDisplayNameAttribute) ||
                            Ref<TQString>::Adopt(TQCopyOriginalDisplayName(staged, nullptr));
    return {!isInfoWell, !isNameWell};
}

bool DropMalformedMetadata(const char *staged, const MalformedMetadata &malformed, TQError **error)
{
    return (!malformed.info || _WriteProtectedAttribute(staged, kInfoAttribute, nullptr, 0, error)) &&
           (!malformed.displayName || _WriteProtectedAttribute(staged, kDisplayNameAttribute, nullptr, 0, error));
}

// Stores the options. A document that brought none needs nothing taken away.
bool WriteOptions(const char *staged, uint64_t options, const BroughtMetadata &brought, TQError **error)
{
    const bool isNothingToDo = !brought.options && (options & kStoredOptionBits) == 0;
    return isNothingToDo || _WriteGenerationOptions(staged, options, error);
}

bool HasInfo(const TQAddRequest &request)
{
    return request.sizeKey || TQDictionaryGetCount(request.info) != 0;
}

bool WriteInfo(const char *staged, const TQAddRequest &request, uint64_t size, TQError **error)
{
    if (!HasInfo(request)) return true;
    if (!request.sizeKey) return _WriteInfoValues(staged, request.info, error);
    const auto all = Ref<TQDictionary>::Adopt(request.info ? TQDictionaryCreateMutableCopy(request.info)
                                                           : TQDictionaryCreateMutable());
    const auto number = Ref<TQNumber>::Adopt(TQNumberCreateInt64(static_cast<int64_t>(size)));
    if (!all || !number || !TQDictionarySetValue(all.get(), const_cast<TQString *>(request.sizeKey), number.get()))
        return Failure(error).Status(kTQStatusFailed, "malloc failed");
    return _WriteInfoValues(staged, all.get(), error);
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
    if (!WriteOptions(staged, request.options, added.brought, error) ||
        !WriteInfo(staged, request, added.bytes, error) || !MakeStagedMovable(staged, status, error))
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
        (!IsFree(placing.generation, error) || !DropMalformedMetadata(placing.staged, malformed, error)))
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

constexpr uint64_t kKnownFlags = kTQAddByMoving | kTQAddKeepLinks;

bool RequirePossible(const TQAddRequest *request, TQError **error)
{
    if (!_RequireKnown(request, kKnownFlags, error)) return false;
    const bool isMove = (request->flags & kTQAddByMoving) != 0;
    return !isMove || !request->base ||
           Failure(error).Refused(kTQStatusInvalidArgument, "A document that is moved shares no files");
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
        if (!copy_ && HasInfo(request_))
            note_.topInfo = ReadBroughtInfo(Item::AtPath(document_->c_str()), broughtInfo_);
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
        malformed_ = FindMalformedMetadata(staging_.staged(), added.brought);
        return (!HasInfo(request_) || DropDamagedInfo()) &&
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
    std::vector<char> broughtInfo_;
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
                                        const TQAddRequest *request, TQError **error)
{
    if (!RequirePossible(request, error)) return false;
    Adding adding(store, source, *request, error);
    if (!adding.Begin(name)) return false;
    if (adding.Stage() && adding.Install()) return adding.Flush();
    adding.GiveBack();
    return false;
}
