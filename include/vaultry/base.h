/// @file
/// The basis of every other header: visibility, linkage, and the names of the counted kinds.

#ifndef VAULTRY_BASE_H
#define VAULTRY_BASE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define TQ_BEGIN_DECLS extern "C" {
#define TQ_END_DECLS }
#else
#define TQ_BEGIN_DECLS
#define TQ_END_DECLS
#endif

#define TQ_EXPORT __attribute__((visibility("default")))

/// Any counted value. Every `TQString *`, `TQArray *` and so on passes for one without a cast.
typedef void TQValue;

/// Tells the kinds of counted values apart; see TQGetTypeID. 0 stands for none.
typedef uintptr_t TQTypeID;

typedef struct TQString TQString;
typedef struct TQURL TQURL;
typedef struct TQNumber TQNumber;
typedef struct TQBoolean TQBoolean;
typedef struct TQData TQData;
typedef struct TQDate TQDate;
typedef struct TQArray TQArray;
typedef struct TQDictionary TQDictionary;
typedef struct TQSet TQSet;
typedef struct TQError TQError;
typedef struct TQAllocator TQAllocator;
typedef struct TQProgress TQProgress;

#endif
