// Values for tests, owned, in few words.

#pragma once

#include "support/Library.h"

#include <vaultry/data.h>
#include <vaultry/number.h>

#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Value = Ref<TQValue>;

// Hands a value to a call as the kind that the call takes.
struct Cast {
    const Value &value;
    template <class T> operator T *() const { return static_cast<T *>(value.get()); }
};

inline constexpr auto Own = [](auto *value) { return Value::Adopt(value); };
inline constexpr auto Truth = [](bool value) { return Value::Retain(TQBooleanGet(value)); };
inline constexpr auto Bytes = [](std::string_view bytes) { return Own(TQDataCreate(bytes.data(), bytes.size())); };
inline constexpr auto Date = [](double seconds) { return Own(TQDateCreate(seconds)); };

inline Value Text(std::string_view text) // support/Library.h uses this name to read a string
{
    return Own(TQStringCreateWithBytes(text.data(), text.size()));
}

template <class T> Value Number(T value)
{
    if constexpr (std::is_floating_point_v<T>) return Own(TQNumberCreateDouble(value));
    return Own(std::is_signed_v<T> ? TQNumberCreateInt64(static_cast<int64_t>(value))
                                   : TQNumberCreateUInt64(static_cast<uint64_t>(value)));
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

inline constexpr auto Describe = [](const TQValue *value) { return Text(Cast{Own(TQCopyDescription(value))}); };

inline std::string released; // the names of released values, in order

// A value that records its release.
inline TQValue *Noted(const char *name)
{
    TQAllocatorContext context{};
    context.deallocate = [](void *noted, void *) { released += static_cast<char *>(noted); };
    static TQAllocator *const notes = TQAllocatorCreate(nullptr, &context);
    return TQDataCreateNoCopy(nullptr, const_cast<char *>(name), 1, notes);
}
