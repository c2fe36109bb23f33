/// @file
/// Property lists, in the binary format, version 1.0.
///
/// A property-list value is a string, number, boolean, data, date, array, or a dictionary with string keys. A value
/// that was written is read back equal, and dictionaries keep their order.
///
/// An error is stored only on failure, and the caller releases it; `error` may be null. Any thread, as long as nobody
/// changes the value meanwhile.

#ifndef VAULTRY_PLIST_H
#define VAULTRY_PLIST_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

/// Serialises `value`. Equal scalars of one kind are written once and integers in the fewest bytes; a container is
/// written wherever it occurs. The caller owns the result.
/// On failure null and an error of kTQLibraryErrorDomain with code 1: a value of another kind,
/// a container that holds itself, containers nested more than 512 deep, more than 4,194,304 values, each counted
/// wherever it occurs, or no memory.
TQ_EXPORT TQData *TQPropertyListCreateData(TQValue *value, TQError **error);

/// Parses bytes from anywhere, hostile ones included.
///
/// A container that the bytes hold once and refer to in several places is one value in all of them, and takes no more
/// memory than that. A walk of the result meets it at each place, so a few bytes from a stranger can make that walk
/// endless. TQEqual, TQHash and TQCopyDescription are safe with it.
///
/// @param mutableContainers  Whether every array and dictionary, at any depth, can be changed. Then each place has a
///                           container of its own.
/// @return null, and an error of kTQLibraryErrorDomain with code 1 that says what is wrong and where, if the bytes
///         are not one whole property list, nest more than 512 deep, refer to themselves or hold a key twice, or if the
///         copies of shared containers, which only mutable ones need, would take more than 4 MiB plus 32 times the size
///         of `data`. Sets, unique identifiers and null are refused, because no property-list value stands for them.
TQ_EXPORT TQValue *TQPropertyListCreateWithData(const TQData *data, bool mutableContainers, TQError **error);

TQ_END_DECLS

#endif
