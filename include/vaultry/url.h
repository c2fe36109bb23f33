/// @file
/// URLs: file URLs made from paths, and any other kind kept as it is.
///
/// A URL never changes and never looks at the disk; any thread may use it. One made from a path keeps its bytes,
/// whatever they are, and they come back as they were given: nothing is normalised and a "/" at the end stays. Two URLs
/// are equal when their texts and their bases are.

#ifndef VAULTRY_URL_H
#define VAULTRY_URL_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

TQ_EXPORT TQTypeID TQURLGetTypeID(void);

/// A file URL for a path in file-system form, whatever its bytes; null for a null or empty path.
/// A relative path stays relative, and is resolved against the current directory when its absolute path is asked for.
TQ_EXPORT TQURL *TQURLCreateWithFileSystemPath(const char *path, bool isDirectory);

/// The same, with a relative path resolved against `base` when its absolute path is asked for. `base` is retained, may
/// be null, and is not used for an absolute path. As in any URL, what follows the last "/" of the base is
/// replaced, and "." and ".." in the result are resolved by their names alone.
TQ_EXPORT TQURL *TQURLCreateWithFileSystemPathRelativeToBase(const char *path, bool isDirectory, TQURL *base);

/// A URL from its text, "file:///a%20b" or "https://…"; `base` (may be null, is retained) resolves a relative one.
/// Null if `string` is empty, holds characters that no URL may hold, or a broken percent escape.
TQ_EXPORT TQURL *TQURLCreateWithString(const TQString *string, TQURL *base);

/// Whether the scheme is "file". A relative URL has the scheme of its base.
TQ_EXPORT bool TQURLIsFileURL(const TQURL *url);

/// Whether the URL was marked as a directory when it was made, or its text ends in "/".
TQ_EXPORT bool TQURLHasDirectoryPath(const TQURL *url);

/// The URL's text, percent-encoded, resolved against its base; the text of a directory's URL ends in "/". The caller
/// owns it. A relative path without a base is resolved against the current directory: null if there is none.
TQ_EXPORT TQString *TQURLCopyString(const TQURL *url);

/// The path of the URL as it was given (its percent escapes undone), not resolved; lives as long as the URL.
/// Null for a URL with no path or with one that holds an escaped zero byte, and for a file URL that names a host other
/// than "localhost".
TQ_EXPORT const char *TQURLGetPath(const TQURL *url);

/// The absolute path, resolved against the base or else the current directory. False if the URL is not a
/// file URL, has no path (see TQURLGetPath), or the path needs more than `capacity` bytes with its zero; the buffer may
/// then hold anything.
TQ_EXPORT bool TQURLGetFileSystemRepresentation(const TQURL *url, char *buffer, size_t capacity);

TQ_END_DECLS

#endif
