// Allocators: where the memory of a value, or the bytes of a data value, come from and go back to.

#include "Runtime/Allocator.h"
#include "Runtime/NoThrow.h"

#include <vaultry/string.h>

#include <cstdlib>

namespace {

void _DestroyAllocator(Object *object)
{
    const TQAllocatorContext context = static_cast<TQAllocator *>(object)->context;
    if (context.release) context.release(context.info);
}

void _DescribeAllocator(const Object *object, Description &description)
{
    const TQAllocatorContext &context = static_cast<const TQAllocator *>(object)->context;
    TQString *text = context.copyDescription ? context.copyDescription(context.info) : nullptr;
    if (!text) return description.AppendFormat("allocator %p", static_cast<const void *>(object));
    try {
        description.Append(TQStringGetUTF8(text), TQStringGetUTF8Length(text));
    } catch (...) {
        TQRelease(text);
        throw;
    }
    TQRelease(text);
}

constexpr Kind kAllocatorKind = {kTypeAllocator, "allocator",       false, _DestroyAllocator, nullptr,
                                 nullptr,        _DescribeAllocator};

constexpr TQAllocatorContext kHeapContext = {
    .version = 0,
    .info = nullptr,
    .retain = nullptr,
    .release = nullptr,
    .copyDescription = nullptr,
    .allocate = [](size_t size, void *) { return std::malloc(size); },
    .reallocate = [](void *pointer, size_t size, void *) { return std::realloc(pointer, size); },
    .deallocate = [](void *pointer, void *) { std::free(pointer); },
    .preferredSize = nullptr,
};

constinit TQAllocator heapAllocator{&kAllocatorKind, kHeapContext};
constinit TQAllocator nullAllocator{&kAllocatorKind, TQAllocatorContext{}};

const TQAllocatorContext &_ContextOf(TQAllocator *allocator)
{
    const TQAllocator *given = As(allocator);
    return given ? given->context : heapAllocator.context;
}

} // namespace

TQAllocator *const kTQAllocatorDefault = &heapAllocator;
TQAllocator *const kTQAllocatorNull = &nullAllocator;

TQAllocator::TQAllocator(const TQAllocatorContext &given) noexcept : Object(&kAllocatorKind), context(given)
{
    if (context.retain) context.info = const_cast<void *>(context.retain(context.info));
}

TQTypeID TQAllocatorGetTypeID(void)
{
    return kTypeAllocator;
}

TQAllocator *TQAllocatorCreate(TQAllocator *allocator, const TQAllocatorContext *context)
{
    if (!context || context->version != 0) return nullptr;
    return MakeObject<TQAllocator>(As(allocator), 0, *context);
}

void *TQAllocatorAllocate(TQAllocator *allocator, size_t size)
{
    const TQAllocatorContext &context = _ContextOf(allocator);
    return context.allocate && size > 0 ? context.allocate(size, context.info) : nullptr;
}

void *TQAllocatorReallocate(TQAllocator *allocator, void *pointer, size_t size)
{
    if (!pointer) return TQAllocatorAllocate(allocator, size);
    const TQAllocatorContext &context = _ContextOf(allocator);
    if (size == 0) {
        TQAllocatorDeallocate(allocator, pointer);
        return nullptr;
    }
    return context.reallocate ? context.reallocate(pointer, size, context.info) : nullptr;
}

void TQAllocatorDeallocate(TQAllocator *allocator, void *pointer)
{
    const TQAllocatorContext &context = _ContextOf(allocator);
    if (pointer && context.deallocate) context.deallocate(pointer, context.info);
}

size_t TQAllocatorGetPreferredSize(TQAllocator *allocator, size_t size)
{
    const TQAllocatorContext &context = _ContextOf(allocator);
    return context.preferredSize ? context.preferredSize(size, context.info) : size;
}
