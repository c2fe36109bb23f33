/// @file
/// Property lists, in the binary format, version 1.0.
///
/// A property-list value is a string, number, boolean, data, date, array, or a dictionary with string keys. What was
/// written is read back equal, and dictionaries keep their order.
///
/// Every error is one that the caller releases, stored only on failure, and `error` may be null. Any thread, as long as
/// nobody changes the value meanwhile.

#ifndef VAULTRY_PLIST_H
#define VAULTRY_PLIST_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

/// Serialises `value`. Equal scalars of one kind are written once and integers in the fewest bytes; a container is
/// written wherever it occurs. The caller owns the result.
/// On failure null and an error of kTQLibraryErrorDomain with code 1: a value of another kind,
/// a container that holds itself, containers nested more than 512 deep, or no memory.
TQ_EXPORT TQData *TQPropertyListCreateData(TQValue *value, TQError **error);

/// Parses bytes from anywhere, hostile ones included.
///
/// @param mutableContainers  Whether every array and dictionary, at any depth, can be changed.
/// @return null, and an error of kTQLibraryErrorDomain with code 1 that says what is wrong and where, if the bytes
///         are not one whole property list, nest more than 512 deep, refer to themselves, hold a key twice, or
///         would need more memory than their number justifies. Sets, unique identifiers and null are
///         refused, because no property-list value stands for them.
TQ_EXPORT TQValue *TQPropertyListCreateWithData(const TQData *data, bool mutableContainers, TQError **error);

TQ_END_DECLS

#endif
