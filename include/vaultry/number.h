/// @file
/// Numbers and booleans. A boolean counts as 0 or 1 wherever a number is asked for. Immutable; any thread.

#ifndef VAULTRY_NUMBER_H
#define VAULTRY_NUMBER_H

#include <vaultry/value.h>

TQ_BEGIN_DECLS

typedef enum TQNumberKind {
    kTQNumberInt64 = 1,
    kTQNumberUInt64 = 2, ///< only for values that no int64_t holds
    kTQNumberDouble = 3,
} TQNumberKind;

/// The only two booleans. They are never freed, so retaining and releasing them does nothing.
TQ_EXPORT extern TQBoolean *const kTQBooleanTrue;
TQ_EXPORT extern TQBoolean *const kTQBooleanFalse;

TQ_EXPORT TQTypeID TQNumberGetTypeID(void);
TQ_EXPORT TQTypeID TQBooleanGetTypeID(void);

/// Numbers that the caller releases.
TQ_EXPORT TQNumber *TQNumberCreateInt64(int64_t value);
/// Kept as an int64_t if that can hold it.
TQ_EXPORT TQNumber *TQNumberCreateUInt64(uint64_t value);
TQ_EXPORT TQNumber *TQNumberCreateDouble(double value);

/// Whether `value` is a number or a boolean; false for null.
TQ_EXPORT bool TQIsNumber(const TQValue *value);

/// How the number is kept; kTQNumberInt64 for a boolean, and for a value that is not a number.
TQ_EXPORT TQNumberKind TQNumberGetKind(const TQNumber *number);

/// The value of a number or a boolean. A value that the wanted type can't hold becomes the nearest one that it can.
/// Not-a-number becomes 0, and so does a value that is neither a number nor a boolean.
TQ_EXPORT int64_t TQNumberGetInt64(const TQValue *number);
TQ_EXPORT uint64_t TQNumberGetUInt64(const TQValue *number);
TQ_EXPORT double TQNumberGetDouble(const TQValue *number);

/// The truth value of a number (not zero) or a boolean.
TQ_EXPORT bool TQNumberGetTruth(const TQValue *number);

/// kTQBooleanTrue or kTQBooleanFalse; lent, like every value got from a `Get` function.
TQ_EXPORT TQBoolean *TQBooleanGet(bool value);

TQ_END_DECLS

#endif
