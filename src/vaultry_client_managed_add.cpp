// Adding a generation: built and archived in staging, then moved to its name by one rename.

#include "vaultry_client_managed.h"

#include "Platform/Attributes.h"
#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/UniqueFd.h"
#include "Runtime/UTF8.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/filesystem.h>
#include <vaultry/path.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr size_t kMaximumNameLength = 254; // bytes
constexpr char kMovedFromAttribute[] = "com.corvane.vaultry.moved_from";

// Whether the store lies in the tree at `source`, whatever the names in between.
bool ContainsStore(const char *source, const char *root)
{
    const ErrnoKeeper keeper;
    TQFileStatus tree;
    TQFileStatus status;
    if (platform::GetStatus(Item::AtPath(source), Links::NoFollow, &tree) != 0 || !S_ISDIR(tree.mode)) return false;

    UniqueFd directory(open(root, O_PATH | O_DIRECTORY | O_CLOEXEC));
    uint64_t device = 0;
    uint64_t inode = 0;
    while (directory && platform::GetStatusOfFd(directory.get(), &status) == 0) {
        if (status.device == tree.device && status.inode == tree.inode) return true;
        if (status.device == device && status.inode == inode) return false; // the top is its own parent
        device = status.device;
        inode = status.inode;
        directory.Reset(openat(directory.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return false;
}

// The note that tells, after a kill, where the document in this staging directory belongs.
bool NoteWhereFrom(const char *staged, const char *source, TQError **error)
{
    PathBuffer unique;
    (void)unique.Format("%.*s", static_cast<int>(strrchr(staged, '/') - staged), staged);
    if (platform::SetAttribute(Item::AtPath(unique.c_str()), Links::NoFollow, kMovedFromAttribute, source,
                               strlen(source)) == 0)
        return true;
    return Failure(error).Errno("setxattr(\"%s\") failed", unique.c_str());
}

// An installed item that must go again. It goes back to staging, from where a copy is removed and a document given back:
// in the root it would be listed while half of it is gone.
void TakeBack(const char *generation, const char *staged, const TQFileStatus &status, bool copied)
{
    const ErrnoKeeper keeper;
    TQFileStatus installed = status;
    (void)platform::GetStatus(Item::AtPath(generation), Links::NoFollow, &installed);
    (void)_MakeMovable(generation, installed);
    if (rename(generation, staged) == 0) return;
    if (copied)
        (void)_RemoveTree(generation, 0, nullptr);
    else
        Failure(nullptr).Errno("Failed to take the document back from \"%s\", where it stays", generation);
}

// The staged item gets what a rename to another parent needs. Its flags and mode of before are kept in `status`.
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

// From staging to its name, which it gets only when its content is on disk. The root is writable from the unprotect to
// the end of this function.
Installed InstallStaged(const char *root, const char *staged, const char *generation, uint64_t options, bool copied,
                        const TreeFlush &flush, TQError **error)
{
    TQFileStatus status;
    if (!MakeStagedMovable(staged, &status, error) || !flush.Flush(staged, status.mode, error)) return Installed::No;
    if (!_UnprotectGenerationStore(root, error)) return Installed::No;
    const ScopeExit protect([root] { _ProtectGenerationStore(root); });

    // Nothing is replaced, not even a dangling link that the look before did not see.
    if (platform::RenameIntoNothing(staged, generation) != 0) {
        Failure(error).Errno("Failed to install generation; rename (\"%s\" -> \"%s\") failed", staged, generation);
        return Installed::No;
    }
    if (!FinishInstalled(generation, status, error)) {
        TakeBack(generation, staged, status, copied);
        return Installed::No;
    }
    return _WriteGenerationOptions(generation, options, error) ? Installed::Whole : Installed::WithoutOptions;
}

// The name, the options and the protection. The item goes first: where the disk keeps a journal that takes all of them
// with it, and the rest costs nothing.
bool FlushInstalled(const char *root, const char *generation, const char *source, bool copied, TQError **error)
{
    return _FlushItem(generation, error) && _FlushGenerationStore(root, error) &&
           (copied || _FlushFormerEntry(source, generation, error));
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
    // Such names could be added, and then never removed; one that no text holds would stop every listing, too.
    if (strlen(name) > kMaximumNameLength)
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name is too long");
    if (!UTF16LengthOfUTF8(name, strlen(name)))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    if (_PathExists(generation.c_str()))
        return Failure(error).Refused(kTQStatusExists, "path \"%s\" already exists", generation.c_str());
    if (!source || source[0] == '\0') return Failure(error).Refused(kTQStatusBadPath, "no source path was supplied");
    // Whoever gives a moved document back stands in a directory of its own.
    if (!copy && source[0] != '/')
        return Failure(error).Refused(kTQStatusBadPath, "path \"%s\" is not absolute", source);
    if (ContainsStore(source, root))
        return Failure(error).Refused(kTQStatusInvalidArgument, "path \"%s\" contains the store", source);

    PathBuffer staged;
    if (!_GetUniqueStagingPath(root, staged, error)) return false;
    ScopeExit removeStaging([&] { (void)_RemoveStagingPath(root, staged.c_str(), nullptr); });
    const auto flush = TreeFlush::At(staged.c_str());

    if (!copy && !NoteWhereFrom(staged.c_str(), source, error)) return false;
    if (TQAddPathAsGeneration(source, staged.c_str(), copy, /*makeReadable=*/false, /*archive=*/true, error)) {
        const Installed installed =
            InstallStaged(root, staged.c_str(), generation.c_str(), options, copy, flush, error);
        if (installed != Installed::No)
            return installed == Installed::Whole && FlushInstalled(root, generation.c_str(), source, copy, error);
    }

    // A moved document is somebody's only copy: it goes home first. If it can't, staging stays.
    if (!copy && !_GiveDocumentBack(staged.c_str(), source)) removeStaging.Dismiss();
    return false;
}
