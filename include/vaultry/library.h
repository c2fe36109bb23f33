/// @file
/// The library object: what a client holds to work with one store.
///
/// A library object is a counted value, released with TQRelease; it names a store on disk and never removes it.
/// Any thread may use it at any time. Generation names are strings whose file-system form needs at most 254 bytes
/// (kTQStatusInvalidArgument), documents and destinations are file URLs. Functions without an error
/// out-parameter only log why they failed; storage.h has the same operations with every error.

#ifndef VAULTRY_LIBRARY_H
#define VAULTRY_LIBRARY_H

#include <vaultry/collections.h>
#include <vaultry/data.h>
#include <vaultry/error.h>
#include <vaultry/file_status.h>
#include <vaultry/string.h>
#include <vaultry/url.h>

TQ_BEGIN_DECLS

/// A data value that holds one pointer, the store's handle.
typedef TQData TQLibrary;

/// The building block of TQLibraryCreateClientManaged: a library object without a store. It is never to be released,
/// and no operation may be called with it.
TQ_EXPORT TQLibrary *TQLibraryAllocate(TQAllocator *allocator);

/// The type of data values, which library objects are.
TQ_EXPORT TQTypeID TQLibraryGetTypeID(void);

/// Opens the store in an existing directory, and makes it one at first use.
///
/// @param allocator  Where the object comes from; null is the default.
/// @param storeURL   File URL of the directory.
/// @return an object that the caller releases, or null:
///         kTQStatusBadPath  not a file URL, not an existing directory, or not one that can be made a store
TQ_EXPORT TQLibrary *TQLibraryCreateClientManaged(TQAllocator *allocator, const TQURL *storeURL, TQError **error);

/// Removes a whole store, its directory and all generations included. Library objects over it stay valid as objects.
TQ_EXPORT bool TQLibraryDestroyClientManaged(const TQURL *storeURL, TQError **error);

/// Keeps the document at `document` as the generation `name`, and leaves it where it is.
///
/// @param options  Stored with the generation; read back as 1 if none of the bits 0x1e is set.
/// @return as TQClientManagedStorageAdd.
TQ_EXPORT bool TQLibraryAddGenerationWithOptionsByCopyingFile(TQLibrary *library, const TQString *name,
                                                              const TQURL *document, uint64_t options, TQError **error);

/// The same, moving the document into the store. On failure it is back where it was.
TQ_EXPORT bool TQLibraryAddGenerationWithOptionsByMovingFile(TQLibrary *library, const TQString *name,
                                                             const TQURL *document, uint64_t options, TQError **error);

/// Stores a generation's options word.
TQ_EXPORT bool TQLibrarySetGenerationOptions(TQLibrary *library, const TQString *name, uint64_t options);

/// A generation's options word; 0 also when there is no such generation.
TQ_EXPORT uint64_t TQLibraryGetGenerationOptions(TQLibrary *library, const TQString *name);

/// Where a generation lies, for reading; owned by the caller. Null on failure.
TQ_EXPORT TQURL *TQLibraryCopyURLForGeneration(TQLibrary *library, const TQString *name);

/// Copies a generation to `destination`, where nothing may be (kTQStatusExists).
///
/// @return false with kTQStatusBadPath if `destination` is not a file URL; otherwise as
///         TQClientManagedStorageCopyGeneration.
TQ_EXPORT bool TQLibraryCopyGeneration(TQLibrary *library, const TQString *name, const TQURL *destination,
                                       TQError **error);

/// Removes generations by name, in order, up to the first failure; names without a generation are passed over.
TQ_EXPORT bool TQLibraryRemoveGenerations(TQLibrary *library, const TQArray *names);

/// The names of all generations, in no particular order, owned by the caller; null on failure.
TQ_EXPORT TQArray *TQLibraryCopyGenerationNames(TQLibrary *library);

/// The status of a stored item with the permissions and flags that it had before it was protected. Follows a
/// final link.
///
/// @return 0; or -1 with errno, EIO if the record of its permissions can't be read.
TQ_EXPORT int TQLibraryInternalStatGeneration(const char *path, TQFileStatus *status);

/// Kept for clients that call it: reads nothing, changes nothing, and is always false.
TQ_EXPORT bool TQLibrarySetStorageOptions(TQLibrary *library, uint64_t options, TQError **error);

/// Kept for clients that call it: always 0.
TQ_EXPORT uint64_t TQLibraryGetStorageOptions(TQLibrary *library, TQError **error);

/// Kept for clients that call it: reads nothing, changes nothing, and is always false.
TQ_EXPORT bool TQLibraryPrivateTransferGenerationToClientName(TQLibrary *library, const TQString *name,
                                                              const TQString *clientName, TQError **error);

TQ_END_DECLS

#endif
