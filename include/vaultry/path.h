/// @file
/// Paths, file URLs and generation names.
///
/// A path is a string of bytes, used unchanged; where the library keeps one, it has at most 1,023 bytes. A generation
/// name is one path component that does not begin with "." and needs at most 254 bytes. All functions are reentrant.

#ifndef VAULTRY_PATH_H
#define VAULTRY_PATH_H

#include <vaultry/error.h>
#include <vaultry/string.h>
#include <vaultry/url.h>

#include <sys/types.h>

TQ_BEGIN_DECLS

/// The string for a path's bytes, not owned by the caller (it lives until the innermost deferred-release
/// scope ends); null if they are not UTF-8.
TQ_EXPORT TQString *tq_stringWithFileSystemRepresentation(const char *path);

/// Whether `name` may name a generation: fewer than 255 UTF-16 units, not beginning with ".", no "/".
///
/// @return false with kTQStatusInvalidArgument and a message that says which rule failed.
TQ_EXPORT bool validateTQName(const TQString *name, TQError **error);

/// A file URL for `path` as it is, not marked as a directory, made without looking at the disk. Not owned by the
/// caller: it lives until the innermost deferred-release scope ends. Null for a null or empty path.
TQ_EXPORT TQURL *tq_fileURLWithFileSystemRepresentation(const char *path);

/// The path of `url`. A relative path of a file URL is resolved against its base or else the current directory. Lives
/// as long as the URL and the innermost deferred-release scope. Null if it has none, or one of 4,096 bytes or more.
TQ_EXPORT const char *tq_fileSystemRepresentation(const TQURL *url);

/// Writes the absolute path of a file URL, resolved against its base.
///
/// @return false with kTQStatusBadPath if `url` is null, not a file URL, or its path does not fit `size` bytes.
TQ_EXPORT bool TQURLGetAbsPath(const TQURL *url, char *buffer, size_t size, TQError **error);

/// Splits `path` at its last "/" inside `buffer` of 1,024 bytes, which may be `path` itself. The parent stands at the
/// start of the buffer ("" without a "/", "/" for one at the very start); a trailing "/" gives an empty child.
///
/// @return the last component, inside the buffer; null if it does not fit or the path is empty.
TQ_EXPORT char *separate_path_parent_child(const char *path, char *buffer);

/// The path of a file known by volume and file number: Linux keeps no such paths, so always null with ENOTSUP.
TQ_EXPORT char *vidpath_restart(char *buffer, size_t size, uint32_t volume, uint64_t file);

/// The extension of the last component, dot included; null if it has none. A leading dot starts no extension.
TQ_EXPORT const char *TQGetFileNameExtensionForPath(const char *path);

/// What follows the last "/"; null if there is none.
TQ_EXPORT const char *TQGetFileNameForPath(const char *path);

/// A new string with the path of the directory that holds `path`, for the caller to free(); null for "/", for a path
/// without "/", and for "".
TQ_EXPORT char *_CopyParentDirectoryPath(const char *path);

/// Makes `path` and every missing parent with `mode`, less what the process's umask takes; parents also get owner write
/// and search. 0 also if the directory is there already; else -1 with errno.
TQ_EXPORT int TQRecursiveMkdir(const char *path, mode_t mode);

/// Whether `name` neither begins with "." nor holds a "/". Nothing else is tested. False for null.
TQ_EXPORT bool TQValidateGenerationName(const char *name);

/// Writes the name's file-system form into `buffer` of at least 255 bytes.
///
/// @return false with kTQStatusInvalidArgument if it needs more than 254 bytes or can't be a path.
TQ_EXPORT bool TQStringGetGenName(const TQString *name, char *buffer, TQError **error);

TQ_END_DECLS

#endif
