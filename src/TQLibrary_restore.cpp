// Restoring a document in place from a generation.
//
// Where the volume can exchange two names, the document's path holds the whole document or the whole copy, never
// nothing, never half, never more open than the document was. Where it can't, the path is empty between two renames. If
// the extension changes, the copy has a path of its own, and gets it before the document leaves its own. The old
// document is removed last, when the copy has its rights and is on disk. The caller's error is that of the first
// failure; the way back only logs. One item of a document is restored in the same way, below its folder, which is held
// open from the beginning.

#include "TQLibrary.h"

#include "TQLibrary_restore.h"
#include "TQLibrary_restore_exchange.h"
#include "vaultry_client_managed.h"
#include "vaultry_client_managed_item.h"
#include "vaultry_client_managed_nesting.h"
#include "vaultry_client_managed_request.h"

#include "Platform/ErrnoKeeper.h"
#include "Platform/FileStatus.h"
#include "Platform/Mounts.h"
#include "Platform/Times.h"
#include "Runtime/Ref.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"

#include <vaultry/filesystem.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t kBackupOptions = 1;

// What a client asked for.
struct Request {
    TQLibrary *library;
    const TQString *name;
    const TQURL *document;
    const TQRestoreRequest &how;

    const TQClientManagedStorage *store() const { return _StorageOf(library); }
};

// The name of the generation, and the path that the document has afterwards: with the generation's extension in place
// of its own, if both have one and they differ.
struct RestoredName {
    char generation[kGenerationNameLimit + 1] = "";
    char path[PathBuffer::kCapacity] = "";

    bool Form(const Request &request, const ReplacedDocument &document, TQError **error)
    {
        if (!TQStringGetGenName(request.name, generation, error)) return false;
        (void)snprintf(path, sizeof path, "%s", document.trimmed.c_str());
        const char *documentExtension = TQGetFileNameExtensionForPath(document.path);
        const char *generationExtension = TQGetFileNameExtensionForPath(generation);
        if (!documentExtension || !generationExtension || strcmp(documentExtension, generationExtension) == 0)
            return true;

        const size_t stem = static_cast<size_t>(documentExtension - document.path);
        if (stem + strlen(generationExtension) >= sizeof path)
            return Failure(error).Refused(kTQStatusBadPath, "The supplied generation name is too long");
        memcpy(path + stem, generationExtension, strlen(generationExtension) + 1);
        if (_PathExists(path)) return Failure(error).Refused(kTQStatusExists, "path \"%s\" already exists", path);
        return true;
    }
};

// Checked before anything is copied: document and store may not hold each other, and what is mounted inside a document
// would be lost with it.
bool RequireReplaceable(const Request &request, const ReplacedDocument &document, TQError **error)
{
    const char *const path = document.trimmed.c_str();
    if (!request.store()) return Failure(error).Refused(kTQStatusInvalidArgument, "no store was supplied");
    if (!_RequireNoStoreInside(path, request.store()->rootPath, error) || !_RequireOutsideStores(path, error))
        return false;
    bool hasMount = false;
    if (S_ISDIR(document.itself.mode) && platform::HasMountInside(path, &hasMount) != 0)
        return Failure(error).Errno("Failed to look for mounts in \"%s\"", document.path);
    if (!hasMount) return true;
    errno = EBUSY;
    return Failure(error).Errno("something is mounted in \"%s\"", document.path);
}

// The generation as it comes out of the store, in a staging directory whose owner file this operation holds.
class CopiedOut {
public:
    bool Make(const Request &request, const CopiedPart &part, const char *documentPath, TQError **error)
    {
        return _CopyOutToStaging(request.store(), part, OwnerNote::Of(Work::Restore, documentPath), staging_, &mode_,
                                 &flags_, error);
    }

    // The document is not touched before the copy is on disk. Until the copy gets its final mode, only its owner can
    // open it.
    bool Flush(TQError **error)
    {
        const Item item = Item::AtPath(staging_.staged());
        const mode_t owners = S_ISDIR(mode_) ? S_IRWXU : S_IRUSR | S_IWUSR;
        if (!S_ISLNK(mode_) && platform::SetMode(item, Links::NoFollow, owners) != 0)
            return Failure(error).Errno("failed to set final mode on \"%s\"", item.path);
        if (platform::GetStatus(item, Links::NoFollow, &staged_.status) != 0)
            return Failure(error).Errno("failed to stat path %s", item.path);
        staged_.path = item.path;
        return TreeFlush::By(staging_.openedFirst()).Flush(item.path, mode_, error);
    }

    mode_t mode() const { return mode_; }
    uint32_t flags() const { return flags_; } // that it is to have if the document gives it none
    const StagedCopy &staged() const { return staged_; }
    StagingDirectory &staging() { return staging_; }

private:
    StagingDirectory staging_;
    uint16_t mode_ = 0;
    uint32_t flags_ = 0;
    StagedCopy staged_{};
};

// The document as it was, kept as a generation. It is removed again at the end of its scope unless it is to stay.
class Backup {
public:
    explicit Backup(const Request &request) : request_(request) {}
    ~Backup()
    {
        if (!isAdded_) return;
        const ErrnoKeeper keeper;
        const UndoingScope undoing;
        TQValue *names[] = {const_cast<TQString *>(request_.how.backupName)};
        const auto backup = Ref<TQArray>::Adopt(TQArrayCreate(names, 1));
        (void)TQLibraryRemoveGenerations(request_.library, backup.get());
    }
    Backup(const Backup &) = delete;
    Backup &operator=(const Backup &) = delete;

    bool Add(TQError **error)
    {
        const TQRestoreRequest &how = request_.how;
        if (!how.backupName) return true;
        uint64_t flags = 0;
        if ((how.flags & kTQRestoreKeepLinks) != 0) flags |= kTQAddKeepLinks;
        if ((how.flags & kTQRestoreInfoIsOptional) != 0) flags |= kTQAddInfoIsOptional;
        const TQAddRequest add{.size = sizeof add,
                               .flags = flags,
                               .options = kBackupOptions,
                               .base = how.backupBase,
                               .info = how.backupInfo,
                               .sizeKey = how.backupSizeKey};
        isAdded_ = _AddGenerationInternal(request_.library, how.backupName, request_.document, &add, error);
        return isAdded_;
    }
    void Keep() { isAdded_ = false; }

private:
    const Request &request_;
    bool isAdded_ = false;
};

bool Announce(const Request &request, const char *restoredPath, TQError **error)
{
    const auto restored = Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPath(restoredPath, /*isDirectory=*/false));
    if (!restored)
        return Failure(error).Status(kTQStatusFailed, "Failed to create file URL for path \"%s\"", restoredPath);
    (void)TQLibraryDocumentWillSafeSave(request.document, restored.get());
    return true;
}

bool Replace(const Request &request, ReplacedDocument &document, const char *restoredPath, CopiedOut &out,
             Backup &backup, TQError **error)
{
    if (!out.Flush(error) || !document.OpenFolder(error)) return false;
    Beside copy(document, out.staging());
    Exchange exchange(document, copy, out.staging(), restoredPath, out.staged());
    const bool replaced =
        copy.Choose(S_ISDIR(out.mode()), error) && exchange.Note(error) && copy.Make(S_ISDIR(out.mode()), error) &&
        Announce(request, restoredPath, error) && exchange.Bring(error) && document.LookAgain(error) &&
        copy.GiveRights(out.mode(), restoredPath, error) && exchange.Do(error) &&
        copy.GiveBlockingFlags(restoredPath, error) && copy.FlushFolder(error) && exchange.RemoveOld(error);
    if (!replaced) exchange.TakeBack();
    if (replaced || exchange.isBackupNeeded()) backup.Keep();
    return replaced;
}

// For a restore where there is no document to replace.
bool CopyToItsPath(const Request &request, const char *documentPath, TQError **error)
{
    char generation[kGenerationNameLimit + 1];
    return TQStringGetGenName(request.name, generation, error) &&
           _CopyGeneration(request.store(), {generation}, documentPath, /*durable=*/true, error);
}

// Gives the copy its place, where nothing is, with the rights that it had. On another volume it is copied beside it
// first. A folder can only be moved while its owner may write to it.
bool Place(const ReplacedDocument &place, CopiedOut &out, TQError **error)
{
    Beside copy(place, out.staging());
    const bool isFolder = S_ISDIR(out.mode());
    const mode_t movable = out.mode() | (isFolder ? S_IWUSR : 0);
    bool isAcross = false;
    if (!out.Flush(error) || !copy.Open(out.staged(), error) || !copy.GiveRights(movable, place.path, error) ||
        !copy.Place(out.staged(), &isAcross, error))
        return false;
    if (isAcross && !(copy.Choose(isFolder, error) && copy.Make(isFolder, error) &&
                      copy.CopyAcross(out.staged(), place.path, error) && copy.GiveRights(movable, place.path, error) &&
                      copy.PlaceCopied(error)))
        return false;
    if ((movable != out.mode() && !copy.GiveRights(out.mode(), place.path, error)) ||
        !copy.GiveBlockingFlags(place.path, error) || !copy.FlushFolder(error))
        return false;
    bool isThere = false;
    if (place.IsFolderThere(&isThere) != 0)
        return Failure(error).Errno("Failed to look for the folder of \"%s\"", place.path);
    if (!isThere)
        return Failure(error).Status(kTQStatusFailed, "the folder of \"%s\" was replaced meanwhile", place.path);
    copy.Release();
    return true;
}

// One item of the document at `folder`. Where it is missing, the folders on the way to it that are missing too come
// with it.
bool RestoreItem(const Request &request, const char *folder, TQError **error)
{
    const char *const item = request.how.item;
    PathBuffer path;
    FoundItem found;
    char generation[kGenerationNameLimit + 1];
    int looks = 0;
    do {
        found = FoundItem();
        if (!_FindItem(folder, item, &found, error)) return false;
    } while (++looks < 3 && found.isThere && S_ISREG(found.status.mode) &&
             platform::OutlastSecond(found.status.changeTime));
    const int length = static_cast<int>(found.length);
    if (!path.Format("%s/%.*s", TrimmedPath(folder).c_str(), length, item))
        return Failure(error).Refused(kTQStatusBadPath, "The supplied item path is too long");
    if (!TQStringGetGenName(request.name, generation, error)) return false;

    const bool isThere = found.isThere;
    const CopiedPart part{generation, item, found.length < strlen(item) ? found.length : 0};
    ReplacedDocument place(path.c_str(), std::move(found));
    CopiedOut out;
    if (!RequireReplaceable(request, place, error) || !out.Make(request, part, path.c_str(), error)) return false;
    place.rights.flags = out.flags();
    Backup backup(request);
    if (!backup.Add(error)) return false;
    if (isThere) return Replace(request, place, path.c_str(), out, backup, error);
    if (!Place(place, out, error)) return false;
    backup.Keep();
    return true;
}

mode_t RestoredMode(mode_t staged, mode_t document)
{
    mode_t mode = document & 07777;
    if (S_ISDIR(staged) && !S_ISDIR(document)) {
        // A class that may read or write the document may also enter it.
        for (const unsigned shift : {6U, 3U, 0U}) {
            const mode_t search = 1U << shift;
            mode = (mode & (6U << shift)) != 0 ? mode | search : mode & ~search;
        }
    } else if (!S_ISDIR(staged) && S_ISDIR(document)) {
        mode &= ~mode_t{0111};
    }
    return mode;
}

} // namespace

mode_t _RestoredModeFor(mode_t staged, const TQFileStatus &document, const TQFileStatus &copy)
{
    const mode_t mode = RestoredMode(staged, static_cast<mode_t>(document.mode));
    // Set-id bits would lend the rights of somebody who did not give them. A group that is not the document's was among
    // the others before, and gets no more than they have.
    if (copy.group == document.group) return copy.owner == document.owner ? mode : mode & ~mode_t{S_ISUID | S_ISGID};
    const mode_t setUser = copy.owner == document.owner ? mode & S_ISUID : 0;
    return setUser | (mode & (S_ISVTX | S_IRWXU | S_IRWXO)) | (mode & S_IRWXG & (mode & S_IRWXO) << 3);
}

bool TQLibraryRestoreGeneration(TQLibrary *library, const TQString *name, const TQURL *documentURL,
                                const TQString *backupName, TQError **error)
{
    const TQRestoreRequest request{.size = sizeof request,
                                   .flags = 0,
                                   .backupName = backupName,
                                   .backupBase = nullptr,
                                   .backupInfo = nullptr,
                                   .backupSizeKey = nullptr,
                                   .item = nullptr};
    return TQLibraryRestoreGenerationWithFlags(library, name, documentURL, &request, error);
}

bool TQLibraryRestoreGenerationWithFlags(TQLibrary *library, const TQString *name, const TQURL *documentURL,
                                         const TQRestoreRequest *given, TQError **error)
{
    constexpr size_t kFirstSize = offsetof(TQRestoreRequest, backupSizeKey) + sizeof TQRestoreRequest::backupSizeKey;
    TQRestoreRequest how;
    if (!_TakeRequest(given, kFirstSize, kTQRestoreKeepLinks | kTQRestoreInfoIsOptional, &how, error)) return false;
    if (!TQURLIsFileURL(documentURL)) return Failure(error).Status(kTQStatusBadPath, "not a file URL");

    const DeferredScope scope;
    const Request request{library, name, documentURL, how};
    const char *const path = tq_fileSystemRepresentation(documentURL);
    if (!path) return Failure(error).Status(kTQStatusBadPath, "not a file URL");
    if (how.item) return RestoreItem(request, path, error);
    ReplacedDocument document(path);
    if (document.Look() != 0) {
        if (errno == ENOENT) return CopyToItsPath(request, path, error);
        return Failure(error).Errno("Failed to determine if \"%s\" exists", path);
    }
    RestoredName restored;
    if (!restored.Form(request, document, error) || !RequireReplaceable(request, document, error)) return false;

    CopiedOut out;
    if (!out.Make(request, {restored.generation}, document.trimmed.c_str(), error)) return false;
    Backup backup(request);
    return backup.Add(error) && Replace(request, document, restored.path, out, backup, error);
}
