/// @file
/// Removing whole trees, and reading and changing single attributes and flags of files.
///
/// Stateless; any thread may call. Unless said otherwise a function reports its result alone, and sets errno on
/// failure.

#ifndef VAULTRY_FILESYSTEM_H
#define VAULTRY_FILESYSTEM_H

#include <vaultry/collections.h>
#include <vaultry/error.h>
#include <vaultry/file_status.h>
#include <vaultry/url.h>

TQ_BEGIN_DECLS

/// Removes the item at `path` and everything below it, including write-protected and immutable items. Links are removed
/// as links. A mount inside the tree, of another volume or of the same one, is neither entered nor changed; its mount
/// point can't be removed, and so the call fails. A mount on `path` itself is emptied, and then the call fails in the
/// same way. The call does not fail if somebody else removes an item meanwhile, or if there is nothing at `path`.
///
/// Not transactional: it stops at the first failure, and what was removed before stays removed. If nothing was removed,
/// the modes and flags that it changed on the way are put back.
///
/// @param unused  Ignored; pass 0.
/// @return false with the failing call's status (a busy mount point is kTQStatusFailed, a missing right
///         kTQStatusPermissionDenied, a directory that can't be emptied kTQStatusBadPath).
TQ_EXPORT bool _RemoveTree(const char *path, uintptr_t unused, TQError **error);

/// Removes everything below a directory and keeps it, made writable for owner and group. An item that is not a
/// directory is removed itself.
TQ_EXPORT bool _RemoveSubTrees(const char *path, uintptr_t unused, TQError **error);

/// Statistics of the volume that holds `path`; a final symbolic link is refused (ELOOP). 0 or -1.
TQ_EXPORT int _SafeStatFS(const char *path, TQVolumeStatus *out);

/// Whether something can be reached at `path`, and whether there is surely nothing. Both are false when
/// it can't be told. Links are followed.
TQ_EXPORT bool _PathExists(const char *path);
TQ_EXPORT bool _PathNotExists(const char *path);

/// Whether `status`, or without one the item at `path` itself, is a directory; a link to one is not.
TQ_EXPORT bool _IsDirectory(const char *path, const TQFileStatus *status);

/// Whether the item itself (not what a link points to) carries the attribute.
TQ_EXPORT bool _HasAttribute(const char *path, const char *name);
TQ_EXPORT bool _FDHasAttribute(int fd, const char *name);

/// True if the copy-on-write mark ends up set, or not set. No Linux file system holds it: setting fails with ENOTSUP.
TQ_EXPORT bool _SetCopyOnWrite(const char *path);
TQ_EXPORT bool _UnsetCopyOnWrite(const char *path);

/// The file manager's mark that the name's extension is not shown: bit 0x10 of byte 9 of the 32-byte attribute
/// "com.corvane.NavvexInfo". False if the attribute has another size.
TQ_EXPORT bool TQFSFilenameExtensionIsHidden(const char *path);

/// Sets or clears that mark and leaves every other bit alone. A failure is logged at level 3.
TQ_EXPORT void TQFSSetFileNameExtensionHiding(const char *path, bool hide);

/// Does nothing and returns true: lists travel with the copy of their item.
TQ_EXPORT bool _TransferACL(void);

/// Carries the creation time of one item to another, links not followed. Linux can't write one: false, and a
/// line at level 7.
TQ_EXPORT bool _TransferBirthTime(const char *source, const char *destination);
TQ_EXPORT bool _SetBirthTimeSpecForFD(int fd, int64_t seconds, int64_t nanoseconds);
TQ_EXPORT bool _SetBirthTimeSecondsForFD(int fd, int64_t seconds);

/// Whether a volume can hold storage that the system manages: a native type (ext4, xfs, btrfs) and more than 512 MiB.
///
/// @return false with kTQStatusNotSupported; underneath ENOSYS for the type or ENOSPC for the size.
TQ_EXPORT bool TQSystemManagedStorageIsSupportedForStatFSInfo(const TQVolumeStatus *volume, TQError **error);

/// Removes every member of `values` from `set`.
TQ_EXPORT void TQSetRemoveValues(TQSet *set, const TQSet *values);

/// Does nothing: Linux has no sandbox that a token would open.
TQ_EXPORT void attachSandboxExtension(TQURL *url, TQValue *token);

TQ_END_DECLS

#endif
