// Copies of property lists whose containers, on every level, can be changed.

#pragma once

#include "Runtime/Object.h"
#include "Runtime/Ref.h"

#include <new>

namespace plist {

// Takes over a new value. Throws std::bad_alloc if it could not be made.
template <class T> Ref<T> Made(T *value)
{
    if (!value) throw std::bad_alloc();
    return Ref<T>::Adopt(value);
}

// Members that are not containers are shared. Throws std::bad_alloc.
Ref<TQValue> CopyMutable(TQValue *value);

} // namespace plist
