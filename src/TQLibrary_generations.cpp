// The operations that a client calls: each turns names and URLs into the forms that the store takes, and calls the one
// store operation that does the work. Which of them pass the caller's error on is part of their contract.

#include "TQLibrary.h"

#include "Runtime/Ref.h"
#include "Shared/vaultry_internal_failure.h"
#include "Shared/vaultry_internal_names.h"

#include <vaultry/path.h>

namespace {

// A generation name in the form that the store takes.
class GenerationName {
public:
    GenerationName(const TQString *name, TQError **error) : valid_(TQStringGetGenName(name, text_, error)) {}
    explicit operator bool() const { return valid_; }
    const char *c_str() const { return text_; }

private:
    char text_[kGenerationNameLimit + 1];
    bool valid_;
};

} // namespace

bool _AddGenerationInternal(TQLibrary *library, const TQString *name, const TQURL *document,
                            const TQAddRequest *request, TQError **error)
{
    const TQClientManagedStorage *store = _StorageOf(library);
    const GenerationName generation(name, error);
    return generation && TQClientManagedStorageAddWithFlags(store, generation.c_str(),
                                                            tq_fileSystemRepresentation(document), request, error);
}

bool TQLibraryAddGenerationWithOptionsByCopyingFile(TQLibrary *library, const TQString *name, const TQURL *document,
                                                    uint64_t options, TQError **error)
{
    const DeferredScope scope;
    const TQAddRequest request{
        .size = sizeof request, .flags = 0, .options = options, .base = nullptr, .info = nullptr, .sizeKey = nullptr};
    return _AddGenerationInternal(library, name, document, &request, error);
}

bool TQLibraryAddGenerationWithOptionsByMovingFile(TQLibrary *library, const TQString *name, const TQURL *document,
                                                   uint64_t options, TQError **error)
{
    const DeferredScope scope;
    const TQAddRequest request{.size = sizeof request,
                               .flags = kTQAddByMoving,
                               .options = options,
                               .base = nullptr,
                               .info = nullptr,
                               .sizeKey = nullptr};
    return _AddGenerationInternal(library, name, document, &request, error);
}

bool TQLibraryAddGenerationWithFlags(TQLibrary *library, const TQString *name, const TQURL *document,
                                     const TQAddRequest *request, TQError **error)
{
    const DeferredScope scope;
    return _AddGenerationInternal(library, name, document, request, error);
}

bool TQLibrarySetGenerationOptions(TQLibrary *library, const TQString *name, uint64_t options)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation &&
           TQClientManagedStorageSetGenerationOptions(_StorageOf(library), generation.c_str(), options, nullptr);
}

uint64_t TQLibraryGetGenerationOptions(TQLibrary *library, const TQString *name)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation ? TQClientManagedStorageGetGenerationOptions(_StorageOf(library), generation.c_str(), nullptr)
                      : 0;
}

TQURL *TQLibraryCopyURLForGeneration(TQLibrary *library, const TQString *name)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation ? TQClientManagedStorageCopyURLForGeneration(_StorageOf(library), generation.c_str(), nullptr)
                      : nullptr;
}

bool TQLibraryCopyGeneration(TQLibrary *library, const TQString *name, const TQURL *destination, TQError **error)
{
    if (!TQURLIsFileURL(destination)) return Failure(error).Status(kTQStatusBadPath, "not a file URL");

    const DeferredScope scope;
    const GenerationName generation(name, error);
    return generation && TQClientManagedStorageCopyGeneration(_StorageOf(library), generation.c_str(),
                                                              tq_fileSystemRepresentation(destination), error);
}

bool TQLibrarySetGenerationInfoValueForKey(TQLibrary *library, const TQString *name, TQString *key, TQValue *value)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation && TQClientManagedStorageSetGenerationInfoValueForKey(_StorageOf(library), generation.c_str(),
                                                                            key, value, nullptr);
}

bool TQLibrarySetGenerationInfoValues(TQLibrary *library, const TQString *name, const TQDictionary *values)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation &&
           TQClientManagedStorageSetGenerationInfoValues(_StorageOf(library), generation.c_str(), values, nullptr);
}

TQValue *TQLibraryCopyGenerationInfoValueForKey(TQLibrary *library, const TQString *name, const TQString *key)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation ? TQClientManagedStorageCopyGenerationInfoValueForKey(_StorageOf(library), generation.c_str(),
                                                                            key, nullptr)
                      : nullptr;
}

TQDictionary *TQLibraryCopyGenerationInfoDictionary(TQLibrary *library, const TQString *name)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation
               ? TQClientManagedStorageCopyGenerationInfoDictionary(_StorageOf(library), generation.c_str(), nullptr)
               : nullptr;
}

bool TQLibrarySetGenerationOriginalDisplayName(TQLibrary *library, const TQString *name, const TQString *displayName)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation && TQClientManagedStorageSetGenerationOriginalDisplayName(_StorageOf(library), generation.c_str(),
                                                                                displayName, nullptr);
}

TQString *TQLibraryCopyGenerationOriginalDisplayName(TQLibrary *library, const TQString *name)
{
    const DeferredScope scope;
    const GenerationName generation(name, nullptr);
    return generation ? TQClientManagedStorageCopyGenerationOriginalDisplayName(_StorageOf(library), generation.c_str(),
                                                                                nullptr)
                      : nullptr;
}

TQDictionary *TQLibraryCopyGenerationInfos(TQLibrary *library, const TQValue *, const TQValue *, const TQString *name,
                                           const TQDictionary *spec, TQError **error)
{
    const DeferredScope scope;
    return TQClientManagedStorageCopyGenerationInfos(_StorageOf(library), name, spec, error);
}

TQDictionary *TQLibraryCopyAllGenerationsInfos(TQLibrary *library, const TQValue *, const TQDictionary *spec,
                                               TQError **error)
{
    const DeferredScope scope;
    return TQClientManagedStorageCopyAllGenerationsInfos(_StorageOf(library), spec, error);
}

bool TQLibraryRemoveGenerations(TQLibrary *library, const TQArray *names)
{
    const DeferredScope scope;
    return TQClientManagedStorageRemoveGenerations(_StorageOf(library), names, nullptr);
}

TQArray *TQLibraryCopyGenerationNames(TQLibrary *library)
{
    const DeferredScope scope;
    return TQClientManagedStorageCopyGenerationNames(_StorageOf(library), nullptr);
}
