/// @file
/// Property lists, in the binary format, version 1.0.
///
/// A property-list value is a string, number, boolean, data, date, array, or a dictionary with string keys.

#ifndef VAULTRY_PLIST_H
#define VAULTRY_PLIST_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

/// Serialises `value`. Equal scalars are written once and integers in the fewest bytes.
/// On failure null and an error of kTQLibraryErrorDomain with code 1: a value of another kind,
/// a container that holds itself, containers nested more than 512 deep, or no memory.
TQ_EXPORT TQData *TQPropertyListCreateData(TQValue *value, TQError **error);

/// Parses bytes from anywhere, hostile ones included.
///
/// @param mutableContainers  Whether every array and dictionary, at any depth, can be changed.
/// @return null, and an error of kTQLibraryErrorDomain with code 1 that says what is wrong and where, if the bytes
///         are not one whole property list, nest more than 512 deep, refer to themselves, or would need
///         more memory than their number justifies.
TQ_EXPORT TQValue *TQPropertyListCreateWithData(const TQData *data, bool mutableContainers, TQError **error);

TQ_END_DECLS

#endif
