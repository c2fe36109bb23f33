#include "Runtime/Collections.h"
#include "Runtime/NoThrow.h"
#include "Runtime/Ref.h"

namespace {

bool _EqualDictionaries(const Object *a, const Object *b, const Comparison *comparison)
{
    return static_cast<const TQDictionary *>(a)->table.EqualTo(static_cast<const TQDictionary *>(b)->table, comparison);
}

uintptr_t _HashDictionary(const Object *object, size_t budget)
{
    return static_cast<const TQDictionary *>(object)->table.Hash(kTypeDictionary, budget);
}

void _DescribeDictionary(const Object *object, Description &description)
{
    const char *separator = "{";
    static_cast<const TQDictionary *>(object)->table.Every([&](const OrderedTable::Entry &entry) {
        description.Append(separator);
        description.AppendMember(entry.key);
        description.Append(": ");
        description.AppendMember(entry.value);
        separator = ", ";
        return true;
    });
    description.Append(separator[0] == '{' ? "{}" : "}");
}

constexpr Kind kDictionaryKind = {kTypeDictionary, "dictionary",       true, Destroy<TQDictionary>, _EqualDictionaries,
                                  _HashDictionary, _DescribeDictionary};

TQDictionary *_Copy(const TQDictionary *dictionary, bool isMutable)
{
    auto copy = Ref<TQDictionary>::Adopt(MakeContainer<TQDictionary>());
    if (!copy) return nullptr;
    return NoThrow<TQDictionary *>(nullptr, [&] {
        OrderedTable &table = copy.get()->table;
        table.Reserve(dictionary->table.count());
        dictionary->table.Every([&](const OrderedTable::Entry &entry) {
            table.Set(entry.key, entry.value);
            return true;
        });
        copy.get()->isMutable = isMutable;
        return copy.Detach();
    });
}

} // namespace

TQDictionary::TQDictionary() noexcept : Object(&kDictionaryKind) {}

TQTypeID TQDictionaryGetTypeID(void)
{
    return kTypeDictionary;
}

TQDictionary *TQDictionaryCreate(TQValue *const *keys, TQValue *const *values, size_t count)
{
    if ((!keys || !values) && count > 0) return nullptr;
    auto dictionary = Ref<TQDictionary>::Adopt(MakeContainer<TQDictionary>());
    for (size_t i = 0; i < count; ++i)
        if (!TQDictionarySetValue(dictionary.get(), keys[i], values[i])) return nullptr;
    if (dictionary) dictionary.get()->isMutable = false;
    return dictionary.Detach();
}

TQDictionary *TQDictionaryCreateCopy(const TQDictionary *dictionary)
{
    const TQDictionary *given = As(dictionary);
    if (!given) return nullptr;
    if (!given->isMutable) return static_cast<TQDictionary *>(TQRetain(const_cast<TQDictionary *>(given)));
    return _Copy(given, /*isMutable=*/false);
}

TQDictionary *TQDictionaryCreateMutable(void)
{
    return MakeContainer<TQDictionary>();
}

TQDictionary *TQDictionaryCreateMutableCopy(const TQDictionary *dictionary)
{
    const TQDictionary *given = As(dictionary);
    return given ? _Copy(given, /*isMutable=*/true) : nullptr;
}

size_t TQDictionaryGetCount(const TQDictionary *dictionary)
{
    const TQDictionary *given = As(dictionary);
    return given ? given->table.count() : 0;
}

TQValue *TQDictionaryGetValue(const TQDictionary *dictionary, const TQValue *key)
{
    const TQDictionary *given = As(dictionary);
    const OrderedTable::Entry *entry = given ? given->table.Find(key) : nullptr;
    return entry ? entry->value : nullptr;
}

void TQDictionaryGetKeysAndValues(const TQDictionary *dictionary, TQValue **keys, TQValue **values)
{
    const TQDictionary *given = As(dictionary);
    if (!given) return;
    given->table.Every([&](const OrderedTable::Entry &entry) {
        if (keys) *keys++ = entry.key;
        if (values) *values++ = entry.value;
        return true;
    });
}

bool TQDictionarySetValue(TQDictionary *dictionary, TQValue *key, TQValue *value)
{
    if (!IsMutable(dictionary) || !key || !value) return false;
    return NoThrow(false, [&] {
        dictionary->table.Set(key, value);
        return true;
    });
}

bool TQDictionaryRemoveValue(TQDictionary *dictionary, const TQValue *key)
{
    return IsMutable(dictionary) && dictionary->table.Remove(key);
}
