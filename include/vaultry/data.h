/// @file
/// Data: immutable bytes; and dates. Any thread may use them.

#ifndef VAULTRY_DATA_H
#define VAULTRY_DATA_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

TQ_EXPORT TQTypeID TQDataGetTypeID(void);

/// Copies `length` bytes; `bytes` may be null when `length` is 0.
TQ_EXPORT TQData *TQDataCreate(const void *bytes, size_t length);

/// Takes `bytes` over without copying them.
///
/// @param allocator         Where the object itself comes from; null is the default.
/// @param bytesDeallocator  Gives the bytes back with the last reference; null is the default, and
///                          kTQAllocatorNull leaves them alone. Retained.
/// @return null if memory ran out; the bytes then still belong to the caller.
TQ_EXPORT TQData *TQDataCreateNoCopy(TQAllocator *allocator, void *bytes, size_t length, TQAllocator *bytesDeallocator);

/// Valid as long as the data; null for null.
TQ_EXPORT const void *TQDataGetBytes(const TQData *data);
TQ_EXPORT size_t TQDataGetLength(const TQData *data);

TQ_EXPORT TQTypeID TQDateGetTypeID(void);

/// Seconds since 1970-01-01 00:00 UTC, with their fraction. Two dates are equal when a property list, which counts
/// from 2001, can't tell them apart: around 1970 within a tenth of a microsecond, today exactly.
TQ_EXPORT TQDate *TQDateCreate(double seconds);
/// As they were given; 0 for null.
TQ_EXPORT double TQDateGetSeconds(const TQDate *date);

TQ_END_DECLS

#endif
