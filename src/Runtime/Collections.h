// Arrays, dictionaries and sets.

#pragma once

#include "Runtime/OrderedTable.h"

#include <vaultry/collections.h>

#include <vector>

struct TQArray : Object {
    static constexpr Type kType = kTypeArray;

    TQArray() noexcept;
    ~TQArray();

    std::vector<TQValue *> values; // retained
};

struct TQDictionary : Object {
    static constexpr Type kType = kTypeDictionary;

    TQDictionary() noexcept;
    ~TQDictionary() = default;

    OrderedTable table;
};

struct TQSet : Object {
    static constexpr Type kType = kTypeSet;

    TQSet() noexcept;
    ~TQSet() = default;

    OrderedTable table;
};

// A container to be filled, which is mutable until its maker says otherwise; null if there is no memory.
template <class Container> Container *MakeContainer()
{
    auto *container = MakeObject<Container>(nullptr, 0);
    if (container) container->isMutable = true;
    return container;
}

// Whether a client may change it.
template <class Container> bool IsMutable(const Container *container)
{
    const Container *given = As(container);
    return given && given->isMutable;
}
