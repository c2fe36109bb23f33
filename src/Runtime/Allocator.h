// An allocator object: a context, and what it must give back with its last reference.

#pragma once

#include "Runtime/Object.h"

struct TQAllocator : Object {
    static constexpr Type kType = kTypeAllocator;

    explicit TQAllocator(const TQAllocatorContext &given) noexcept;
    // A constant, which retains nothing.
    constexpr TQAllocator(const Kind *ofKind, const TQAllocatorContext &given) noexcept
        : Object(ofKind, kImmortal), context(given)
    {
    }
    ~TQAllocator() = default;

    TQAllocatorContext context;
};
