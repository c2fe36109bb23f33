/// @file
/// Error objects: a domain, a code, and perhaps a description and an underlying error. Immutable; any thread.

#ifndef VAULTRY_ERROR_H
#define VAULTRY_ERROR_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

/// The library's own errors. Their codes are those of status.h's table.
TQ_EXPORT extern TQString *const kTQLibraryErrorDomain;
/// System error numbers; the code is the errno value.
TQ_EXPORT extern TQString *const kTQPOSIXErrorDomain;
/// File operations of applications: 516 exists, 640 out of space, 642 read-only volume.
TQ_EXPORT extern TQString *const kTQApplicationErrorDomain;

/// The keys of the user-information dictionary.
TQ_EXPORT extern TQString *const kTQErrorDescriptionKey;
TQ_EXPORT extern TQString *const kTQErrorUnderlyingKey;

TQ_EXPORT TQTypeID TQErrorGetTypeID(void);

/// @param domain    Retained. If it is null, so is the result.
/// @param userInfo  May be null. Copied.
TQ_EXPORT TQError *TQErrorCreate(TQString *domain, intptr_t code, const TQDictionary *userInfo);
TQ_EXPORT TQString *TQErrorGetDomain(const TQError *error);
TQ_EXPORT intptr_t TQErrorGetCode(const TQError *error);
/// Null when there is none.
TQ_EXPORT TQDictionary *TQErrorGetUserInfo(const TQError *error);
/// The description. If the error has none, one is made from domain and code ("TQPOSIXErrorDomain error 2"). The caller
/// owns it. Null for null.
TQ_EXPORT TQString *TQErrorCopyDescription(const TQError *error);
/// The error underneath, or null.
TQ_EXPORT TQError *TQErrorGetUnderlying(const TQError *error);

TQ_END_DECLS

#endif
