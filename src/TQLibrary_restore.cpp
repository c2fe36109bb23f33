// Restoring a document in place from a generation.
//
// Always: at any moment the document is whole, at its path or beside it under its placeholder name; it is under that
// name only between the two renames of the exchange. It is removed last, when the restored item has its final
// rights. The caller's error is that of the first failure; the way back reports nothing.

#include "TQLibrary.h"

#include "TQLibrary_restore.h"
#include "vaultry_client_managed.h"

#include "Platform/FileStatus.h"
#include "Platform/ScopeExit.h"
#include "Platform/UniqueNames.h"
#include "Platform/duplix.h"
#include "Runtime/Ref.h"
#include "Shared/PathBuffer.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/filesystem.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kPlaceholderSuffix[] = "-tmp.nosync.XXXXXX";
constexpr uint64_t kBackupOptions = 1;

struct Restore {
    TQLibrary *library;
    const TQString *name;
    const TQURL *document;
    const TQString *backupName; // may be null
    TQError **error;

    const char *documentPath = nullptr;
    TQFileStatus before{}; // the document's
    bool extensionHidden = false;
    char generationName[256] = "";
    char restoredPath[PathBuffer::kCapacity] = "";
    char stagedPath[PathBuffer::kCapacity] = "";
    uint16_t stagedMode = 0;
    PathBuffer temporaryPath{};
    bool backupAdded = false;
    bool movedAside = false;
    TreeFlush stagedFlush{};
    TreeFlush restoredFlush{};
    bool copiedAcross = false; // from another volume

    bool NameRestored();
    bool CopyOut();
    bool KeepBackup();
    bool FlushCopy();
    bool MakePlaceholder();
    bool AnnounceExchange();
    bool MoveDocumentAside();
    bool InstallCopy();
    bool GiveDocumentsRights();
    bool FlushRestored();
    bool RemoveOldDocument();
    void CleanUp(bool succeeded);

    const TQClientManagedStorage *store() const { return _StorageOf(library); }
    bool documentIsDirectory() const { return S_ISDIR(before.mode); }
    mode_t finalMode() const { return _RestoredMode(stagedMode, before.mode); }

private:
    bool ReplaceExtension(const char *documentExtension, const char *generationExtension);
    bool CopyAcrossVolumes();
    bool DiscardRestored();
};

// The generation's extension goes where the document's was, if both have one and they differ.
bool Restore::NameRestored()
{
    extensionHidden = TQFSFilenameExtensionIsHidden(documentPath);
    if (!TQStringGetGenName(name, generationName, error)) return false;
    (void)snprintf(restoredPath, sizeof restoredPath, "%s", documentPath);

    const char *documentExtension = TQGetFileNameExtensionForPath(documentPath);
    const char *generationExtension = TQGetFileNameExtensionForPath(generationName);
    if (!documentExtension || !generationExtension || strcmp(documentExtension, generationExtension) == 0) return true;
    return ReplaceExtension(documentExtension, generationExtension);
}

bool Restore::ReplaceExtension(const char *documentExtension, const char *generationExtension)
{
    const size_t stem = static_cast<size_t>(documentExtension - documentPath);
    if (stem + strlen(generationExtension) >= sizeof restoredPath)
        return Failure(error).Refused(kTQStatusBadPath, "The supplied generation name is too long");
    memcpy(restoredPath + stem, generationExtension, strlen(generationExtension) + 1);
    if (_PathExists(restoredPath))
        return Failure(error).Refused(kTQStatusExists, "path \"%s\" already exists", restoredPath);
    return true;
}

bool Restore::CopyOut()
{
    if (store()) stagedFlush = TreeFlush::Within(store()->rootPath);
    uint32_t flags = 0; // the document's own count in the end
    return TQClientManagedStorageCopyOut(store(), generationName, stagedPath, &stagedMode, &flags, error);
}

bool Restore::KeepBackup()
{
    if (!backupName) return true;
    backupAdded = _AddGenerationInternal(library, backupName, document, kBackupOptions, error, /*copy=*/true);
    return backupAdded;
}

// The document is not touched before what replaces it is on disk, and open to nobody else than the document was: in its
// place it stands like this until it gets its final mode, and for good if that never comes.
bool Restore::FlushCopy()
{
    const mode_t owners = S_ISDIR(stagedMode) ? 0700 : 0600;
    (void)platform::SetMode(Item::AtPath(stagedPath), Links::NoFollow, (finalMode() & 0077) | owners);
    return stagedFlush.Flush(stagedPath, stagedMode, error);
}

// An empty item beside the document, under a name that is nobody else's, which the document then replaces. In the
// same directory, so that both renames stay on one volume.
bool Restore::MakePlaceholder()
{
    size_t length = strlen(documentPath);
    if (length + sizeof kPlaceholderSuffix > PathBuffer::kCapacity)
        return Failure(error).Status(kTQStatusBadPath, "generated path is too long");
    if (length >= 2 && documentPath[length - 1] == '/') --length;

    PathBuffer path;
    (void)path.Format("%.*s", static_cast<int>(length), documentPath);
    if (documentIsDirectory()) {
        (void)temporaryPath.Format("%s%s", path.c_str(), kPlaceholderSuffix);
        if (platform::MakeUniqueDirectory(temporaryPath.data()) == 0) return true;
        return Failure(error).Errno("mkdtemp(\"%s\") failed", temporaryPath.c_str());
    }

    const char *extension = TQGetFileNameExtensionForPath(path.c_str());
    if (!extension) extension = path.c_str() + length;
    (void)temporaryPath.Format("%.*s%s%s", static_cast<int>(extension - path.c_str()), path.c_str(), kPlaceholderSuffix,
                               extension);
    const int fd = platform::MakeUniqueFile(temporaryPath.data(), static_cast<int>(strlen(extension)));
    if (fd < 0) return Failure(error).Errno("mkstemps(\"%s\") failed", temporaryPath.c_str());
    (void)close(fd);
    return true;
}

bool Restore::AnnounceExchange()
{
    const auto restored = Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPath(restoredPath, /*isDirectory=*/false));
    if (!restored)
        return Failure(error).Status(kTQStatusFailed, "Failed to create file URL for path \"%s\"", restoredPath);
    (void)TQLibraryDocumentWillSafeSave(document, restored.get());
    return true;
}

// A directory can't be moved to another name by its owner before it may be written. A link in the document's place can;
// the rights of its target are not ours to change, and a slash at the end would lead there.
bool Restore::MoveDocumentAside()
{
    const TrimmedPath path(documentPath);
    const Item item = Item::AtPath(path.c_str());
    TQFileStatus own;
    const bool lift = documentIsDirectory() && (before.mode & 0200) == 0 &&
                      !(platform::GetStatus(item, Links::NoFollow, &own) == 0 && S_ISLNK(own.mode));
    if (lift && platform::SetMode(item, Links::NoFollow, (before.mode | 0200) & 07777) != 0)
        return Failure(error).Errno("Failed to make \"%s\" writable before moving it out of the way", documentPath);

    if (rename(documentPath, temporaryPath.c_str()) != 0) {
        Failure(error).Errno("Failed to rename old file to temp path (\"%s\" -> \"%s\")", documentPath,
                             temporaryPath.c_str());
        (void)unlink(temporaryPath.c_str());
        return false;
    }
    movedAside = true;

    if (lift && platform::SetMode(Item::AtPath(temporaryPath.c_str()), Links::NoFollow, before.mode & 07777) != 0)
        return Failure(error).Errno("Failed to make restore permissions to \"%s\"", temporaryPath.c_str());
    return true;
}

bool Restore::InstallCopy()
{
    if (rename(stagedPath, restoredPath) == 0) return true;
    if (errno == EXDEV && store()) return CopyAcrossVolumes();
    return Failure(error).Errno("Failed to rename file from staging (\"%s\" -> \"%s\")", stagedPath, restoredPath);
}

bool Restore::CopyAcrossVolumes()
{
    copiedAcross = true;
    restoredFlush = TreeFlush::At(restoredPath);
    if (platform::duplix(stagedPath, restoredPath, /*callback=*/nullptr, /*context=*/nullptr) != 0)
        return Failure(error).Errno("duplix from \"%s\" to \"%s\" failed", stagedPath, restoredPath);
    // To the document's own path, not to the restored one: clients know the birth time of a document whose
    // extension changed as that of a new file.
    (void)_TransferBirthTime(stagedPath, documentPath);
    return true;
}

bool Restore::GiveDocumentsRights()
{
    TQFSSetFileNameExtensionHiding(restoredPath, extensionHidden);

    // A link that somebody put into the store has no rights of its own, and its target is not ours to change.
    const Item item = Item::AtPath(restoredPath);
    if (platform::SetMode(item, Links::NoFollow, finalMode()) != 0) {
        Failure(error).Errno("failed to set final mode on \"%s\"", restoredPath);
        return DiscardRestored();
    }
    if (platform::SetFlags(item, Links::NoFollow, before.flags) != 0 && errno != ENOTSUP) {
        Failure(error).Errno("failed to set final flags on \"%s\"", restoredPath);
        return DiscardRestored();
    }
    return true;
}

// What is restored is on disk under its name, and with the document's rights, before what it replaces is deleted. Its
// directory alone does not do: xfs and btrfs leave out what the item got since somebody else's flush.
bool Restore::FlushRestored()
{
    const bool flushed =
        copiedAcross ? restoredFlush.Flush(restoredPath, stagedMode, error) : _FlushItem(restoredPath, error);
    return (flushed && _FlushEntry(restoredPath, error)) || DiscardRestored();
}

bool Restore::DiscardRestored()
{
    (void)_RemoveTree(restoredPath, 0, nullptr);
    return false;
}

bool Restore::RemoveOldDocument()
{
    return _RemoveTree(temporaryPath.c_str(), 0, error);
}

// Runs on every way out once the generation was copied out.
void Restore::CleanUp(bool succeeded)
{
    (void)TQClientManagedStorageCopyOutDone(store(), stagedPath, nullptr);
    if (succeeded) return;
    if (backupAdded) {
        TQValue *names[] = {const_cast<TQString *>(backupName)};
        const auto backup = Ref<TQArray>::Adopt(TQArrayCreate(names, 1));
        (void)TQLibraryRemoveGenerations(library, backup.get());
    }
    if (movedAside) (void)rename(temporaryPath.c_str(), documentPath);
}

} // namespace

mode_t _RestoredMode(mode_t staged, mode_t document)
{
    mode_t mode = document & 07777;
    if (S_ISDIR(staged) && !S_ISDIR(document)) {
        // Who may read or write a document may also enter it.
        for (const unsigned shift : {6U, 3U, 0U}) {
            const mode_t search = 1U << shift;
            mode = (mode & (6U << shift)) != 0 ? mode | search : mode & ~search;
        }
    } else if (!S_ISDIR(staged) && S_ISDIR(document)) {
        mode &= ~mode_t{0111};
    }
    return mode;
}

// There is no document to be replaced.
static bool CopyToItsPath(TQLibrary *library, const TQString *name, const TQURL *document, TQError **error)
{
    const TrimmedPath path(tq_fileSystemRepresentation(document));
    const auto flush = TreeFlush::At(path.c_str());
    if (!TQLibraryCopyGeneration(library, name, document, error)) return false;
    const uint32_t mode = _IsDirectory(path.c_str(), /*status=*/nullptr) ? S_IFDIR : S_IFREG;
    if (flush.Flush(path.c_str(), mode, error) && _FlushEntry(path.c_str(), error)) return true;
    (void)_RemoveTree(path.c_str(), 0, nullptr);
    return false;
}

bool TQLibraryRestoreGeneration(TQLibrary *library, const TQString *name, const TQURL *document,
                                const TQString *backupName, TQError **error)
{
    if (!TQURLIsFileURL(document)) return Failure(error).Status(kTQStatusBadPath, "not a file URL");

    const DeferredScope scope;
    Restore restore{library, name, document, backupName, error};
    restore.documentPath = tq_fileSystemRepresentation(document);
    if (!restore.documentPath) return Failure(error).Status(kTQStatusBadPath, "not a file URL");
    if (platform::GetStatus(Item::AtPath(restore.documentPath), Links::Follow, &restore.before) != 0) {
        if (errno == ENOENT) return CopyToItsPath(library, name, document, error);
        return Failure(error).Errno("Failed to determine if \"%s\" exists", restore.documentPath);
    }
    if (!restore.NameRestored() || !restore.CopyOut()) return false;

    const bool restored = restore.KeepBackup() && restore.FlushCopy() && restore.MakePlaceholder() &&
                          restore.AnnounceExchange() && restore.MoveDocumentAside() && restore.InstallCopy() &&
                          restore.GiveDocumentsRights() && restore.FlushRestored() && restore.RemoveOldDocument();
    restore.CleanUp(restored);
    return restored;
}
