// Copies of property lists whose containers, on every level, can be changed.

#pragma once

#include "Runtime/Object.h"
#include "Runtime/Ref.h"

#include <new>

namespace plist {

// A value, or the end of all work for want of memory.
template <class T> Ref<T> Made(T *value)
{
    if (!value) throw std::bad_alloc();
    return Ref<T>::Adopt(value);
}

// What is no container is shared. Throws std::bad_alloc.
Ref<TQValue> CopyMutable(TQValue *value);

} // namespace plist
