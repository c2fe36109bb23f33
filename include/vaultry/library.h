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
#include <vaultry/storage.h>
#include <vaultry/string.h>
#include <vaultry/url.h>

TQ_BEGIN_DECLS

/// A data value that holds one pointer, the store's handle.
typedef TQData TQLibrary;

/// The building block of TQLibraryCreateClientManaged: a library object without a store. Never release it, and never
/// call an operation with it.
TQ_EXPORT TQLibrary *TQLibraryAllocate(TQAllocator *allocator);

/// The type of data values, which library objects are.
TQ_EXPORT TQTypeID TQLibraryGetTypeID(void);

/// Opens the store in an existing directory, and makes it one at first use.
///
/// @param allocator  Where the object comes from; null is the default.
/// @param storeURL   File URL of the directory.
/// @return an object that the caller releases, or null:
///         kTQStatusBadPath          not a file URL, not an existing directory, or not one that can be made a store
///         kTQStatusInvalidArgument  a new store would lie in a store
///         kTQStatusNotSupported     a later version made the store
TQ_EXPORT TQLibrary *TQLibraryCreateClientManaged(TQAllocator *allocator, const TQURL *storeURL, TQError **error);

/// Removes a whole store, as TQClientManagedStorageDestroy does. Library objects of it stay valid as objects.
TQ_EXPORT bool TQLibraryDestroyClientManaged(const TQURL *storeURL, TQError **error);

/// Keeps the document at `document` as the generation `name`, and leaves it where it is.
///
/// @param options  Stored with the generation; read back as 1 if none of the bits 0x1e is set.
/// @return as TQClientManagedStorageAdd.
TQ_EXPORT bool TQLibraryAddGenerationWithOptionsByCopyingFile(TQLibrary *library, const TQString *name,
                                                              const TQURL *document, uint64_t options, TQError **error);

/// The same, moving the document into the store. On failure it is back where it was, unless the generation stays.
TQ_EXPORT bool TQLibraryAddGenerationWithOptionsByMovingFile(TQLibrary *library, const TQString *name,
                                                             const TQURL *document, uint64_t options, TQError **error);

/// Keeps the document as `request` asks; see TQAddRequest, and TQClientManagedStorageAddWithFlags for the result.
TQ_EXPORT bool TQLibraryAddGenerationWithFlags(TQLibrary *library, const TQString *name, const TQURL *document,
                                               const TQAddRequest *request, TQError **error);

/// Stores a generation's options word.
TQ_EXPORT bool TQLibrarySetGenerationOptions(TQLibrary *library, const TQString *name, uint64_t options);

/// A generation's options word; 0 also when there is no such generation.
TQ_EXPORT uint64_t TQLibraryGetGenerationOptions(TQLibrary *library, const TQString *name);

/// Where a generation lies, for reading; owned by the caller. Null on failure.
TQ_EXPORT TQURL *TQLibraryCopyURLForGeneration(TQLibrary *library, const TQString *name);

/// Copies a generation to `destination`, which must not exist (kTQStatusExists). The copy is not flushed to disk.
///
/// @return false with kTQStatusBadPath if `destination` is not a file URL; otherwise as
///         TQClientManagedStorageCopyGeneration.
TQ_EXPORT bool TQLibraryCopyGeneration(TQLibrary *library, const TQString *name, const TQURL *destination,
                                       TQError **error);

/// Removes generations by name, in order, up to the first failure; names without a generation are passed over.
TQ_EXPORT bool TQLibraryRemoveGenerations(TQLibrary *library, const TQArray *names);

/// The names of all generations, in no particular order, owned by the caller; null on failure.
TQ_EXPORT TQArray *TQLibraryCopyGenerationNames(TQLibrary *library);

/// Sets one value of a generation's info dictionary, or removes the key when `value` is null.
TQ_EXPORT bool TQLibrarySetGenerationInfoValueForKey(TQLibrary *library, const TQString *name, TQString *key,
                                                     TQValue *value);

/// Sets several values of a generation's info dictionary at once, all or none of them.
TQ_EXPORT bool TQLibrarySetGenerationInfoValues(TQLibrary *library, const TQString *name, const TQDictionary *values);

/// One value of a generation's info dictionary, owned by the caller; null when there is none, and on failure.
TQ_EXPORT TQValue *TQLibraryCopyGenerationInfoValueForKey(TQLibrary *library, const TQString *name,
                                                          const TQString *key);

/// A generation's info dictionary, owned by the caller; empty when nothing was set, null on failure.
TQ_EXPORT TQDictionary *TQLibraryCopyGenerationInfoDictionary(TQLibrary *library, const TQString *name);

/// Sets the name that the document is to be shown under, of at most 767 bytes; null or "" removes it.
TQ_EXPORT bool TQLibrarySetGenerationOriginalDisplayName(TQLibrary *library, const TQString *name,
                                                         const TQString *displayName);

/// The name that the document is to be shown under, owned by the caller; null when there is none, and on failure.
TQ_EXPORT TQString *TQLibraryCopyGenerationOriginalDisplayName(TQLibrary *library, const TQString *name);

/// One record about one generation; see TQClientManagedStorageCopyGenerationInfos. The second and third argument
/// are ignored.
TQ_EXPORT TQDictionary *TQLibraryCopyGenerationInfos(TQLibrary *library, const TQValue *ignored,
                                                     const TQValue *alsoIgnored, const TQString *name,
                                                     const TQDictionary *spec, TQError **error);

/// Records about all generations; see TQClientManagedStorageCopyAllGenerationsInfos. The second argument is ignored.
TQ_EXPORT TQDictionary *TQLibraryCopyAllGenerationsInfos(TQLibrary *library, const TQValue *ignored,
                                                         const TQDictionary *spec, TQError **error);

/// What a restore does besides: bits of TQRestoreRequest.flags.
enum {
    kTQRestoreKeepLinks = 0x1,      ///< of the backup: kTQAddKeepLinks
    kTQRestoreInfoIsOptional = 0x2, ///< of the backup: kTQAddInfoIsOptional
};

/// What TQLibraryRestoreGenerationWithFlags is asked for. It grows as TQAddRequest does.
typedef struct TQRestoreRequest {
    size_t size;
    uint64_t flags;                 ///< kTQRestore… bits
    const TQString *backupName;     ///< may be null; else the document is first kept under this name, with options 1
    const TQString *backupBase;     ///< the backup's TQAddRequest.base; best the newest generation of the document
    const TQDictionary *backupInfo; ///< the backup's TQAddRequest.info
    const TQString *backupSizeKey;  ///< the backup's TQAddRequest.sizeKey

    /// May be null; else the path of one item, both below the top of the generation and below that of the document, as
    /// in TQClientManagedStorageCopyGenerationItem. Both are folders then. Only that item is replaced, and the backup
    /// is still one of the whole document. The item keeps its name, and has the rights and flags with which it was
    /// kept. If it is missing in the document, it is copied there, with the folders on the way to it that are missing
    /// too. No link on the way is followed, and a link in its place is replaced.
    const char *item;
} TQRestoreRequest;

/// Puts a generation in the place of a document, which keeps its own permissions, access-control lists, flags and
/// hidden extension, and its owner and group where the caller may give them. Set-id bits are left out if it does not
/// keep its owner or its group. A group that is not the document's may do no more with it than all others may.
///
/// The generation waits beside the document, under a name with "-tmp.nosync.", until it is whole, has the document's
/// permissions and is on disk. Then the two are exchanged by one call, so that the document's path is never empty and
/// never holds half of anything. The old document is removed last, and only if it is the item that was looked at first;
/// a file must have the same size and modification time too. Changes that somebody saves inside the old folder
/// meanwhile are not noticed. The removal is not flushed: a power cut right after a success can bring the old document
/// back under such a name.
///
/// Where the volume can't exchange, two renames do the same, and the path is empty between them. If the process is
/// killed there, the document lies under such a name, and a repair (TQClientManagedStorageCopyFindings) puts it back.
///
/// If the extensions of `name` and of the document differ, the restored document gets the generation's, and nothing
/// may stand at that path (kTQStatusExists). If the document is a link, the link itself is replaced, not its target. If
/// there is no document, the generation is copied to its path and flushed to disk.
///
/// @param document    File URL of a file or a directory.
/// @param backupName  May be null; else the document is first kept under this name, with options 1.
/// @return true if the document now holds the generation and its previous state is gone from beside it. Otherwise the
///         document is as it was, and the backup is removed again, with three exceptions, in which the backup stays.
///         Somebody saved the document meanwhile: then it holds what was saved. A part of the old document is gone
///         already and the rest can't be removed: then the restored document stays in its place, and the rest lies
///         beside it under a name with "-tmp.nosync.". The document can't be put back: then it lies under such a name,
///         and a line of the log at level 3 says where. If somebody saved into the copy while it had the document's
///         name, and the document came back all the same, the copy stays beside it; the log says so too.
///         Reasons in TQErrorGetStatus:
///         kTQStatusInvalidArgument   the name is not a generation name; there is no such generation; the document
///                                    contains the store or lies in a store
///         kTQStatusBadPath           not a file URL, or the document's path has 1,006 bytes or more
///         kTQStatusExists            the backup's name, or the path with the new extension, is taken
///         kTQStatusPermissionDenied  also: the document is immutable or append-only
///         kTQStatusFailed            also: the document was changed meanwhile; something is mounted in it (EBUSY
///                                    underneath)
///         another                    what the failing system call reported
///
/// Takes the store's lock for each of its steps except the exchange, and none for the whole. The document itself is not
/// locked. The backup reports to the thread's current progress and can be cancelled through it.
TQ_EXPORT bool TQLibraryRestoreGeneration(TQLibrary *library, const TQString *name, const TQURL *document,
                                          const TQString *backupName, TQError **error);

/// The same, with all that a request can ask for. `request` is borrowed for the call.
///
/// @return as TQLibraryRestoreGeneration. Nothing is done if there is no request, or no item of that path in the
///         generation (kTQStatusInvalidArgument), or the request asks for something that this version does not know
///         (kTQStatusNotSupported).
TQ_EXPORT bool TQLibraryRestoreGenerationWithFlags(TQLibrary *library, const TQString *name, const TQURL *document,
                                                   const TQRestoreRequest *request, TQError **error);

/// Announces that the item at `replacement` is about to replace `document`. Tests that both are file URLs, and keeps
/// nothing. Always false.
TQ_EXPORT bool TQLibraryDocumentWillSafeSave(const TQURL *document, const TQURL *replacement);

/// Announces that a document has been replaced. Does nothing.
TQ_EXPORT void TQLibraryDocumentDidSafeSave(const TQURL *document, const TQURL *replacement);

/// Whether paths have generations: always false.
///
/// @param generations  Must be valid; gets null.
TQ_EXPORT bool TQLibraryHasGenerationsForPaths(TQLibrary *library, const TQValue *paths, TQValue **generations);

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
