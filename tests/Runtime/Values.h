// Values for tests, owned, in few words.

#pragma once

#include "Runtime/Ref.h"

#include <vaultry/collections.h>
#include <vaultry/data.h>
#include <vaultry/error.h>
#include <vaultry/number.h>
#include <vaultry/string.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Value = Ref<TQValue>;

template <class T> Value Own(T *value)
{
    return Value::Adopt(value);
}
inline Value Text(std::string_view text)
{
    return Own(TQStringCreateWithBytes(text.data(), text.size()));
}
template <class T> Value Number(T value)
{
    if constexpr (std::is_floating_point_v<T>)
        return Own(TQNumberCreateDouble(value));
    else if constexpr (std::is_signed_v<T>)
        return Own(TQNumberCreateInt64(value));
    else
        return Own(TQNumberCreateUInt64(value));
}
inline Value Truth(bool value)
{
    return Value::Retain(TQBooleanGet(value));
}
inline Value Bytes(std::string_view bytes)
{
    return Own(TQDataCreate(bytes.data(), bytes.size()));
}
inline Value Date(double seconds)
{
    return Own(TQDateCreate(seconds));
}

inline Value Array(const std::vector<Value> &members)
{
    std::vector<TQValue *> values;
    for (const Value &member : members) values.push_back(member.get());
    return Own(TQArrayCreate(values.data(), values.size()));
}

inline Value Dictionary(const std::vector<std::pair<Value, Value>> &pairs)
{
    std::vector<TQValue *> keys, values;
    for (const auto &[key, value] : pairs) {
        keys.push_back(key.get());
        values.push_back(value.get());
    }
    return Own(TQDictionaryCreate(keys.data(), values.data(), keys.size()));
}

// `depth` arrays, each in the next.
inline Value Nested(size_t depth)
{
    Value nested = Array({});
    while (--depth > 0) nested = Array({nested});
    return nested;
}

inline std::string UTF8(const Value &string)
{
    const auto *text = static_cast<const TQString *>(string.get());
    return text ? std::string(TQStringGetUTF8(text), TQStringGetUTF8Length(text)) : "(no string)";
}

inline std::string Describe(const TQValue *value)
{
    return UTF8(Own(TQCopyDescription(value)));
}
