// Checks a store: its own files, the generations and the root.

#include "vaultry_client_managed_check.h"

#include "vaultry_client_managed.h"

#include "Platform/FileStatus.h"
#include "Platform/ScopeExit.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/data.h>
#include <vaultry/filesystem.h>
#include <vaultry/number.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The store as it is reached: its directory, and the store's own files in it.
struct OpenStore {
    Item root;
    Item lockFile;
    Item staging;
    TQFileStatus owner; // the root's status; a repair acts for its owner
};

// Root gives what it makes to the store's owner, who could not use it otherwise.
bool BelongsToOwner(int fd, const TQFileStatus &root)
{
    return geteuid() != 0 || root.owner == 0 || fchown(fd, root.owner, root.group) == 0;
}

// There is no lock yet that could be held, so afterwards the root has the mode that it had.
bool MakeLockFile(const OpenStore &store)
{
    TQFileStatus status;
    if (platform::GetStatusOfFd(store.lockFile.directory, &status) != 0 ||
        platform::SetMode(store.root, Links::Follow, (status.mode | 0200) & 07777) != 0)
        return false;
    const ScopeExit protect([&] { (void)platform::SetMode(store.root, Links::Follow, status.mode & 07777); });
    UniqueFd fd(openat(store.lockFile.directory, store.lockFile.name,
                       O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kLockFileMode));
    return fd && fchmod(fd.get(), kLockFileMode) == 0 && BelongsToOwner(fd.get(), status) && fd.Close() == 0;
}

// Sets the mode of exactly the item that was looked at.
bool SetModeOf(const Item &item, const TQFileStatus &status, mode_t mode)
{
    const UniqueFd pinned = platform::PinItem(item, status);
    return pinned && platform::SetModeOfPinned(pinned.get(), mode) == 0;
}

// Checks the lock file, and mends it, before it is locked. Nothing else is mended without the lock, so nothing is
// mended if something else stands in its place. Checking goes on without a lock.
bool CheckAndTakeLock(const OpenStore &store, Findings &findings, HeldLock &lock, TQError **error)
{
    const Item &item = store.lockFile;
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) {
        if (errno != ENOENT) return Failure(error).Errno("stat(\"%s\") failed", item.path);
        findings.AddMendable(item.path, "lock-file-missing", "The store has no lock file.",
                             [&] { return MakeLockFile(store); });
        return !findings.repair() || lock.At(item, /*exclusive=*/true, error);
    }
    // A file with a second link may be anybody's, and must not be changed.
    if (!S_ISREG(status.mode) || status.linkCount != 1) {
        findings.Add(item.path, "lock-file-foreign",
                     "What stands in the place of the lock file is no file of its own; nothing can be mended before it "
                     "goes.");
        findings.StopRepairing();
        return true;
    }
    const bool isLockable = (status.mode & 0400) != 0;
    if ((status.mode & 07777) != kLockFileMode)
        findings.AddMendable(item.path, "lock-file-mode", "The lock file does not have the mode 0400.",
                             [&] { return SetModeOf(item, status, kLockFileMode); });
    return (!isLockable && !findings.repair()) || lock.At(item, findings.repair(), error);
}

void CheckStagingDirectory(const OpenStore &store, Findings &findings)
{
    const Item &item = store.staging;
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) {
        if (errno != ENOENT) return findings.AddUnreadable(item.path);
        findings.AddMendable(item.path, "staging-missing", "The store has no staging directory.", [&] {
            if (mkdirat(item.directory, item.name, kStagingMode) != 0) return false;
            const UniqueFd made(openat(item.directory, item.name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            return made && fchmod(made.get(), kStagingMode) == 0 && BelongsToOwner(made.get(), store.owner);
        });
        return;
    }
    if (!S_ISDIR(status.mode)) {
        findings.Add(item.path, "staging-foreign",
                     "What stands in the place of the staging directory is no directory.");
        return;
    }
    if ((status.mode & 0777) != kStagingMode)
        findings.AddMendable(item.path, "staging-mode", "The staging directory does not have the mode 0700.",
                             [&] { return SetModeOf(item, status, kStagingMode); });
    _CheckStagingArea(item, findings);
}

bool CheckGenerations(const OpenStore &store, Findings &findings, TQError **error)
{
    Names names(store.root);
    while (const char *name = names.Next()) {
        if (name[0] == '.') continue;
        PathBuffer path;
        if (!path.Format("%s/%s", store.root.path, name))
            return Failure(error).Refused(kTQStatusBadPath, "Path to generation is too long");
        if (!Ref<TQString>::Adopt(TQStringCreateWithFileSystemRepresentation(name)))
            findings.Add(path.c_str(), "name-not-utf8",
                         "The name is not UTF-8, so that the store's generations can't be listed.");
        _CheckGeneration({store.lockFile.directory, name, path.c_str()}, store.owner, findings);
    }
    errno = names.error();
    return errno == 0 || Failure(error).Errno("unable to read the directory \"%s\"", store.root.path);
}

// The files of the store can only be mended while its root is writable. Staging comes first: it tells what operations
// that live, or that left a note, have put beside documents.
bool CheckContents(const OpenStore &store, Findings &findings, TQError **error)
{
    if (findings.repair() && !_UnprotectStoreRoot(store.root, error)) return false;
    const ScopeExit protect([&] {
        if (findings.repair()) _ProtectStoreRoot(store.root);
    });
    CheckStagingDirectory(store, findings);
    return CheckGenerations(store, findings, error);
}

bool GetRootStatus(const OpenStore &store, TQFileStatus *status, TQError **error)
{
    return platform::GetStatusOfFd(store.lockFile.directory, status) == 0 ||
           Failure(error).Errno("stat(\"%s\") failed", store.root.path);
}

// The root's protection is looked at twice, since repairing lifts it and puts it back.
bool CheckStore(OpenStore &store, Findings &findings, TQError **error)
{
    HeldLock lock;
    if (!CheckAndTakeLock(store, findings, lock, error)) return false;

    TQFileStatus before;
    TQFileStatus after;
    if (!GetRootStatus(store, &before, error)) return false;
    store.owner = before;
    if (!CheckContents(store, findings, error) || !GetRootStatus(store, &after, error)) return false;
    const bool isOpen = (after.mode & kWriteBits) != 0;
    if ((before.mode & kWriteBits) != 0 || isOpen)
        findings.Add(store.root.path, "root-unprotected", "The store's directory may be written to.",
                     findings.repair() && !isOpen);
    return true;
}

// Whether the item is certainly not there.
bool IsMissing(const Item &item)
{
    TQFileStatus status;
    return platform::GetStatus(item, Links::NoFollow, &status) != 0 && errno == ENOENT;
}

// Any other directory is somebody's own: repairing it would take its write bits and call its files generations.
bool RequireStore(const OpenStore &store, TQError **error)
{
    if (!IsMissing(store.lockFile) || !IsMissing(store.staging)) return true;
    return Failure(error).Refused(
        kTQStatusBadPath, "\"%s\" is no store: it has neither a lock file nor a staging directory", store.root.path);
}

} // namespace

void Findings::Add(const char *path, const char *kind, const char *meaning, bool mended, const char *home)
{
    const auto finding = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    const auto set = [&](const char *key, TQValue *value) {
        const auto name = Ref<TQString>::Adopt(TQStringCreate(key));
        const auto owned = Ref<TQValue>::Adopt(value);
        return TQDictionarySetValue(finding.get(), name.get(), owned.get());
    };
    complete_ = complete_ && set("path", TQDataCreate(path, strlen(path))) && set("kind", TQStringCreate(kind)) &&
                set("meaning", TQStringCreate(meaning)) && set("mended", TQRetain(TQBooleanGet(mended))) &&
                (!home || set("home", TQDataCreate(home, strlen(home)))) &&
                (!note_ || set("note", TQDataCreate(note_, strlen(note_)))) &&
                (!host_ || set("host", TQDataCreate(host_, strlen(host_)))) &&
                TQArrayAppendValue(list_.get(), finding.get());
}

bool Findings::Note(const Ref<TQSet> &set, const void *bytes, size_t size)
{
    const auto data = Ref<TQData>::Adopt(TQDataCreate(bytes, size));
    if (TQSetContainsValue(set.get(), data.get())) return false;
    complete_ = complete_ && TQSetAddValue(set.get(), data.get());
    return true;
}

// On another machine, the volume's device may have another number. Before a restore has noted what it put beside its
// document, only the document's path is known.
void Findings::AddLiving(const OwnerNote &note)
{
    if (note.work == Work::Restore) (void)BeginDocument(note.document);
    if (!note.hasExchange) return;
    for (ItemId item : {note.exchange.document.id, note.exchange.copy.id, note.exchange.placeholder.id}) {
        if (!note.IsOfThisMachine()) item.device = 0;
        (void)Note(living_, &item, sizeof item);
    }
}

bool Findings::IsAccountedFor(const char *path, const TQFileStatus &status) const
{
    const auto has = [](const Ref<TQSet> &set, const void *bytes, size_t size) {
        return TQSetContainsValue(set.get(), Ref<TQData>::Adopt(TQDataCreate(bytes, size)).get());
    };
    const ItemId here = ItemId::Of(status), elsewhere{0, status.inode};
    return has(explained_, path, strlen(path)) || has(living_, &here, sizeof here) ||
           has(living_, &elsewhere, sizeof elsewhere);
}

TQArray *TQClientManagedStorageCopyFindings(const char *rootPath, bool repair, TQError **error)
{
    if (!_RequireRootDirectory(rootPath, error)) return nullptr;
    PathBuffer lockFile;
    PathBuffer staging;
    if (!staging.Format("%s/%s", rootPath, kStagingName))
        return Failure(error).Refused(kTQStatusBadPath, "failed to get staging dir path");
    if (!_GetPathToLockFile(rootPath, lockFile, error)) return nullptr;
    const UniqueFd root(open(rootPath, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!root) return Failure(error).Errno("unable to read the directory \"%s\"", rootPath);
    OpenStore store{{root.get(), ".", rootPath},
                    {root.get(), kLockFileName, lockFile.c_str()},
                    {root.get(), kStagingName, staging.c_str()},
                    /*owner=*/{}};
    if (!RequireStore(store, error) || !_RequireKnownFormat(rootPath, store.lockFile, error)) return nullptr;

    Findings findings(repair);
    if (!CheckStore(store, findings, error)) return nullptr;
    TQArray *list = findings.Detach();
    return list ? list : Failure(error).Status(kTQStatusFailed, "malloc failed");
}
