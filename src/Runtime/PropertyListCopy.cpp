#include "Runtime/PropertyListCopy.h"

#include "Runtime/Collections.h"

namespace plist {

Ref<TQValue> CopyMutable(TQValue *value)
{
    if (IsKind(value, kTypeArray)) {
        auto copy = Made(TQArrayCreateMutable());
        auto &members = copy.get()->values;
        members.reserve(static_cast<TQArray *>(value)->values.size());
        for (TQValue *member : static_cast<TQArray *>(value)->values) members.push_back(CopyMutable(member).Detach());
        return Ref<TQValue>::Adopt(copy.Detach());
    }
    if (IsKind(value, kTypeDictionary)) {
        auto copy = Made(TQDictionaryCreateMutable());
        copy.get()->table.Reserve(static_cast<TQDictionary *>(value)->table.count());
        static_cast<TQDictionary *>(value)->table.Every([&](const OrderedTable::Entry &entry) {
            copy.get()->table.Set(entry.key, CopyMutable(entry.value).get());
            return true;
        });
        return Ref<TQValue>::Adopt(copy.Detach());
    }
    return Ref<TQValue>::Retain(value);
}

} // namespace plist
