/// @file
/// Arrays, dictionaries and sets. A container retains its members.
///
/// The mutable form is the same type, made by `…CreateMutable…`; changing an immutable one, or passing null for a
/// member, does nothing and returns false. Getters answer for a null container as for an empty one. A mutable container
/// must not change while it is a key of a dictionary or a member of a set. One that comes to hold itself is only freed
/// once that is undone.
///
/// Getters lend: a value lives as long as the container holds it. Copies hold the same members, and a copy of an
/// immutable container may be that container with one more reference. Copying null gives null.

#ifndef VAULTRY_COLLECTIONS_H
#define VAULTRY_COLLECTIONS_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

TQ_EXPORT TQTypeID TQArrayGetTypeID(void);
/// Null if one of the `count` values is null.
TQ_EXPORT TQArray *TQArrayCreate(TQValue *const *values, size_t count);
/// Immutable, whatever `array` is.
TQ_EXPORT TQArray *TQArrayCreateCopy(const TQArray *array);
TQ_EXPORT TQArray *TQArrayCreateMutable(void);
TQ_EXPORT size_t TQArrayGetCount(const TQArray *array);
/// Null when `index` is past the end.
TQ_EXPORT TQValue *TQArrayGetValueAtIndex(const TQArray *array, size_t index);
TQ_EXPORT bool TQArrayContainsValue(const TQArray *array, const TQValue *value);
TQ_EXPORT bool TQArrayAppendValue(TQArray *array, TQValue *value);

TQ_EXPORT TQTypeID TQDictionaryGetTypeID(void);
/// Keys are any values; among equal keys the last one's value counts. Null if one of the keys or values is null.
TQ_EXPORT TQDictionary *TQDictionaryCreate(TQValue *const *keys, TQValue *const *values, size_t count);
/// Immutable, whatever `dictionary` is.
TQ_EXPORT TQDictionary *TQDictionaryCreateCopy(const TQDictionary *dictionary);
TQ_EXPORT TQDictionary *TQDictionaryCreateMutable(void);
TQ_EXPORT TQDictionary *TQDictionaryCreateMutableCopy(const TQDictionary *dictionary);
TQ_EXPORT size_t TQDictionaryGetCount(const TQDictionary *dictionary);
/// Null when there is no such key.
TQ_EXPORT TQValue *TQDictionaryGetValue(const TQDictionary *dictionary, const TQValue *key);
/// Fills `keys` and `values` (either may be null), each with room for the dictionary's count, in insertion order.
TQ_EXPORT void TQDictionaryGetKeysAndValues(const TQDictionary *dictionary, TQValue **keys, TQValue **values);
/// Adds at the end, or replaces the value of an equal key, which keeps its place.
TQ_EXPORT bool TQDictionarySetValue(TQDictionary *dictionary, TQValue *key, TQValue *value);
/// True if there was such a key.
TQ_EXPORT bool TQDictionaryRemoveValue(TQDictionary *dictionary, const TQValue *key);

TQ_EXPORT TQTypeID TQSetGetTypeID(void);
/// Among equal values the first is kept. Null if one of the values is null.
TQ_EXPORT TQSet *TQSetCreate(TQValue *const *values, size_t count);
TQ_EXPORT TQSet *TQSetCreateMutable(void);
TQ_EXPORT size_t TQSetGetCount(const TQSet *set);
TQ_EXPORT bool TQSetContainsValue(const TQSet *set, const TQValue *value);
/// Fills `values`, with room for the set's count, in insertion order.
TQ_EXPORT void TQSetGetValues(const TQSet *set, TQValue **values);
/// Also true if there is an equal member already, which then stays.
TQ_EXPORT bool TQSetAddValue(TQSet *set, TQValue *value);
/// True if it was a member.
TQ_EXPORT bool TQSetRemoveValue(TQSet *set, const TQValue *value);
/// Calls `callback` with each member; the set must not change meanwhile.
TQ_EXPORT void TQSetApply(const TQSet *set, void (*callback)(TQValue *value, void *context), void *context);

TQ_END_DECLS

#endif
