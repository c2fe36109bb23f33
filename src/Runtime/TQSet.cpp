#include "Runtime/Collections.h"
#include "Runtime/NoThrow.h"
#include "Runtime/Ref.h"

namespace {

bool _EqualSets(const Object *a, const Object *b, const Comparison *comparison)
{
    return static_cast<const TQSet *>(a)->table.EqualTo(static_cast<const TQSet *>(b)->table, comparison);
}

uintptr_t _HashSet(const Object *object, size_t budget)
{
    return static_cast<const TQSet *>(object)->table.Hash(kTypeSet, budget);
}

void _DescribeSet(const Object *object, Description &description)
{
    const char *separator = "(";
    static_cast<const TQSet *>(object)->table.Every([&](const OrderedTable::Entry &entry) {
        description.Append(separator);
        description.AppendMember(entry.key);
        separator = ", ";
        return true;
    });
    description.Append(separator[0] == '(' ? "()" : ")");
}

constexpr Kind kSetKind = {kTypeSet, "set", true, Destroy<TQSet>, _EqualSets, _HashSet, _DescribeSet};

} // namespace

TQSet::TQSet() noexcept : Object(&kSetKind) {}

TQTypeID TQSetGetTypeID(void)
{
    return kTypeSet;
}

TQSet *TQSetCreate(TQValue *const *values, size_t count)
{
    if (!values && count > 0) return nullptr;
    auto set = Ref<TQSet>::Adopt(MakeContainer<TQSet>());
    for (size_t i = 0; i < count; ++i)
        if (!TQSetAddValue(set.get(), values[i])) return nullptr;
    if (set) set.get()->isMutable = false;
    return set.Detach();
}

TQSet *TQSetCreateMutable(void)
{
    return MakeContainer<TQSet>();
}

size_t TQSetGetCount(const TQSet *set)
{
    const TQSet *given = As(set);
    return given ? given->table.count() : 0;
}

bool TQSetContainsValue(const TQSet *set, const TQValue *value)
{
    const TQSet *given = As(set);
    return given && given->table.Find(value);
}

void TQSetGetValues(const TQSet *set, TQValue **values)
{
    const TQSet *given = As(set);
    if (!given || !values) return;
    given->table.Every([&](const OrderedTable::Entry &entry) {
        *values++ = entry.key;
        return true;
    });
}

bool TQSetAddValue(TQSet *set, TQValue *value)
{
    if (!IsMutable(set) || !value) return false;
    return NoThrow(false, [&] {
        set->table.Set(value, nullptr);
        return true;
    });
}

bool TQSetRemoveValue(TQSet *set, const TQValue *value)
{
    return IsMutable(set) && set->table.Remove(value);
}

void TQSetApply(const TQSet *set, void (*callback)(TQValue *value, void *context), void *context)
{
    const TQSet *given = As(set);
    if (!given || !callback) return;
    given->table.Every([&](const OrderedTable::Entry &entry) {
        callback(entry.key, context);
        return true;
    });
}
