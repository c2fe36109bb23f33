// Listing the names of a store's generations.

#include "vaultry_client_managed_names.h"

#include "vaultry_client_managed.h"

#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"

static bool _AppendName(TQArray *names, const char *entryName, TQError **error)
{
    const auto name = Ref<TQString>::Adopt(TQStringCreateWithFileSystemRepresentation(entryName));
    if (name && TQArrayAppendValue(names, name.get())) return true;
    return Failure(error).Status(kTQStatusFailed, "Failed to create string from file system name \"%s\"", entryName);
}

TQArray *TQClientManagedStorageCopyGenerationNames(const TQClientManagedStorage *store, TQError **error)
{
    HeldLock lock;
    if (!lock.ForReading(store, error)) return nullptr;

    const auto names = Ref<TQArray>::Adopt(TQArrayCreateMutable());
    const GenerationNames found(store->rootPath);
    if (!found) return Failure(error).Errno("unable to opendir(%s)", store->rootPath);
    while (const char *name = found.Next())
        if (!_AppendName(names.get(), name, error)) return nullptr;
    TQArray *copy = TQArrayCreateCopy(names.get());
    return copy ? copy : Failure(error).Status(kTQStatusFailed, "malloc failed");
}
