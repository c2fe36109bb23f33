#include "Runtime/ByteHash.h"
#include "Runtime/Collections.h"
#include "Runtime/NoThrow.h"
#include "Runtime/Ref.h"

#include <algorithm>

namespace {

bool _EqualArrays(const Object *a, const Object *b, const Comparison *comparison)
{
    const auto &first = static_cast<const TQArray *>(a)->values;
    const auto &second = static_cast<const TQArray *>(b)->values;
    return std::equal(first.begin(), first.end(), second.begin(), second.end(),
                      [&](const TQValue *x, const TQValue *y) { return EqualMembers(x, y, comparison); });
}

uintptr_t _HashArray(const Object *object, size_t budget)
{
    const auto &values = static_cast<const TQArray *>(object)->values;
    const size_t seen = std::min(values.size(), budget);
    const auto sharers = std::count_if(values.begin(), values.begin() + static_cast<ptrdiff_t>(seen), TakesShare);
    const size_t share = ShareOfBudget(budget, values.size(), static_cast<size_t>(sharers));
    uintptr_t hash = HashInteger(kTypeArray + values.size());
    for (size_t i = 0; i < seen; ++i) hash = hash * 31 + HashMember(values[i], share);
    return hash;
}

void _DescribeArray(const Object *object, Description &description)
{
    const char *separator = "[";
    for (const TQValue *value : static_cast<const TQArray *>(object)->values) {
        description.Append(separator);
        description.AppendMember(value);
        separator = ", ";
    }
    description.Append(separator[0] == '[' ? "[]" : "]");
}

constexpr Kind kArrayKind = {kTypeArray, "array", true, Destroy<TQArray>, _EqualArrays, _HashArray, _DescribeArray};

} // namespace

TQArray::TQArray() noexcept : Object(&kArrayKind) {}

TQArray::~TQArray()
{
    for (TQValue *value : values) TQRelease(value);
}

TQTypeID TQArrayGetTypeID(void)
{
    return kTypeArray;
}

TQArray *TQArrayCreate(TQValue *const *values, size_t count)
{
    if (!values && count > 0) return nullptr;
    if (std::find(values, values + count, nullptr) != values + count) return nullptr;
    auto array = Ref<TQArray>::Adopt(MakeContainer<TQArray>());
    if (!array) return nullptr;
    return NoThrow<TQArray *>(nullptr, [&] {
        array.get()->values.assign(values, values + count);
        for (TQValue *value : array.get()->values) TQRetain(value);
        array.get()->isMutable = false;
        return array.Detach();
    });
}

TQArray *TQArrayCreateCopy(const TQArray *array)
{
    const TQArray *given = As(array);
    if (!given) return nullptr;
    if (!given->isMutable) return static_cast<TQArray *>(TQRetain(const_cast<TQArray *>(given)));
    return TQArrayCreate(given->values.data(), given->values.size());
}

TQArray *TQArrayCreateMutable(void)
{
    return MakeContainer<TQArray>();
}

size_t TQArrayGetCount(const TQArray *array)
{
    const TQArray *given = As(array);
    return given ? given->values.size() : 0;
}

TQValue *TQArrayGetValueAtIndex(const TQArray *array, size_t index)
{
    return index < TQArrayGetCount(array) ? array->values[index] : nullptr;
}

bool TQArrayContainsValue(const TQArray *array, const TQValue *value)
{
    const TQArray *given = As(array);
    return given && value && std::any_of(given->values.begin(), given->values.end(), [&](const TQValue *member) {
               return TQEqual(member, value);
           });
}

bool TQArrayAppendValue(TQArray *array, TQValue *value)
{
    if (!IsMutable(array) || !value) return false;
    return NoThrow(false, [&] {
        array->values.push_back(value);
        TQRetain(value);
        return true;
    });
}
