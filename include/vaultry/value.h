/// @file
/// What all counted values share: references, comparison, description, deferred release,
/// and the allocators that the memory of a value can come from.
///
/// A function whose name contains `Create` or `Copy` gives the caller a reference, to be given
/// back with TQRelease; one whose name contains `Get` lends a value that lives as long as the
/// value it was got from. Counts are atomic: any thread may retain and release any value. A value
/// without a mutable form never changes, so any thread may read it; a mutable array, dictionary
/// or set belongs to one thread at a time.
///
/// A null value is nothing everywhere: it can be retained and released, equals only null, hashes
/// to 0 and has the type 0. Creating functions give null when memory runs out.

#ifndef VAULTRY_VALUE_H
#define VAULTRY_VALUE_H

#include <vaultry/base.h>

TQ_BEGIN_DECLS

/// Adds a reference and gives `value` back.
TQ_EXPORT TQValue *TQRetain(TQValue *value);

/// Gives a reference back; the last one frees the value.
TQ_EXPORT void TQRelease(TQValue *value);

/// The kind of `value`, to be compared with `TQStringGetTypeID()` and its siblings.
TQ_EXPORT TQTypeID TQGetTypeID(const TQValue *value);

/// Equality by value. Numbers compare by what they stand for, a boolean never equals a number.
/// Two containers are equal when their members are; two values of other kinds never are.
TQ_EXPORT bool TQEqual(const TQValue *a, const TQValue *b);

/// Equal values have equal hashes.
TQ_EXPORT uintptr_t TQHash(const TQValue *value);

/// Text for people and logs, of any kind: a string is itself, a container lists its members.
TQ_EXPORT TQString *TQCopyDescription(const TQValue *value);

// --- deferred release

/// Hands the caller's reference of `value` to the innermost open scope of this thread, which
/// gives it back when it is popped; with no scope open, when the thread ends. Returns `value`.
TQ_EXPORT TQValue *TQDefer(TQValue *value);

/// Opens a scope for this thread. Scopes nest; every push is matched by one pop with its token.
TQ_EXPORT size_t TQDeferredScopePush(void);

/// Closes the scope `token`, and those opened since that were left open, and releases what was
/// deferred to them, newest first.
TQ_EXPORT void TQDeferredScopePop(size_t token);

// --- allocators

/// Called to get `size` bytes; null when there are none.
typedef void *(*TQAllocatorAllocateCallback)(size_t size, void *info);
/// Called to change the size of a block; null when that can't be done, with the block unchanged.
typedef void *(*TQAllocatorReallocateCallback)(void *pointer, size_t size, void *info);
/// Called to give a block back.
typedef void (*TQAllocatorDeallocateCallback)(void *pointer, void *info);
/// Called to learn how many bytes a request for `size` would really get.
typedef size_t (*TQAllocatorPreferredSizeCallback)(size_t size, void *info);

/// How an allocator works. Every callback may be null, and `version` is 0.
typedef struct TQAllocatorContext {
    int64_t version;
    void *info;
    const void *(*retain)(const void *info);
    void (*release)(const void *info);
    TQString *(*copyDescription)(const void *info);
    TQAllocatorAllocateCallback allocate;
    TQAllocatorReallocateCallback reallocate;
    TQAllocatorDeallocateCallback deallocate;
    TQAllocatorPreferredSizeCallback preferredSize;
} TQAllocatorContext;

/// Takes and gives memory from and to the C heap; what null stands for wherever an allocator is asked for.
TQ_EXPORT extern TQAllocator *const kTQAllocatorDefault;

/// Gives nothing and takes nothing back: for bytes that outlive the value made over them.
TQ_EXPORT extern TQAllocator *const kTQAllocatorNull;

TQ_EXPORT TQTypeID TQAllocatorGetTypeID(void);

/// @param allocator  Where the allocator object itself comes from; null is the default.
/// @param context    Copied; `info` is retained by the context's own callback, if it has one.
TQ_EXPORT TQAllocator *TQAllocatorCreate(TQAllocator *allocator, const TQAllocatorContext *context);
TQ_EXPORT void *TQAllocatorAllocate(TQAllocator *allocator, size_t size);
TQ_EXPORT void *TQAllocatorReallocate(TQAllocator *allocator, void *pointer, size_t size);
TQ_EXPORT void TQAllocatorDeallocate(TQAllocator *allocator, void *pointer);
TQ_EXPORT size_t TQAllocatorGetPreferredSize(TQAllocator *allocator, size_t size);

TQ_END_DECLS

#endif
