/// @file
/// The generation archive: a tree made into a write-protected generation, and copied back out.
///
/// Archiving records an item's write bits and its immutable and append-only flags in one byte, the attribute
/// "com.corvane.vaultry.orig_perms_v1", and then takes all write access away. Files named "._…" are neither
/// copied, counted nor archived. Symbolic links, FIFOs, sockets and devices can't be archived.
///
/// These functions take paths and no lock. The caller cleans up a partly made destination, and flushes to disk: a
/// client works through storage.h. There are two exceptions. The copy that takes a hard link's place is always flushed
/// first. And where only the writer of an item can flush it, as on some network volumes, adding flushes it. Statuses
/// are those of the failing system call unless said otherwise.

#ifndef VAULTRY_ARCHIVE_H
#define VAULTRY_ARCHIVE_H

#include <vaultry/error.h>

#include <sys/types.h>

TQ_BEGIN_DECLS

/// Puts the tree at `source` at `destination`, which must not exist. A copy crosses the mounts inside the tree; a tree
/// in which something is mounted is not moved (kTQStatusFailed, EBUSY underneath).
///
/// A copy keeps the saved-permissions attribute of an item that was archived before if the item has no write bit and
/// the value is one byte of known bits; it leaves out write for a class that can't read. Otherwise, and in a move, the
/// attribute is written anew.
///
/// @param copy          true copies item by item, and reports to the thread's current progress, through which it can be
///                      cancelled (kTQStatusFailed, ECANCELED underneath); false moves by rename, and then archives.
/// @param makeReadable  Whether archived items get read rights (and directories search rights) for all.
/// @param archive       Whether to archive every item.
/// @return false on failure. What was copied so far, or a moved tree that could not be archived, is then at
///         `destination`. A moved tree whose own mode or flags could not be put back is at `source` again.
TQ_EXPORT bool TQAddPathAsGeneration(const char *source, const char *destination, bool copy, bool makeReadable,
                                     bool archive, TQError **error);

/// The size of all regular files of a tree in bytes, including those of volumes mounted inside it. -1 on failure; 0,
/// with an error too, if the walk can't even begin.
TQ_EXPORT int64_t TQComputeTreeSize(const char *path, TQError **error);

/// Archives every item of the tree at `path`, directories after their contents. A file with further hard links is first
/// replaced by a copy of its own. An item that was archived before keeps its saved-permissions attribute.
///
/// @param totalSize  May be null; the sizes of the archived files are added to it.
TQ_EXPORT bool TQArchiveTree(const char *path, bool makeReadable, uint64_t *totalSize, TQError **error);

/// Copies the generation at `path` to `destination`, which must not exist, and gives every item its recorded write bits
/// and flags back. The copy's top item stays changeable, a directory for everybody who can reach it; the caller gives
/// it `mode` and `flags`.
TQ_EXPORT bool TQCopyOutGeneration(const char *path, const char *destination, uint16_t *mode, uint32_t *flags,
                                   TQError **error);

TQ_END_DECLS

#endif
