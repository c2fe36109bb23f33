// What stands in a dictionary of the library, by key.

#pragma once

#include "owned.h"

#include <vaultry/collections.h>
#include <vaultry/data.h>

#include <string>
#include <string_view>

// Null if there is none.
inline const TQValue *EntryOf(const TQDictionary *dictionary, const std::string &key)
{
    return TQDictionaryGetValue(dictionary, MakeString(key).get());
}

// "" if there is none, or another kind of value.
inline std::string TextOf(const TQDictionary *dictionary, const std::string &key)
{
    const TQValue *value = EntryOf(dictionary, key);
    return TQGetTypeID(value) == TQStringGetTypeID() ? ToText(static_cast<const TQString *>(value)) : std::string();
}

// Lent by the dictionary; empty if there is none, or another kind of value.
inline std::string_view BytesOf(const TQDictionary *dictionary, const std::string &key)
{
    const TQValue *value = EntryOf(dictionary, key);
    if (TQGetTypeID(value) != TQDataGetTypeID()) return {};
    const auto *data = static_cast<const TQData *>(value);
    return {static_cast<const char *>(TQDataGetBytes(data)), TQDataGetLength(data)};
}
