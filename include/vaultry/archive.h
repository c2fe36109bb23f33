/// @file
/// The generation archive: a tree made into a write-protected generation, and copied back out.
///
/// Archiving records an item's write bits and its immutable and append-only flags in one byte, the attribute
/// "com.corvane.vaultry.orig_perms_v1", and then takes all write access away. Files named "._…" are neither
/// copied, counted nor archived. Symbolic links can't be archived; FIFOs, sockets and devices neither.
///
/// These functions take paths and no lock, and leave clean-up of a partly made destination, and flushing to disk, to
/// the caller: a client works through storage.h. There are two exceptions. The copy that takes a hard link's place is
/// always flushed first. And where nobody but the writer of an item can flush it, as on some network volumes, adding
/// does so itself. Statuses are those of the failing system call unless said otherwise.

#ifndef VAULTRY_ARCHIVE_H
#define VAULTRY_ARCHIVE_H

#include <vaultry/error.h>

#include <sys/types.h>

TQ_BEGIN_DECLS

/// Puts the tree at `source` at `destination`, where nothing may be. A copy crosses the mounts inside the tree; a tree
/// in which something is mounted is not moved (kTQStatusFailed, EBUSY underneath).
///
/// The saved-permissions attribute of an item that was archived before is kept by a copy if the item has no write bit
/// and the value is one byte of known bits; of these, write for a class that can't read is left out. Otherwise, and by
/// a move, it is written anew.
///
/// @param copy          Copies item by item, and reports to the thread's current progress, through which it can be
///                      cancelled (kTQStatusFailed, ECANCELED underneath); else moves by rename, and archives then.
/// @param makeReadable  Whether archived items get read rights (and directories search rights) for all.
/// @param archive       Whether to archive every item.
/// @return false on failure. What was copied so far, or a moved tree that could not be archived, is then at
///         `destination`; one whose own mode or flags could not be put back is at `source` again.
TQ_EXPORT bool TQAddPathAsGeneration(const char *source, const char *destination, bool copy, bool makeReadable,
                                     bool archive, TQError **error);

/// The sizes of all regular files of a tree, those of volumes mounted inside included, in bytes; -1 on failure. 0, with
/// an error all the same, if the walk can't even begin.
TQ_EXPORT int64_t TQComputeTreeSize(const char *path, TQError **error);

/// Archives every item of the tree at `path`, directories after their contents. Files with further
/// links are made files of their own first. An item that was archived before keeps its saved-permissions attribute.
///
/// @param totalSize  May be null; the sizes of the archived files are added to it.
TQ_EXPORT bool TQArchiveTree(const char *path, bool makeReadable, uint64_t *totalSize, TQError **error);

/// Copies the generation at `path` to `destination`, where nothing may be, and gives every item its recorded
/// write bits and flags back. The copy's top item is left changeable, a directory for all who can reach it; it is to
/// get `mode` and `flags` from the caller.
TQ_EXPORT bool TQCopyOutGeneration(const char *path, const char *destination, uint16_t *mode, uint32_t *flags,
                                   TQError **error);

TQ_END_DECLS

#endif
