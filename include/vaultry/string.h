/// @file
/// Strings: immutable, UTF-8 in and out, counted in UTF-16 units.
///
/// A string is a plain sequence of characters: nothing is normalised, and two strings are equal when their bytes are.
/// Getters of a null string answer 0, null or false.

#ifndef VAULTRY_STRING_H
#define VAULTRY_STRING_H

#include <vaultry/value.h>

#include <stdarg.h>

TQ_BEGIN_DECLS

TQ_EXPORT TQTypeID TQStringGetTypeID(void);

/// Null if `utf8` is null or not valid UTF-8 (overlong forms and surrogates are not).
TQ_EXPORT TQString *TQStringCreate(const char *utf8);

/// The same from `length` bytes, which may contain zeros; `bytes` may be null when `length` is 0.
TQ_EXPORT TQString *TQStringCreateWithBytes(const void *bytes, size_t length);

/// printf's conversions, and "%@" for a counted value, which gives its description. "%@", "%s" and "%ls" give
/// "(null)" for null. A width or precision counts bytes, and a precision never cuts a character.
///
/// Null if the result, a "%s" or "%c" argument included, is not valid UTF-8, or if `format` holds a conversion that
/// printf does not know; "%n" and positional arguments ("%1$d") are refused. Leaves errno as it was.
TQ_EXPORT TQString *TQStringCreateWithFormat(const char *format, ...);
TQ_EXPORT TQString *TQStringCreateWithFormatAndArguments(const char *format, va_list arguments);

/// The string for a path's bytes, unchanged; null if they are not UTF-8.
TQ_EXPORT TQString *TQStringCreateWithFileSystemRepresentation(const char *path);

/// In UTF-16 units: 2 for a character outside the basic plane, 1 for any other.
TQ_EXPORT size_t TQStringGetLength(const TQString *string);

/// The UTF-16 unit at `index`; 0 when there is none. Takes time in proportion to `index` unless the string is ASCII.
TQ_EXPORT uint16_t TQStringGetCharacterAtIndex(const TQString *string, size_t index);

/// Zero-terminated, and valid as long as the string. Null for null.
TQ_EXPORT const char *TQStringGetUTF8(const TQString *string);

/// In bytes, without the terminating zero.
TQ_EXPORT size_t TQStringGetUTF8Length(const TQString *string);

/// Writes the path's bytes and a zero. False if they need more than `capacity` bytes or the string holds a zero (no
/// path does); the buffer may then hold anything.
TQ_EXPORT bool TQStringGetFileSystemRepresentation(const TQString *string, char *buffer, size_t capacity);

TQ_END_DECLS

#endif
