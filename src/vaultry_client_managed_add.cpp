// Adding a generation: built and archived in staging, then moved to its name by one rename.

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_folder.h"
#include "vaultry_client_managed_nesting.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/ScopeExit.h"
#include "Runtime/Ref.h"
#include "Runtime/UTF8.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"
#include "Shared/vaultry_storage.h"
#include "Shared/vaultry_storage_lift.h"

#include <vaultry/filesystem.h>
#include <vaultry/path.h>

#include <cerrno>
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
    return note;
}

// Drops damaged attributes of these names that the document brought along. They would be taken for the store's, and the
// generation could be listed but not described.
bool DropMalformedMetadata(const char *staged, TQError **error)
{
    const Item item = Item::AtPath(staged);
    const auto has = [&](const char *name) {
        return platform::GetAttribute(item, Links::NoFollow, name, nullptr, 0) >= 0;
    };
    const bool isInfoWell =
        !has(kInfoAttribute) || Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(staged, nullptr));
    const bool isNameWell =
        !has(kDisplayNameAttribute) || Ref<TQString>::Adopt(TQCopyOriginalDisplayName(staged, nullptr));
    return (isInfoWell || _SetEAOnGeneration(staged, kInfoAttribute, nullptr, 0, error)) &&
           (isNameWell || _SetEAOnGeneration(staged, kDisplayNameAttribute, nullptr, 0, error));
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
        (void)_RemoveTree(placing.generation, 0, nullptr);
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

enum class Installed { No, WithoutOptions, Whole };

// Moves the item from staging to its name, once its content is on disk. The root is writable from the unprotect to the
// end of this function.
Installed InstallStaged(const Placing &placing, uint64_t options, const TreeFlush &flush, TQError **error)
{
    const char *const staged = placing.staged, *const generation = placing.generation;
    TQFileStatus status;
    if (!MakeStagedMovable(staged, &status, error) || !flush.Flush(staged, status.mode, error)) return Installed::No;
    if (!_UnprotectGenerationStore(placing.root, error)) return Installed::No;
    const ScopeExit protect([&] { _ProtectGenerationStore(placing.root); });

    // Nothing is replaced, not even a dangling link that the look before did not see.
    if (platform::RenameIntoNothing(Item::AtPath(staged), ItemId::Of(status), Item::AtPath(generation)) != 0) {
        Failure(error).Errno("Failed to install generation; rename (\"%s\" -> \"%s\") failed", staged, generation);
        return Installed::No;
    }
    if (!FinishInstalled(generation, status, error)) {
        TakeBack(placing, status);
        return Installed::No;
    }
    return _WriteGenerationOptions(generation, options, error) ? Installed::Whole : Installed::WithoutOptions;
}

// Flushes the name, the options and the protection. The item goes first: if the file system keeps a journal, that takes
// all of them to disk, and the rest costs nothing.
bool FlushInstalled(const Placing &placing, const char *source, TQError **error)
{
    return _FlushItem(placing.generation, error) && _FlushGenerationStore(placing.root, error) &&
           (placing.copied || _FlushFormerEntry(source, placing.generation, error));
}

bool RequireSource(const char *source, const char *root, bool copy, TQError **error)
{
    if (!source || source[0] == '\0') return Failure(error).Refused(kTQStatusBadPath, "no source path was supplied");
    // A process that gives a moved document back later may have another current directory.
    if (!copy && source[0] != '/')
        return Failure(error).Refused(kTQStatusBadPath, "path \"%s\" is not absolute", source);
    return _RequireNoStoreInside(source, root, error) && (copy || _RequireOutsideStores(source, error));
}

} // namespace

bool TQClientManagedStorageAdd(const TQClientManagedStorage *store, const char *name, const char *source,
                               uint64_t options, TQError **error, bool copy)
{
    HeldLock lock;
    if (!lock.ForWriting(store, error)) return false;
    const char *root = store->rootPath;

    PathBuffer generation;
    if (!_GetPathToGeneration(root, name, /*mustExist=*/false, generation, error)) return false;
    // Such a name could be added, but never removed. A name that is not UTF-8 would also stop every listing.
    if (strlen(name) > kGenerationNameLimit)
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name is too long");
    if (!UTF16LengthOfUTF8(name, strlen(name)))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    if (_PathExists(generation.c_str()))
        return Failure(error).Refused(kTQStatusExists, "path \"%s\" already exists", generation.c_str());
    if (!RequireSource(source, root, copy, error)) return false;

    const TrimmedPath document(source);
    std::optional<OpenedFolder> movedFrom;
    if (!copy) movedFrom.emplace(document.c_str());
    const OwnerNote note = MakeNote(document.c_str(), movedFrom ? &*movedFrom : nullptr);
    StagingDirectory staging;
    if (!staging.Make(root, note, error)) return false;
    const char *const staged = staging.staged();
    const auto flush = TreeFlush::By(staging.openedFirst());
    // Without the note on disk, nobody would know after a power cut where the document belongs.
    if (!copy && !staging.FlushNote(error)) return false;
    if (TQAddPathAsGeneration(source, staged, copy, /*makeReadable=*/false, /*archive=*/true, error) &&
        DropMalformedMetadata(staged, error)) {
        const Placing placing{root, staged, generation.c_str(), copy};
        const Installed installed = InstallStaged(placing, options, flush, error);
        if (installed != Installed::No) return installed == Installed::Whole && FlushInstalled(placing, source, error);
    }

    // A moved document may be somebody's only copy, so it is given back first. If it can't be, staging stays.
    const MovedDocument moved{note.topMode != OwnerNote::kUnknownMode, note.top, note.topMode, note.topFlags,
                              staging.written()};
    const Item home = movedFrom && *movedFrom ? movedFrom->item() : Item::AtPath(source);
    if (!copy && !_GiveDocumentBack(Item::AtPath(staged), home, moved)) staging.Keep();
    return false;
}
