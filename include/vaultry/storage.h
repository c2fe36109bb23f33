/// @file
/// One store: a directory that holds one entry per generation.
///
/// This is the library's own floor beneath library.h, for clients that work with paths and want every
/// error object. Names are generation names in file-system form (one path component of UTF-8, not beginning with ".",
/// at most 254 bytes), paths absolute and at most 1,023 bytes. A handle only names the store; it may be used by any
/// number of threads at once.
///
/// Each operation takes the store's lock, in this process and all others: readers share it, a writer waits until it is
/// alone. Most hold it for their own span. Adding and removing hold it alone only for the calls that change what the
/// store lists, so nobody waits for their copies and deletions. Nothing times out, and a signal does not end the wait,
/// unless the thread's current progress is cancelled when it comes: then nothing is done (kTQStatusFailed, ECANCELED
/// underneath). A killed process gives the lock back, but a child that it forked during the operation keeps it until
/// the child ends or runs another program.
///
/// Every function that takes a name reports, beside its own statuses:
///     kTQStatusInvalidArgument  the name is not a generation name, or there is no such generation
///     kTQStatusBadPath          the generation's path would need 1,024 bytes or more
/// Every function also reports the status of a system call that fails (a store of another user:
/// kTQStatusPermissionDenied). Null pointers for a store, name or path are refused with kTQStatusInvalidArgument or
/// kTQStatusBadPath.

#ifndef VAULTRY_STORAGE_H
#define VAULTRY_STORAGE_H

#include <vaultry/collections.h>
#include <vaultry/error.h>
#include <vaultry/string.h>
#include <vaultry/url.h>

TQ_BEGIN_DECLS

typedef struct TQClientManagedStorage TQClientManagedStorage;

/// Whether a directory is a store: whether it has a lock file and a staging area. Makes nothing and takes no lock.
/// Where a store lies on a volume of its own, a client that asks first makes no other one while that is not mounted.
///
/// @return false without an error if there is nothing, something else, or only a part of a store; false with an error
///         if that can't be told. A store that a later version made is one, too.
TQ_EXPORT bool TQClientManagedStorageIsStore(const char *rootPath, TQError **error);

/// Makes an existing directory a store, or opens the store that it is. The directory loses its write
/// bits; a store that stands whole is opened without any change.
///
/// @return a handle for TQClientManagedStorageFree, or null:
///         kTQStatusBadPath          not an existing directory, too long, or the store's own files can't be made
///         kTQStatusInvalidArgument  it is not a store yet, and would lie in one
///         kTQStatusNotSupported     a later version made the store: its lock file is not empty
TQ_EXPORT TQClientManagedStorage *TQClientManagedStorageCreate(const char *rootPath, TQError **error);

/// Frees a handle; null does nothing. The store on disk is not touched.
TQ_EXPORT void TQClientManagedStorageFree(TQClientManagedStorage *store);

/// Removes a whole store, including its directory, whatever its protection. It would remove any other directory or file
/// too, so a client looks first. Takes no lock, and flushes nothing to disk. A document that a killed move left in the
/// staging area goes with the store: TQClientManagedStorageCopyFindings tells whether there is one.
///
/// True also if there is nothing at the path, or somebody else destroys it at the same time. If it is cut short, it
/// leaves parts of generations and, as long as there is anything else, the lock file; the next call removes them. A
/// store that a later version made is refused (kTQStatusNotSupported).
TQ_EXPORT bool TQClientManagedStorageDestroy(const char *rootPath, TQError **error);

/// What an add does besides copying: bits of TQAddRequest.flags.
enum {
    kTQAddByMoving = 0x1,       ///< moves the document into the store instead
    kTQAddKeepLinks = 0x2,      ///< keeps symbolic links below the top as links; without it, they are refused
    kTQAddInfoIsOptional = 0x4, ///< adds the document without the info values if they can't be stored
};

/// What TQClientManagedStorageAddWithFlags is asked for. A later version may have more members. A client that sets all
/// bytes to zero first, and `size` to what sizeof tells, then works with both.
typedef struct TQAddRequest {
    size_t size;
    uint64_t flags;   ///< kTQAdd… bits
    uint64_t options; ///< stored with the generation; read back as 1 if none of the bits 0x1e is set

    /// May be null; else the name of a generation with which unchanged files are shared. A file below the
    /// document's top that is the same as that generation's file at the same path becomes a hard link to it, which
    /// takes no room of its own. Every byte of both is compared, and so are mode, owner, group, flags, time of
    /// modification, attributes and access list; a file with holes is shared only with one that has some. A file
    /// that can be cloned from the document is cloned, and nothing is compared. If there is no such generation,
    /// everything is copied. Not for a document that is moved.
    const TQString *base;

    /// May be null; else strings mapped to values that the info dictionary gets before the generation appears. If they
    /// are left out, so is what the document brought under these keys, or all of its dictionary.
    const TQDictionary *info;

    /// May be null; else the key of one more such value: how many bytes the generation's files have, as
    /// TQComputeTreeSize tells it.
    const TQString *sizeKey;
} TQAddRequest;

/// Adds the item at `source` to the store as the generation `name`.
///
/// The generation appears whole or not at all: it is built in the staging area and moved into place by one rename,
/// so no reader ever lists half of it or finds it writable. An existing generation is never replaced.
///
/// If the document has attributes with the store's own names, they are kept if they are well-formed: an info dictionary
/// and a display name for the generation, and the record of permissions as TQAddPathAsGeneration says. A damaged info
/// dictionary or display name is left out.
///
/// @param source   Absolute path of a file or a directory tree.
/// @param options  Stored with the generation; read back as 1 if none of the bits 0x1e is set.
/// @param copy     true leaves `source` alone; false moves it, and on failure it is back where it was, unless the
///                 generation stays. If it can't be given back, it waits in the staging area for the
///                 repair of TQClientManagedStorageCopyFindings, and a line of the log at level 3 says where.
/// @return true once the generation is on disk, and would survive a power cut. If it has its name, and not all of it
///         could be flushed in the end, the result is false, and the generation stays. Otherwise nothing was added:
///         kTQStatusExists           the store has a generation of that name
///         kTQStatusInvalidArgument  also: `source` contains the store; or, when moving, lies in a store
///         kTQStatusNotSupported     the tree holds a FIFO, a socket or a device
///         kTQStatusBadPath          the tree holds a symbolic link, or paths beyond the kernel's limit; or, when
///                                   moving, is not all on the store's volume
///         kTQStatusFailed           also, when moving: something is mounted in the tree (EBUSY underneath)
///
/// Shared lock while it begins, and exclusive lock for the moment in which the generation appears; none while it copies
/// or flushes. So it waits for readers twice, and for other writers only as long as they change what is listed. If
/// somebody else takes the name meanwhile: kTQStatusExists. When copying, it reports to the thread's current progress
/// and can be cancelled through it.
TQ_EXPORT bool TQClientManagedStorageAdd(const TQClientManagedStorage *store, const char *name, const char *source,
                                         uint64_t options, TQError **error, bool copy);

/// The same, with all that a request can ask for. `request` is borrowed for the call.
///
/// @return as TQClientManagedStorageAdd. With kTQAddKeepLinks a symbolic link is refused only at the top; a copy-out
///         brings the others back with their times and, where that is allowed, their owner. Info values that can't be
///         stored are a failure, too. And nothing is done:
///         kTQStatusInvalidArgument  there is no request, or it is too small; the name of its base is not a generation
///                                   name, or it has a base and the flag kTQAddByMoving; it has values for a
///                                   document that is moved and brings an info dictionary of more than 4 KiB
///         kTQStatusNotSupported     it asks for something that this version does not know
TQ_EXPORT bool TQClientManagedStorageAddWithFlags(const TQClientManagedStorage *store, const char *name,
                                                  const char *source, const TQAddRequest *request, TQError **error);

/// The file URL of a generation inside the store, owned by the caller; to be read, never changed. Shared lock.
TQ_EXPORT TQURL *TQClientManagedStorageCopyURLForGeneration(const TQClientManagedStorage *store, const char *name,
                                                            TQError **error);

/// The options word; also 0 on failure, which only the error shows. Shared lock.
TQ_EXPORT uint64_t TQClientManagedStorageGetGenerationOptions(const TQClientManagedStorage *store, const char *name,
                                                              TQError **error);

/// Stores the options word. A word without any of the bits 0x1e reads back as 1. On disk on return. Exclusive lock.
TQ_EXPORT bool TQClientManagedStorageSetGenerationOptions(const TQClientManagedStorage *store, const char *name,
                                                          uint64_t options, TQError **error);

/// The info dictionary, immutable, owned by the caller; empty when nothing was set. Shared lock.
TQ_EXPORT TQDictionary *TQClientManagedStorageCopyGenerationInfoDictionary(const TQClientManagedStorage *store,
                                                                           const char *name, TQError **error);

/// One value of the info dictionary, owned by the caller; null with kTQStatusNoSuchAttribute (which reads back as
/// kTQStatusInvalidArgument) when there is none. Shared lock.
TQ_EXPORT TQValue *TQClientManagedStorageCopyGenerationInfoValueForKey(const TQClientManagedStorage *store,
                                                                       const char *name, const TQString *key,
                                                                       TQError **error);

/// Sets one value of the info dictionary, or removes the key when `value` is null. On disk on return. Exclusive lock.
///
/// @param error  Set when the name is wrong or the lock can't be had; a write that fails returns false and
///               leaves it as it was, with the reason in the log.
TQ_EXPORT bool TQClientManagedStorageSetGenerationInfoValueForKey(const TQClientManagedStorage *store, const char *name,
                                                                  TQString *key, TQValue *value, TQError **error);

/// Adds or replaces several values at once: a reader finds all of them or none, also after a kill. On disk on return,
/// with one flush. Exclusive lock.
///
/// @param values  Strings mapped to values; kTQStatusInvalidArgument if there are none.
TQ_EXPORT bool TQClientManagedStorageSetGenerationInfoValues(const TQClientManagedStorage *store, const char *name,
                                                             const TQDictionary *values, TQError **error);

/// The same for several generations, under one lock and, where the volume allows that, with one flush. A name that has
/// no generation is passed over.
///
/// @param names  Strings.
/// @return false at the first failure; those before it have the values, those after it are not looked at.
TQ_EXPORT bool TQClientManagedStorageSetGenerationsInfoValues(const TQClientManagedStorage *store, const TQArray *names,
                                                              const TQDictionary *values, TQError **error);

/// The original display name, owned by the caller; null with kTQStatusNoSuchAttribute (which reads back as
/// kTQStatusInvalidArgument) when there is none. Shared lock.
TQ_EXPORT TQString *TQClientManagedStorageCopyGenerationOriginalDisplayName(const TQClientManagedStorage *store,
                                                                            const char *name, TQError **error);

/// Sets the original display name, at most 767 bytes without a zero (else kTQStatusInvalidArgument, and the old one
/// stays); null or "" removes it. On disk on return. Exclusive lock.
TQ_EXPORT bool TQClientManagedStorageSetGenerationOriginalDisplayName(const TQClientManagedStorage *store,
                                                                      const char *name, const TQString *displayName,
                                                                      TQError **error);

/// Copies a generation into the store's staging area, for a client that puts it somewhere by rename. Not flushed to
/// disk: a client that gives something up for the copy flushes the copy first.
///
/// @param stagedPath  Buffer of 1,024 bytes; gets the path of the copy. The copy belongs to the caller until
///                    TQClientManagedStorageCopyOutDone is called with this path. A repair removes it when nothing in
///                    it has changed for an hour.
/// @param mode        Gets the mode that the client gives the copy's top item in the end,
/// @param flags       and its flags. Until then the item stays changeable, a directory for everybody who can reach it.
///
/// Shared lock.
TQ_EXPORT bool TQClientManagedStorageCopyOut(const TQClientManagedStorage *store, const char *name, char *stagedPath,
                                             uint16_t *mode, uint32_t *flags, TQError **error);

/// Removes the staging directory of TQClientManagedStorageCopyOut, with whatever is left in it. No lock.
///
/// @return false with kTQStatusFailed, and nothing removed, if the path is not in the staging area.
TQ_EXPORT bool TQClientManagedStorageCopyOutDone(const TQClientManagedStorage *store, const char *stagedPath,
                                                 TQError **error);

/// Copies a generation to `destination`, with the rights and flags that the document had when it was added. Nothing
/// that exists is replaced (kTQStatusExists), nothing is copied into a store (kTQStatusInvalidArgument), and on failure
/// nothing is left there. Not flushed to disk. Shared lock.
TQ_EXPORT bool TQClientManagedStorageCopyGeneration(const TQClientManagedStorage *store, const char *name,
                                                    const char *destination, TQError **error);

/// The same for one item of a generation that is a folder. No link on the way to it is followed.
///
/// @param item  The item's path below the generation's top: relative, without an empty component, "." and "..".
/// @return as TQClientManagedStorageCopyGeneration; kTQStatusInvalidArgument also if there is no such item.
TQ_EXPORT bool TQClientManagedStorageCopyGenerationItem(const TQClientManagedStorage *store, const char *name,
                                                        const char *item, const char *destination, TQError **error);

/// Makes a store at `rootPath` that is a copy of this one: every generation as it stands, protected, with its contents,
/// record of permissions, options, info, display name, rights, owners, times, flags, attributes and access lists, and
/// the protection of the root. A file that several generations share is copied once, and shared by them in the clone,
/// too; a file is cloned where its volume can do that. What operations have in the staging area is not copied.
///
/// Then everything is read back and compared with the store, every byte and all that is known of every item, from the
/// volume itself as far as that lets go of what it has in memory. On disk on return. The place is no store before all
/// that is done: its lock file is made last. A killed process leaves ".vaultry_clone." and seven characters
/// beside `rootPath`, or, if that was an empty directory, generations in it.
///
/// @param rootPath  Where nothing is, or an empty directory, in no store; its folder exists. Nobody but the caller, the
///                  members of a group and root may rename what is in the folder, for root not even a group; an empty
///                  directory is the caller's own, and so is the store then.
/// @return a dictionary that the caller owns. "generations", "items" and "bytes" are the numbers of generations in the
///         clone, of items that were compared, and of bytes that were found the same, those of a shared file counted
///         once; "links" is that of names that became links to a file that was copied before. "failures" is an array,
///         empty when the clone is whole, of dictionaries about generations that are not in it as they are in the
///         store: "name" (data), "error" (the first reason, an error) and "kept" (a boolean: true if the clone has the
///         generation, and it differs only in its rights, owners, times or flags). Null with an error, and nothing is
///         left there:
///         kTQStatusExists           there is something at `rootPath`
///         kTQStatusInvalidArgument  it would lie in a store
///         kTQStatusPermissionDenied the folder or the directory is not as above; also a missing right
///         kTQStatusNoSpace          the volume is full
///         kTQStatusFailed           also if the thread's progress was cancelled (ECANCELED underneath)
///
/// Shared lock as long as it lasts, so the clone shows the store at one moment, and writers wait for it. Reports to the
/// thread's current progress; the total is twice the size of all generations. Takes memory for each shared file, about
/// 200 bytes and its path, from its first name to its last.
TQ_EXPORT TQDictionary *TQClientManagedStorageCopyStore(const TQClientManagedStorage *store, const char *rootPath,
                                                        TQError **error);

/// Removes generations by name, in order; a name that has no generation is passed over. On disk on return. Works on a
/// full disk too, and where a folder can't be renamed (one of an overlay's lower layer). Only there a generation may be
/// deleted where it stands, and a failure or a kill may leave part of it under its name, to be removed again.
///
/// @param names  Strings; the empty one is refused.
/// @return false at the first failure; those before it stay removed, those after it are not looked at.
///
/// Exclusive lock until all of them have left the store's list; none while they are flushed and deleted.
TQ_EXPORT bool TQClientManagedStorageRemoveGenerations(const TQClientManagedStorage *store, const TQArray *names,
                                                       TQError **error);

/// The same, but passes over a generation that has an info value under `key` which is neither false nor 0, and one
/// whose info can't be read. Each is asked under the lock, right before it would go, so a client that protects a
/// generation by such a value, and has been told so, does not lose it.
///
/// @param key  Not null.
TQ_EXPORT bool TQClientManagedStorageRemoveGenerationsUnless(const TQClientManagedStorage *store, const TQArray *names,
                                                             const TQString *key, TQError **error);

/// The names of all generations, strings in no particular order, in an array that the caller owns. Shared lock.
///
/// If reading the store's directory fails half-way, the names read so far are returned as if they were all. A client
/// that has to be sure reads the directory itself as well; names that begin with "." are not those of generations.
///
/// @return null with kTQStatusFailed if a name in the store is not UTF-8.
TQ_EXPORT TQArray *TQClientManagedStorageCopyGenerationNames(const TQClientManagedStorage *store, TQError **error);

/// One record about one generation: a dictionary with "name" and, as "fields" of `spec` select, "options" (a number),
/// "URL", "ODN" (the original display name, where there is one) and "info" (the info dictionary). The caller owns it.
///
/// @param name  Neither validated nor looked for: a name without a generation gives a record of what can be told.
/// @param spec  May be null, which counts as empty. "fields" is a dictionary of numbers (or booleans): "URL",
///              "options", and "ODN", which selects display name and info together. Without "fields" everything is
///              selected; with it, only the keys that are there and true.
/// @return null with kTQStatusInvalidType for a value of the wrong type, kTQStatusBadPath for a path that is too
///         long, or what reading the metadata reported. Shared lock.
TQ_EXPORT TQDictionary *TQClientManagedStorageCopyGenerationInfos(const TQClientManagedStorage *store,
                                                                  const TQString *name, const TQDictionary *spec,
                                                                  TQError **error);

/// Records about all generations, in a dictionary of at most two arrays: under "com.corvane.nimbusync" those whose
/// options word has the bit 0x4, under "com.corvane.draftline" the others. The caller owns it. A
/// group without records is left out.
///
/// @param spec  May be null. Beside "fields": "withOptions", a number: only generations that share a bit with it, or
///              all for 0; 31 when absent. "withoutOptions", a number: none that shares a bit with it. "clients", an
///              array of strings: only these groups. All 64 bits of a mask count.
/// @return null as above; a query that fails for one generation fails as a whole. But if reading the store's directory
///         fails half-way, the generations read so far are returned as if they were all: see
///         TQClientManagedStorageCopyGenerationNames. Shared lock: the result shows the store at one moment.
TQ_EXPORT TQDictionary *TQClientManagedStorageCopyAllGenerationsInfos(const TQClientManagedStorage *store,
                                                                      const TQDictionary *spec, TQError **error);

/// Verifies that a store is as it should be, and reports where it is not. Looking changes nothing, so it also reports
/// everything that TQClientManagedStorageCreate would mend.
///
/// It looks at the root's protection, the lock file, the staging area and what killed operations left in it, every
/// item of every generation (write-protected, with a well-formed record of its permissions; "._" files and symbolic
/// links below the top are exempt), the attributes of generations, the items that killed restores noted to have put
/// beside documents, and any other item with a placeholder's name beside a document that a generation names in its
/// info dictionary under "vaultry.document". An item that a living operation works on is not a finding: each
/// operation holds a lock in its staging directory. Only a copy for a client is always a finding, since nobody
/// holds a lock for it.
///
/// @param repair  Also mends what is safe to mend. Protection is put back on the root and on items that carry the
///                record of their permissions, except files with several names, which may belong to several
///                generations. A missing lock file or staging directory is made. What a dead operation left in
///                staging is removed, whatever its age. A copy for a client, and a directory that does not say
///                whose it is, are removed when nothing in them has changed for an hour by the volume's clock. A
///                document that a killed move left in staging, or a killed restore beside its path, is put back if
///                nothing is there. The copy that a killed restore left beside the document, and the old document
///                beside the restored one, are removed if both are what the restore noted. What was moved or
///                restored on another machine is left to a repair there. Root follows the note of somebody else's
///                store only where the store's owner could have done the same. Everything else is reported and left
///                alone; generations' contents are never touched.
/// @return an array that the caller owns, empty when all is well, of dictionaries: "path" (data: the bytes of the
///         path), "kind" (a string of lower-case words that a program can tell apart), "meaning" (a string for people),
///         "mended" (a boolean), for a document that is not where it belongs, "home" (data: the path where it belongs),
///         for what the note of a restore told, "note" (data: the path of the directory in staging that holds the
///         note), and for what a program on another machine left, "host" (data: that machine's name; what is not
///         mended here may be mended there). Null with an error:
///         kTQStatusBadPath       not a directory; or one that is not a store, since it has neither a lock file nor a
///                                staging directory
///         kTQStatusNotSupported  a later version made the store
///
/// Shared lock, exclusive with `repair`. Looking goes on without a lock if the lock file is missing or can't be read.
/// Repairing first makes or mends the lock file, and mends nothing if something else stands in its place.
TQ_EXPORT TQArray *TQClientManagedStorageCopyFindings(const char *rootPath, bool repair, TQError **error);

/// Tells what is going on in a store: who holds its lock, and which operations live. It takes no lock of the store and
/// waits for nobody, so a program that waits for the store can tell for whom. What it tells may be over already, and
/// what can't be read of one operation is left out.
///
/// @return an array that the caller owns of dictionaries: "work" (a string: "copy" and "move" for an add, "remove",
///         "copy-out", "restore"; or "lock" and "shared-lock" for a process that took the store's lock, and may have
///         left it to a child), "process" (its number, of an operation as that process sees it), "host" (data: the name
///         of its machine), "here" (a boolean: whether the process runs on this machine since its last start), and
///         except for locks "document" (data: the path of the document, or the name of the generation) and "since" (a
///         date, by that machine's clock). A process may be there twice, with its operation and with the lock. Locks
///         are told of this machine alone, and only of volumes whose locks its kernel keeps. Null with an error:
///         kTQStatusBadPath           not a directory, or one without a staging area
///         kTQStatusPermissionDenied  the staging area can't be read
///         kTQStatusFailed            it can't be read for another reason, such as a volume that does not answer
TQ_EXPORT TQArray *TQClientManagedStorageCopyOperations(const char *rootPath, TQError **error);

TQ_END_DECLS

#endif
