/// @file
/// A generation's metadata: an info dictionary, an original display name, an options word.
///
/// All three are extended attributes of the generation's top item. These functions take that item's path and no lock:
/// a client works through storage.h, which holds the store's lock around them. The item's write
/// protection is lifted for the span of one change and put back, whatever happens.
///
/// Statuses: what the failing system call reported, and kTQStatusFailed for a stored value of the wrong form. On ext4
/// all attributes of an item share about 4 KiB, and kTQStatusNoSpace means that this space is used up.

#ifndef VAULTRY_METADATA_H
#define VAULTRY_METADATA_H

#include <vaultry/collections.h>
#include <vaultry/error.h>
#include <vaultry/string.h>

TQ_BEGIN_DECLS

/// Sets an attribute of a generation's top item, or removes it when `value` is null or `size` 0. An absent
/// attribute is removed successfully. A failed change leaves the old value, unless only flushing the new one to disk
/// failed. When this function or one of those below returns true, the change is on disk.
TQ_EXPORT bool _SetEAOnGeneration(const char *path, const char *name, const void *value, size_t size, TQError **error);

/// A mutable dictionary that the caller owns; empty when the item has none. Null on failure: bytes that are not a
/// property list give the parser's error, a list that is not a dictionary kTQStatusFailed.
TQ_EXPORT TQDictionary *TQCopyMutableInfoDictionary(const char *path, TQError **error);

/// The value under `key`, owned by the caller; null with kTQStatusNoSuchAttribute when there is none.
TQ_EXPORT TQValue *TQCopyInfoValue(const char *path, const TQString *key, TQError **error);

/// Adds or replaces a value; a null `value` removes the key (kTQStatusNoSuchAttribute when it isn't there).
TQ_EXPORT bool TQSetInfoValue(const char *path, TQString *key, TQValue *value, TQError **error);

/// Adds or replaces all of `values` in one write: a reader finds all of them or none, also after a kill.
TQ_EXPORT bool TQSetInfoValues(const char *path, const TQDictionary *values, TQError **error);

/// Sets the display name, at most 767 bytes without a zero (else kTQStatusInvalidArgument, and the old one stays); a
/// null or empty name removes it.
TQ_EXPORT bool TQSetOriginalDisplayName(const char *path, const TQString *name, TQError **error);

/// The display name, owned by the caller; null with kTQStatusNoSuchAttribute when there is none.
TQ_EXPORT TQString *TQCopyOriginalDisplayName(const char *path, TQError **error);

/// Stores the options word if any of the bits 0x1e is set; otherwise removes it, so that it reads back as 1.
TQ_EXPORT bool TQSetGenerationOptions(const char *path, uint64_t options, TQError **error);

/// The options word: 1 when none is stored, 0 when it can't be read or has the wrong size. Never logs.
TQ_EXPORT uint64_t TQGetGenerationOptions(const char *path);

TQ_END_DECLS

#endif
