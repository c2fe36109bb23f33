// Removing generations.
//
// A generation leaves the root by one rename into staging, so that the slow part, deleting its tree, can be interrupted
// without leaving half of it under its name. Where the kernel refuses that rename, the tree is deleted as it stands,
// under the lock. A failure is then reported, and a kill leaves a part of the tree, which can be removed again.

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/ScopeExit.h"
#include "Platform/UniqueNames.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"
#include "Shared/vaultry_storage_lift.h"

#include <vaultry/filesystem.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr size_t kNameCapacity = kGenerationNameLimit + 1;

bool GetName(TQValue *name, char *buffer, TQError **error)
{
    if (TQGetTypeID(name) != TQStringGetTypeID())
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
    const auto *string = static_cast<TQString *>(name);
    const bool hasZero = memchr(TQStringGetUTF8(string), '\0', TQStringGetUTF8Length(string)) != nullptr;
    if (!hasZero && !TQStringGetFileSystemRepresentation(string, buffer, kNameCapacity))
        return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name is too long");
    // The path of the empty name is the root itself.
    return (!hasZero && buffer[0] != '\0') ||
           Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
}

// Unlike an item that is being added, one that is removed keeps its append-only flag, and then can't be moved.
bool LiftForMove(LiftedGeneration &item, const char *generation, TQError **error)
{
    if (!item.Look()) return Failure(error).Errno("failed to stat source path %s", generation);
    if (!item.TakeImmutableFlag()) return Failure(error).Errno("failed to remove UF_IMMUTABLE on path %s", generation);
    if (S_ISDIR(item.before().mode) && !item.AddOwnerWrite())
        return Failure(error).Errno("failed to make directory writable prior to moving; path: %s", generation);
    return true;
}

// What lies under a mount can't be reached, and what is mounted there is not a generation.
bool RemoveAsItStands(const char *generation, TQError **error)
{
    TQFileStatus now;
    if (platform::GetStatus(Item::AtPath(generation), Links::NoFollow, &now) != 0)
        return Failure(error).Errno("failed to stat source path %s", generation);
    if (!now.isMountRoot) return _RemoveTree(generation, 0, error);
    errno = EBUSY;
    return Failure(error).Errno("failed to remove \"%s\", on which something is mounted", generation);
}

bool MoveToStaging(const char *root, const char *generation, const ItemId &id, const char *staged, TQError **error)
{
    if (!_UnprotectGenerationStore(root, error)) return false;
    const ScopeExit protect([root] { _ProtectGenerationStore(root); });
    if (rename(generation, staged) == 0 ||
        platform::HasMoved(Item::AtPath(generation), id, Item::AtPath(staged)) == platform::Held::Yes)
        return true;
    // A folder of an overlay's lower layer can't be renamed.
    if (errno == EXDEV) return RemoveAsItStands(generation, error);
    return Failure(error).Errno("rename from '%s' to '%s' failed", generation, staged);
}

bool RemoveByStaging(const char *root, const char *generation, TQError **error)
{
    // If something can't be deleted at the end, that is not reported: by then the generation is gone for everybody.
    StagingDirectory staging;
    if (!staging.Make(root, OwnerNote::Of(Work::Remove, generation), error)) return false;
    LiftedGeneration lifted(generation);
    return LiftForMove(lifted, generation, error) &&
           lifted.Gone(MoveToStaging(root, generation, ItemId::Of(lifted.before()), staging.staged(), error));
}

// For a disk without room for one more directory, whose owner needs a removal more than anything. A file is deleted at
// once. A tree still leaves the root by one rename. Where even a name takes room, it is deleted as it stands; there a
// kill leaves a part of it, which can be removed again.
bool RemoveWithoutRoom(const char *root, const char *generation, TQError **error)
{
    LiftedGeneration lifted(generation);
    if (!LiftForMove(lifted, generation, error) || !_UnprotectGenerationStore(root, error)) return false;
    const ScopeExit protect([root] { _ProtectGenerationStore(root); });
    PathBuffer staged;
    if (S_ISDIR(lifted.before().mode) && staged.Format("%s/%s/%s", root, kStagingName, kUniqueTemplate)) {
        if (platform::RenameToUnique(generation, ItemId::Of(lifted.before()), staged.data()) == 0) {
            (void)_RemoveStagingPath(root, staged.c_str(), nullptr);
            return lifted.Gone(true);
        }
        if (errno != ENOSPC && errno != EDQUOT && errno != EXDEV)
            return Failure(error).Errno("rename from '%s' to '%s' failed", generation, staged.c_str());
    }
    return lifted.Gone(RemoveAsItStands(generation, error));
}

bool RemoveOne(const char *root, TQValue *nameValue, TQError **error)
{
    char name[kNameCapacity];
    PathBuffer generation;
    if (!GetName(nameValue, name, error) || !_GetPathToGeneration(root, name, /*mustExist=*/false, generation, error))
        return false;
    if (_PathNotExists(generation.c_str())) return true;

    Ref<TQError> why;
    if (RemoveByStaging(root, generation.c_str(), why.out())) return true;
    if (why && TQErrorGetStatus(why.get()) == kTQStatusNoSpace)
        return RemoveWithoutRoom(root, generation.c_str(), error);
    if (error) *error = why.Detach();
    return false;
}

} // namespace

bool TQClientManagedStorageRemoveGenerations(const TQClientManagedStorage *store, const TQArray *names, TQError **error)
{
    HeldLock lock;
    if (!lock.ForWriting(store, error)) return false;
    if (!names) return Failure(error).Refused(kTQStatusInvalidArgument, "no generation names were supplied");
    const size_t count = TQArrayGetCount(names);
    for (size_t i = 0; i < count; ++i)
        if (!RemoveOne(store->rootPath, TQArrayGetValueAtIndex(names, i), error)) return false;
    return _FlushGenerationStore(store->rootPath, error);
}
