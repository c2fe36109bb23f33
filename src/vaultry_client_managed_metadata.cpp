// What is known of a generation, read and changed under the store's lock: options word, info dictionary and display
// name.

#include "vaultry_client_managed_locked.h"

#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"

#include <vaultry/metadata.h>

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
