// References, comparison, hashes and descriptions of values of every kind.

#include "Runtime/NoThrow.h"
#include "Runtime/Object.h"

#include <vaultry/string.h>

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

// --- references

void *AllocateObject(TQAllocator *allocator, size_t size)
{
    return allocator ? TQAllocatorAllocate(allocator, size) : std::malloc(size);
}

namespace {

// The values of this thread whose last reference is gone while another value is being destroyed. They wait here,
// linked through their counts, instead of on the stack: a list of a million nested arrays is released in a loop.
thread_local Object *waiting = nullptr;
thread_local bool destroying = false;

void _DestroyOne(Object *object)
{
    TQAllocator *allocator = object->allocator;
    if (object->kind->destroy) object->kind->destroy(object);
#ifndef NDEBUG
    *static_cast<volatile uint32_t *>(&object->magic) = Object::kFreedMagic;
#endif
    if (!allocator) return std::free(object);
    TQAllocatorDeallocate(allocator, object);
    TQRelease(allocator);
}

void _DestroyWithMembers(Object *object)
{
    object->references.store(std::bit_cast<uintptr_t>(waiting), std::memory_order_relaxed);
    waiting = object;
    if (destroying) return;

    destroying = true;
    while (Object *next = waiting) {
        waiting = std::bit_cast<Object *>(next->references.load(std::memory_order_relaxed));
        _DestroyOne(next);
    }
    destroying = false;
}

} // namespace

TQValue *TQRetain(TQValue *value)
{
    auto *object = const_cast<Object *>(AsObject(value));
    // An immortal value's count is never written, so that constants of different threads share no cache line.
    if (object && object->references.load(std::memory_order_relaxed) != Object::kImmortal)
        object->references.fetch_add(1, std::memory_order_relaxed);
    return value;
}

void TQRelease(TQValue *value)
{
    auto *object = const_cast<Object *>(AsObject(value));
    if (!object || object->references.load(std::memory_order_relaxed) == Object::kImmortal) return;
    // What other owners did to the value happens before its destruction.
    if (object->references.fetch_sub(1, std::memory_order_acq_rel) == 1) _DestroyWithMembers(object);
}

TQTypeID TQGetTypeID(const TQValue *value)
{
    return value ? static_cast<TQTypeID>(AsObject(value)->kind->type) : 0;
}

// --- comparing

static bool IsShared(const Object *object)
{
    return object->references.load(std::memory_order_relaxed) > 1;
}

void KnownEqual::Add(const Object *a, const Object *b)
{
    if (isStopped_) return;
    (void)NoThrow(false, [&] { return pairs_.insert({a, b}).second; }); // without memory it is compared again
}

bool EqualMembers(const TQValue *a, const TQValue *b, const Comparison *outer)
{
    if (a == b) return true;
    if (!a || !b) return false;
    const Object *first = AsObject(a);
    const Object *second = AsObject(b);
    if (first->kind != second->kind || !first->kind->equal) return false;
    if (!first->kind->container) return first->kind->equal(first, second, outer);

    if (outer && outer->depth >= kMaximumNesting) return false;
    // Containers that hold themselves are equal unless a difference is found elsewhere.
    for (const Comparison *pair = outer; pair; pair = pair->outer)
        if (pair->a == first && pair->b == second) return outer->known->Stop(), true;
    if (outer && outer->known->Holds(first, second)) return true;
    KnownEqual known;
    const Comparison here{first, second, outer, outer ? outer->depth + 1 : 1, outer ? outer->known : &known};
    if (!first->kind->equal(first, second, &here)) return false;
    if (outer && IsShared(first) && IsShared(second)) outer->known->Add(first, second);
    return true;
}

bool TQEqual(const TQValue *a, const TQValue *b)
{
    return EqualMembers(a, b, nullptr);
}

uintptr_t TQHash(const TQValue *value)
{
    return HashMember(value, kWholeValue);
}

uintptr_t HashMember(const TQValue *value, size_t budget)
{
    if (!value) return 0;
    const Object *object = AsObject(value);
    return object->kind->hash ? object->kind->hash(object, budget) : reinterpret_cast<uintptr_t>(object);
}

// --- describing

void Description::AppendFormat(const char *format, ...)
{
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    if (length > 0) text_.append(buffer, std::min(static_cast<size_t>(length), sizeof buffer - 1));
}

void Description::AppendValue(const Object *object)
{
    if (!object->kind->container) return object->kind->describe(object, *this);

    const size_t depth = innermost_ ? innermost_->depth + 1 : 1;
    bool follow = depth <= kMaximumNesting && text_.size() < kMaximumLength;
    for (const Frame *frame = innermost_; frame && follow; frame = frame->outer) follow = frame->object != object;
    if (!follow) return Append("…");

    const Frame here{object, innermost_, depth};
    innermost_ = &here;
    object->kind->describe(object, *this);
    innermost_ = here.outer;
}

void Description::AppendMember(const TQValue *value)
{
    const Object *object = AsObject(value);
    if (object->kind->type != kTypeString) return AppendValue(object);
    Append("\"");
    AppendValue(object);
    Append("\"");
}

TQString *TQCopyDescription(const TQValue *value)
{
    if (!value) return nullptr;
    if (IsKind(value, kTypeString)) return static_cast<TQString *>(TQRetain(const_cast<TQValue *>(value)));
    return NoThrow<TQString *>(nullptr, [&] {
        Description description;
        description.AppendValue(AsObject(value));
        return TQStringCreateWithBytes(description.text().data(), description.text().size());
    });
}
