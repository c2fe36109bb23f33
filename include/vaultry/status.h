/// @file
/// Status codes, what they become as error objects, and the way back.
///
/// Inside the library a failure is a status; a caller gets it as an error object through an optional last
/// `TQError **`. On failure the out-parameter holds an error that the caller releases; on success it must not be read.
/// Null is always allowed, for a caller that does not want the error.
///
/// All functions are reentrant, keep no state, and leave errno as it was.

#ifndef VAULTRY_STATUS_H
#define VAULTRY_STATUS_H

#include <vaultry/error.h>

TQ_BEGIN_DECLS

/// Beside each status: the domain and code of its error object, and what TQErrorGetStatus reads back if that differs.
/// Several are lopsided, and clients rely on them as they are.
enum {
    kTQStatusSuccess = 0,            ///< library 1; reads back as 101
    kTQStatusNoErrorCode = 100,      ///< yields no error object
    kTQStatusFailed = 101,           ///< library 1: allocation, conversion, malformed data, any other errno
    kTQStatusLibraryCode7 = 102,     ///< library 7
    kTQStatusFailedAlias = 103,      ///< library 1; reads back as 101
    kTQStatusBadPath = 104,          ///< library 2: not a file URL, too long, or names nothing
    kTQStatusInvalidArgument = 105,  ///< library 3: an invalid or unknown name or argument
    kTQStatusExists = 106,           ///< application 516: the target already exists
    kTQStatusNotSupported = 107,     ///< library 5: operation or volume not supported
    kTQStatusPermissionDenied = 108, ///< library 6
    kTQStatusNoSpace = 109,          ///< application 640: out of space, quota, or attribute space
    kTQStatusInvalidType = 110,      ///< library 9: a value of the wrong type in a dictionary
    kTQStatusReadOnly = 111,         ///< application 642: read-only volume
    kTQStatusNoSuchAttribute = 112,  ///< library 3, as 105; reads back as 105
    kTQStatusLibraryCode10 = 113,    ///< library 10; can't be read back (0)
};

/// The status of a system error number; 101 for every number that has none of its own, 0 included.
TQ_EXPORT int32_t TQGetStatusForErrno(int errorNumber);

/// The status of an error object, by its domain and code alone; what lies underneath is not looked at.
/// For an error that the library does not know, 0, and "SHOULD NOT HAPPEN" in the log at level 3.
TQ_EXPORT int32_t TQErrorGetStatus(const TQError *error);

/// A new error object that the caller releases; null if `description` is not UTF-8 or memory ran out. If only the
/// memory for the description and `underlying` is missing, an error without them.
///
/// @param description  UTF-8; may be null.
/// @param underlying   May be null; retained.
TQ_EXPORT TQError *_TQCreateError(TQString *domain, intptr_t code, const char *description, TQError *underlying);

/// Stores a new error for `status` in `error`, unless that is null; null is stored for a status without an error
/// object. Always false, so that a failing function can end with `return` of this call.
TQ_EXPORT bool _TQCreateErrorForStatus(TQError **error, int32_t status, const char *description, TQError *underlying);

/// The same for a system error number: its status, and underneath an error of the POSIX domain.
TQ_EXPORT bool _TQCreateErrorUseErrno(TQError **error, int errorNumber, const char *description);

/// An error of the library's domain with the code (not a status) `code`. The caller does not own it: it lives until
/// the innermost deferred-release scope ends.
TQ_EXPORT TQError *_TQError(intptr_t code, TQString *description, TQError *underlying);

/// The error of a status, not owned by the caller; null for a status without an error object.
TQ_EXPORT TQError *_TQErrorForStatus(int32_t status, TQString *description, TQError *underlying);

/// The error of a system error number, with a POSIX error underneath; not owned by the caller.
TQ_EXPORT TQError *_TQErrorForErrno(int errorNumber, TQString *description);

TQ_END_DECLS

#endif
