// Removing generations.
//
// A generation leaves the root by one rename into staging, so that the slow part, deleting its tree, can be interrupted
// without leaving half of it under its name, and nobody waits for it. Where the kernel refuses that rename, the tree is
// deleted as it stands, under the lock. A failure is then reported, and a kill leaves a part of the tree, which can be
// removed again.

#include "vaultry_client_managed.h"
#include "vaultry_client_managed_staging.h"

#include "Platform/FileStatus.h"
#include "Platform/Rename.h"
#include "Platform/UniqueNames.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_fs_wrappers.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"
#include "Shared/vaultry_storage_lift.h"

#include <vaultry/filesystem.h>
#include <vaultry/metadata.h>
#include <vaultry/number.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
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
    const TQFileStatus &before = item.before();
    if (S_ISREG(before.mode) && before.linkCount > 1 && (before.flags & kTQFlagImmutable) != 0) {
        errno = EPERM; // the flag is that of its other names, too
        return Failure(error).Errno("failed to remove UF_IMMUTABLE on path %s", generation);
    }
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
    if (!now.isMountRoot) return _RemoveTreeAt(Item::AtPath(generation), {.keepsShared = true}, error);
    errno = EBUSY;
    return Failure(error).Errno("failed to remove \"%s\", on which something is mounted", generation);
}

// The removals of one call. They share one lift of the root, and one staging directory for what leaves it.
class Removal {
public:
    // A generation that has a value under `key` stays.
    Removal(const char *root, const TQString *key, std::optional<StagingDirectory> &staging)
        : root_(root), key_(key), lift_(root), staging_(staging)
    {
    }

    bool Remove(TQValue *nameValue, TQError **error)
    {
        char name[kNameCapacity];
        PathBuffer path;
        if (!GetName(nameValue, name, error) || !_GetPathToGeneration(root_, name, /*mustExist=*/false, path, error))
            return false;
        TQFileStatus status;
        const int why = platform::GetStatus(Item::AtPath(path.c_str()), Links::NoFollow, &status) == 0 ? 0 : errno;
        if (why == ENOENT || (why == 0 && S_ISLNK(status.mode) && _PathNotExists(path.c_str()))) return true;

        if (key_ && MayBeProtected(path.c_str())) return true;

        Ref<TQError> failure;
        if (RemoveByStaging(path.c_str(), status, why, failure.out())) return true;
        if (failure && TQErrorGetStatus(failure.get()) == kTQStatusNoSpace)
            return RemoveWithoutRoom(path.c_str(), error);
        if (error) *error = failure.Detach();
        return false;
    }

private:
    bool MayBeProtected(const char *generation) const
    {
        const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(generation, nullptr));
        const TQValue *value = TQDictionaryGetValue(info.get(), key_);
        return !info || (value && (!TQIsNumber(value) || TQNumberGetTruth(value)));
    }

    // Where a generation goes. Null if there is no place.
    const char *PlaceFor(const char *generation, TQError **error)
    {
        if (staging_) return staging_->NextPlace();
        staging_.emplace();
        if (staging_->Make(root_, OwnerNote::Of(Work::Remove, strrchr(generation, '/') + 1), error))
            return staging_->NextPlace();
        staging_.reset();
        return nullptr;
    }

    bool MoveToStaging(const char *generation, const ItemId &id, const char *staged, TQError **error)
    {
        if (!lift_.Lift(error)) return false;
        if (rename(generation, staged) == 0 ||
            platform::HasMoved(Item::AtPath(generation), id, Item::AtPath(staged)) == platform::Held::Yes)
            return true;
        // A folder of an overlay's lower layer can't be renamed.
        if (errno == EXDEV) return RemoveAsItStands(generation, error);
        return Failure(error).Errno("rename from '%s' to '%s' failed", generation, staged);
    }

    // `why` is the errno of the look at it, or 0.
    bool RemoveByStaging(const char *generation, const TQFileStatus &status, int why, TQError **error)
    {
        const char *const staged = PlaceFor(generation, error);
        if (!staged) return false;
        if (why != 0) errno = why;
        if (why != 0) return Failure(error).Errno("failed to stat source path %s", generation);
        LiftedGeneration lifted(generation, status);
        return LiftForMove(lifted, generation, error) &&
               lifted.Gone(MoveToStaging(generation, ItemId::Of(lifted.before()), staged, error));
    }

    // For a disk without room for one more directory, whose owner needs a removal more than anything. A file is deleted
    // at once. A tree still leaves the root by one rename. Where even a name takes room, it is deleted as it stands;
    // there a kill leaves a part of it, which can be removed again.
    bool RemoveWithoutRoom(const char *generation, TQError **error)
    {
        LiftedGeneration lifted(generation);
        if (!LiftForMove(lifted, generation, error) || !lift_.Lift(error)) return false;
        PathBuffer staged;
        if (S_ISDIR(lifted.before().mode) && staged.Format("%s/%s/%s", root_, kStagingName, kUniqueTemplate)) {
            if (platform::RenameToUnique(generation, ItemId::Of(lifted.before()), staged.data()) == 0) {
                (void)_RemoveStagingPath(root_, staged.c_str(), nullptr);
                return lifted.Gone(true);
            }
            if (errno != ENOSPC && errno != EDQUOT && errno != EXDEV)
                return Failure(error).Errno("rename from '%s' to '%s' failed", generation, staged.c_str());
        }
        return lifted.Gone(RemoveAsItStands(generation, error));
    }

    const char *const root_;
    const TQString *const key_;
    LiftedRoot lift_;
    std::optional<StagingDirectory> &staging_;
};

bool RemoveFromRoot(const TQClientManagedStorage *store, const TQArray *names, const TQString *key,
                    std::optional<StagingDirectory> &staging, TQError **error)
{
    HeldLock lock;
    if (!lock.ForWriting(store, error)) return false;
    if (!names) return Failure(error).Refused(kTQStatusInvalidArgument, "no generation names were supplied");
    Removal removal(store->rootPath, key, staging);
    const size_t count = TQArrayGetCount(names);
    for (size_t i = 0; i < count; ++i)
        if (!removal.Remove(TQArrayGetValueAtIndex(names, i), error)) return false;
    return true;
}

bool RemoveAndFlush(const TQClientManagedStorage *store, const TQArray *names, const TQString *key, TQError **error)
{
    // What has left the root is deleted at the end of the scope, when nobody waits for the lock. If something can't be
    // deleted then, that is not reported: the generation is gone for everybody.
    std::optional<StagingDirectory> staging;
    return RemoveFromRoot(store, names, key, staging, error) && _FlushGenerationStore(store->rootPath, error);
}

} // namespace

bool TQClientManagedStorageRemoveGenerations(const TQClientManagedStorage *store, const TQArray *names, TQError **error)
{
    return RemoveAndFlush(store, names, /*key=*/nullptr, error);
}

bool TQClientManagedStorageRemoveGenerationsUnless(const TQClientManagedStorage *store, const TQArray *names,
                                                   const TQString *key, TQError **error)
{
    if (key) return RemoveAndFlush(store, names, key, error);
    return Failure(error).Refused(kTQStatusInvalidArgument, "no key was supplied");
}
