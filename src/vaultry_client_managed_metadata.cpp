// What is known of a generation, read and changed under the store's lock: options word, info dictionary and display
// name.

#include "vaultry_client_managed_locked.h"

#include "Platform/Flush.h"
#include "Platform/UniqueFd.h"
#include "Platform/Volume.h"
#include "Runtime/Ref.h"
#include "Shared/vaultry_flush.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"
#include "Shared/vaultry_storage.h"

#include <vaultry/filesystem.h>
#include <vaultry/metadata.h>
#include <vaultry/path.h>

#include <fcntl.h>

namespace {

bool SetEach(const char *root, const TQArray *names, const TQDictionary *values, bool flushEach, TQError **error)
{
    for (size_t i = 0; i < TQArrayGetCount(names); ++i) {
        TQValue *const value = TQArrayGetValueAtIndex(names, i);
        char name[kGenerationNameLimit + 1];
        PathBuffer path;
        if (TQGetTypeID(value) != TQStringGetTypeID())
            return Failure(error).Refused(kTQStatusInvalidArgument, "The supplied generation name was invalid");
        if (!TQStringGetGenName(static_cast<const TQString *>(value), name, error) ||
            !_GetPathToGeneration(root, name, /*mustExist=*/false, path, error))
            return false;
        if (_PathNotExists(path.c_str())) continue;
        if (!_WriteInfoValues(path.c_str(), values, error) || (flushEach && !_FlushItem(path.c_str(), error)))
            return false;
    }
    return true;
}

} // namespace

uint64_t TQClientManagedStorageGetGenerationOptions(const TQClientManagedStorage *store, const char *name,
                                                    TQError **error)
{
    LockedGeneration generation;
    return generation.ForReading(store, name, error) ? TQGetGenerationOptions(generation.path()) : 0;
}

bool TQClientManagedStorageSetGenerationOptions(const TQClientManagedStorage *store, const char *name, uint64_t options,
                                                TQError **error)
{
    LockedGeneration generation;
    return generation.ForWriting(store, name, error) && TQSetGenerationOptions(generation.path(), options, error);
}

TQDictionary *TQClientManagedStorageCopyGenerationInfoDictionary(const TQClientManagedStorage *store, const char *name,
                                                                 TQError **error)
{
    LockedGeneration generation;
    if (!generation.ForReading(store, name, error)) return nullptr;
    const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(generation.path(), error));
    if (!info) return nullptr;
    TQDictionary *copy = TQDictionaryCreateCopy(info.get());
    return copy ? copy : Failure(error).Status(kTQStatusFailed, "malloc failed");
}

TQValue *TQClientManagedStorageCopyGenerationInfoValueForKey(const TQClientManagedStorage *store, const char *name,
                                                             const TQString *key, TQError **error)
{
    // One lock: where a volume lets a waiting writer go first, a second shared lock would wait for that writer, and the
    // writer for the first.
    LockedGeneration generation;
    if (!generation.ForReading(store, name, error)) return nullptr;
    const auto info = Ref<TQDictionary>::Adopt(TQCopyMutableInfoDictionary(generation.path(), error));
    if (!info) return nullptr;
    TQValue *value = TQDictionaryGetValue(info.get(), key);
    if (!value) return Failure(error).Refused(kTQStatusNoSuchAttribute, "key not found");
    return TQRetain(value);
}

bool TQClientManagedStorageSetGenerationInfoValueForKey(const TQClientManagedStorage *store, const char *name,
                                                        TQString *key, TQValue *value, TQError **error)
{
    // Only the log tells why a write fails: clients rely on their error being left as it was.
    LockedGeneration generation;
    return generation.ForWriting(store, name, error) &&
           TQSetInfoValue(generation.path(), key, value, /*error=*/nullptr);
}

bool TQClientManagedStorageSetGenerationInfoValues(const TQClientManagedStorage *store, const char *name,
                                                   const TQDictionary *values, TQError **error)
{
    LockedGeneration generation;
    return generation.ForWriting(store, name, error) && TQSetInfoValues(generation.path(), values, error);
}

bool TQClientManagedStorageSetGenerationsInfoValues(const TQClientManagedStorage *store, const TQArray *names,
                                                    const TQDictionary *values, TQError **error)
{
    HeldLock lock;
    if (!lock.ForWriting(store, error)) return false;
    if (!names) return Failure(error).Refused(kTQStatusInvalidArgument, "no generation names were supplied");
    if (TQDictionaryGetCount(values) == 0)
        return Failure(error).Refused(kTQStatusInvalidArgument, "no values were supplied");
    // One flush for all where it reaches them. It is opened first, and so is told of every write that fails.
    const UniqueFd volume(open(store->rootPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool byVolume = TQArrayGetCount(names) > 1 && volume && platform::VolumeHonoursFlush(volume.get());
    const bool areSet = SetEach(store->rootPath, names, values, /*flushEach=*/!byVolume, error);
    if (!byVolume || platform::FlushVolumeOfFd(volume.get()) == 0) return areSet;
    return areSet && Failure(error).Errno("Failed to flush \"%s\" to disk", store->rootPath);
}

TQString *TQClientManagedStorageCopyGenerationOriginalDisplayName(const TQClientManagedStorage *store, const char *name,
                                                                  TQError **error)
{
    LockedGeneration generation;
    return generation.ForReading(store, name, error) ? TQCopyOriginalDisplayName(generation.path(), error) : nullptr;
}

bool TQClientManagedStorageSetGenerationOriginalDisplayName(const TQClientManagedStorage *store, const char *name,
                                                            const TQString *displayName, TQError **error)
{
    LockedGeneration generation;
    return generation.ForWriting(store, name, error) && TQSetOriginalDisplayName(generation.path(), displayName, error);
}
