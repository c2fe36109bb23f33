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
/// Null is allowed everywhere: it can be retained and released, equals only null, hashes to 0 and has the type 0.
/// Creating functions give null, and changing ones false, when memory runs out; nothing has changed then. A debug build
/// of the library stops the process if it is given a pointer that is not a value, a freed value, or a value of another
/// kind than the function takes. In other builds a value of another kind counts as null.

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

/// Equality by value. Numbers compare by their value (1 and 1.0 are equal), not-a-number equals itself, a boolean never
/// equals a number. Two containers are equal when their members are; two values of different kinds never are.
/// Allocators and progress objects equal only themselves. Different containers that nest more than 1,024 deep count as
/// different; those that hold themselves can be compared.
TQ_EXPORT bool TQEqual(const TQValue *a, const TQValue *b);

/// Equal values have equal hashes in one process; in another one they differ.
TQ_EXPORT uintptr_t TQHash(const TQValue *value);

/// Text about any kind of value, for people and logs: a string is its own text, a container lists its members. The
/// caller owns it. Don't parse it.
TQ_EXPORT TQString *TQCopyDescription(const TQValue *value);

// --- deferred release

/// Hands the caller's reference of `value` to the innermost open scope of this thread, which gives it back when it is
/// popped. If no scope is open, it is given back when the thread ends (the end of the process releases nothing).
/// Returns `value`, or null if there was no memory to note it; then it is released at once.
TQ_EXPORT TQValue *TQDefer(TQValue *value);

/// Opens a scope for this thread. Scopes nest; every push is matched by one pop, on the same thread, with the
/// token it returned. Can't fail.
TQ_EXPORT size_t TQDeferredScopePush(void);

/// Closes the scope `token`, and those opened since that were left open, and releases what was
/// deferred to them, newest first.
TQ_EXPORT void TQDeferredScopePop(size_t token);

// --- allocators

/// Called to get `size` bytes, aligned for any object; null when there are none.
typedef void *(*TQAllocatorAllocateCallback)(size_t size, void *info);
/// Called to change the size of a block; null when that can't be done, with the block unchanged.
typedef void *(*TQAllocatorReallocateCallback)(void *pointer, size_t size, void *info);
/// Called to give a block back, from whichever thread releases last.
typedef void (*TQAllocatorDeallocateCallback)(void *pointer, void *info);
/// Called to learn how many bytes a request for `size` would really get.
typedef size_t (*TQAllocatorPreferredSizeCallback)(size_t size, void *info);

/// How an allocator works. Every callback may be null: its work is then not done, and no memory is given. No callback
/// may throw.
typedef struct TQAllocatorContext {
    int64_t version;                                ///< 0
    void *info;                                     ///< handed to every callback
    const void *(*retain)(const void *info);        ///< returns the `info` to keep; called once, at creation
    void (*release)(const void *info);              ///< called once, with the allocator's last reference
    TQString *(*copyDescription)(const void *info); ///< the caller owns the result
    TQAllocatorAllocateCallback allocate;
    TQAllocatorReallocateCallback reallocate;
    TQAllocatorDeallocateCallback deallocate;
    TQAllocatorPreferredSizeCallback preferredSize;
} TQAllocatorContext;

/// The C heap. Null stands for it wherever an allocator is asked for.
TQ_EXPORT extern TQAllocator *const kTQAllocatorDefault;

/// Gives nothing and takes nothing back: for bytes that outlive the value made over them.
TQ_EXPORT extern TQAllocator *const kTQAllocatorNull;

TQ_EXPORT TQTypeID TQAllocatorGetTypeID(void);

/// @param allocator  Where the allocator object itself comes from; null is the default.
/// @param context    Copied; `info` is retained by the context's own callback, if it has one.
/// @return null for a null context, one of another version, or without memory.
TQ_EXPORT TQAllocator *TQAllocatorCreate(TQAllocator *allocator, const TQAllocatorContext *context);

/// A block of `size` bytes, to be given back to the same allocator. Null for 0 bytes or when there are none.
TQ_EXPORT void *TQAllocatorAllocate(TQAllocator *allocator, size_t size);

/// The block with another size, perhaps elsewhere; null if that can't be done, with the block unchanged. A null
/// `pointer` asks for a new block, and the size 0 gives the block back and returns null.
TQ_EXPORT void *TQAllocatorReallocate(TQAllocator *allocator, void *pointer, size_t size);

/// Gives a block back. For a null `pointer` it does nothing and calls no callback.
TQ_EXPORT void TQAllocatorDeallocate(TQAllocator *allocator, void *pointer);

/// How many bytes a request for `size` would get: `size`, unless the allocator says otherwise.
TQ_EXPORT size_t TQAllocatorGetPreferredSize(TQAllocator *allocator, size_t size);

TQ_END_DECLS

#endif
