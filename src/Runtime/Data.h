// Data: its bytes follow the object, or were taken over with the allocator that frees them.

#pragma once

#include "Runtime/Object.h"

#include <vaultry/data.h>

struct TQData : Object {
    static constexpr Type kType = kTypeData;

    explicit TQData(size_t ofLength) noexcept;                                    // bytes behind the object
    TQData(void *taken, size_t ofLength, TQAllocator *bytesDeallocator) noexcept; // retains the allocator
    ~TQData();

    void *bytes;
    size_t length;
    TQAllocator *deallocator; // null: the bytes are the object's own
};

// Bytes that the caller fills before anybody else sees the value; null if there is no memory.
TQData *MakeData(size_t length);
