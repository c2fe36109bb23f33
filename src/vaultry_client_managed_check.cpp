// Checking a store: the root, its own files, and then each room in turn.

#include "vaultry_client_managed_check.h"

#include "vaultry_client_managed.h"

#include "Platform/FileStatus.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/data.h>
#include <vaultry/filesystem.h>
#include <vaultry/number.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace {

// Before there is a lock to be held, so the root is as open afterwards as it was.
bool MakeLockFile(const char *root, const char *path)
{
    TQFileStatus status;
    const Item item = Item::AtPath(root);
    if (platform::GetStatus(item, Links::Follow, &status) != 0 ||
        platform::SetMode(item, Links::Follow, (status.mode | 0200) & 07777) != 0)
        return false;
    const ScopeExit protect([&] { (void)platform::SetMode(item, Links::Follow, status.mode & 07777); });
    const UniqueFd fd(open(path, O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0400));
    return static_cast<bool>(fd);
}

// The lock file is looked at, and mended, before it is locked: nothing else is mended without the lock, so not where
// something else stands in its place. Looking goes on without one.
bool CheckAndTakeLock(const char *root, const char *path, Findings &findings, HeldLock &lock, TQError **error)
{
    const Item item = Item::AtPath(path);
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) {
        if (errno != ENOENT) return Failure(error).Errno("stat(\"%s\") failed", path);
        findings.AddMendable(path, "lock-file-missing", "The store has no lock file.",
                             [&] { return MakeLockFile(root, path); });
        return !findings.repair() || lock.At(path, /*exclusive=*/true, error);
    }
    if (!S_ISREG(status.mode)) {
        findings.Add(path, "lock-file-foreign",
                     "What stands in the place of the lock file is no file; nothing can be mended before it goes.");
        findings.MendNothing();
        return true;
    }
    const bool isLockable = (status.mode & 0400) != 0;
    if ((status.mode & 07777) != 0400)
        findings.AddMendable(path, "lock-file-mode", "The lock file does not have the mode 0400.",
                             [&item] { return platform::SetMode(item, Links::NoFollow, 0400) == 0; });
    return (!isLockable && !findings.repair()) || lock.At(path, findings.repair(), error);
}

void CheckStagingDirectory(const char *path, Findings &findings)
{
    const Item item = Item::AtPath(path);
    TQFileStatus status;
    if (platform::GetStatus(item, Links::NoFollow, &status) != 0) {
        if (errno != ENOENT) return findings.AddUnreadable(path);
        findings.AddMendable(path, "staging-missing", "The store has no staging directory.",
                             [path] { return mkdir(path, 0700) == 0; });
        return;
    }
    if (!S_ISDIR(status.mode)) {
        findings.Add(path, "staging-foreign", "What stands in the place of the staging directory is no directory.");
        return;
    }
    if ((status.mode & 0777) != 0700)
        findings.AddMendable(path, "staging-mode", "The staging directory does not have the mode 0700.",
                             [&item] { return platform::SetMode(item, Links::NoFollow, 0700) == 0; });
    _CheckStagingArea(path, findings);
}

bool CheckGenerations(const char *root, Findings &findings, TQError **error)
{
    Names names(root);
    while (const char *name = names.Next()) {
        if (name[0] == '.') continue;
        PathBuffer path;
        if (!path.Format("%s/%s", root, name))
            return Failure(error).Refused(kTQStatusBadPath, "Path to generation is too long");
        if (!Ref<TQString>::Adopt(TQStringCreateWithFileSystemRepresentation(name)))
            findings.Add(path.c_str(), "name-not-utf8",
                         "The name is not UTF-8, so that the store's generations can't be listed.");
        _CheckGeneration(path.c_str(), findings);
    }
    errno = names.error();
    return errno == 0 || Failure(error).Errno("unable to read the directory \"%s\"", root);
}

// The files of the store can only be mended while its root is writable.
bool CheckContents(const char *root, const PathBuffer &staging, Findings &findings, TQError **error)
{
    if (findings.repair() && !_UnprotectGenerationStore(root, error)) return false;
    const ScopeExit protect([&] {
        if (findings.repair()) _ProtectGenerationStore(root);
    });
    CheckStagingDirectory(staging.c_str(), findings);
    return CheckGenerations(root, findings, error);
}

bool GetIsOpen(const char *root, bool *isOpen, TQError **error)
{
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(root), Links::Follow, &status) != 0)
        return Failure(error).Errno("stat(\"%s\") failed", root);
    *isOpen = (status.mode & 0222) != 0;
    return true;
}

// Whether the root is protected is looked at twice, since repairing lifts its protection and puts it back.
bool CheckStore(const char *root, const PathBuffer &lockFile, const PathBuffer &staging, Findings &findings,
                TQError **error)
{
    HeldLock lock;
    if (!CheckAndTakeLock(root, lockFile.c_str(), findings, lock, error)) return false;

    bool wasOpen = false;
    bool isOpen = false;
    if (!GetIsOpen(root, &wasOpen, error) || !CheckContents(root, staging, findings, error) ||
        !GetIsOpen(root, &isOpen, error))
        return false;
    if (wasOpen || isOpen)
        findings.Add(root, "root-unprotected", "The store's directory may be written to.",
                     findings.repair() && !isOpen);
    return true;
}

// Any other directory is somebody's own: repairing it would take its write bits and call its files generations.
bool IsStore(const char *root, const PathBuffer &lockFile, const PathBuffer &staging, TQError **error)
{
    if (!_PathNotExists(lockFile.c_str()) || !_PathNotExists(staging.c_str())) return true;
    return Failure(error).Refused(kTQStatusBadPath,
                                  "\"%s\" is no store: it has neither a lock file nor a staging directory", root);
}

} // namespace

void Findings::Add(const char *path, const char *kind, const char *meaning, bool mended)
{
    const auto finding = Ref<TQDictionary>::Adopt(TQDictionaryCreateMutable());
    const auto set = [&](const char *key, TQValue *value) {
        const auto name = Ref<TQString>::Adopt(TQStringCreate(key));
        const auto owned = Ref<TQValue>::Adopt(value);
        return TQDictionarySetValue(finding.get(), name.get(), owned.get());
    };
    complete_ = complete_ && set("path", TQDataCreate(path, strlen(path))) && set("kind", TQStringCreate(kind)) &&
                set("meaning", TQStringCreate(meaning)) && set("mended", TQRetain(TQBooleanGet(mended))) &&
                TQArrayAppendValue(list_.get(), finding.get());
}

bool Findings::IsNewDocument(const char *path)
{
    const auto document = Ref<TQData>::Adopt(TQDataCreate(path, strlen(path)));
    if (TQSetContainsValue(documents_.get(), document.get())) return false;
    complete_ = complete_ && TQSetAddValue(documents_.get(), document.get());
    return true;
}

TQArray *TQClientManagedStorageCopyFindings(const char *rootPath, bool repair, TQError **error)
{
    if (!_IsDirectory(rootPath, /*status=*/nullptr))
        return Failure(error).Status(kTQStatusBadPath, "The supplied path \"%s\" does not exist",
                                     rootPath ? rootPath : "");
    PathBuffer lockFile;
    PathBuffer staging;
    if (!staging.Format("%s/%s", rootPath, kStagingName))
        return Failure(error).Refused(kTQStatusBadPath, "failed to get staging dir path");
    if (!_GetPathToLockFile(rootPath, lockFile, error)) return nullptr;
    if (!IsStore(rootPath, lockFile, staging, error)) return nullptr;

    Findings findings(repair);
    if (!CheckStore(rootPath, lockFile, staging, findings, error)) return nullptr;
    TQArray *list = findings.Detach();
    return list ? list : Failure(error).Status(kTQStatusFailed, "malloc failed");
}
