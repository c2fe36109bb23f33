// Counted values in tests: owned, and in forms that C++ compares and prints.

#pragma once

#include "Runtime/Ref.h"

#include <vaultry/collections.h>
#include <vaultry/error.h>
#include <vaultry/status.h>
#include <vaultry/string.h>
#include <vaultry/url.h>

#include <algorithm>
#include <string>
#include <vector>

inline std::string Text(const TQString *string)
{
    return string == nullptr ? "(no string)" : std::string(TQStringGetUTF8(string), TQStringGetUTF8Length(string));
}

class OwnedError {
public:
    TQError **out() { return error_.out(); }
    TQError *get() const { return error_.get(); }
    int32_t status() const { return TQErrorGetStatus(get()); }
    std::string description() const { return Text(Ref<TQString>::Adopt(TQErrorCopyDescription(get())).get()); }
    intptr_t underlying() const
    {
        const TQError *below = TQErrorGetUnderlying(get());
        return below != nullptr && TQEqual(TQErrorGetDomain(below), kTQPOSIXErrorDomain) ? TQErrorGetCode(below) : 0;
    }

private:
    Ref<TQError> error_;
};

inline Ref<TQString> String(const std::string &text)
{
    return Ref<TQString>::Adopt(TQStringCreateWithBytes(text.data(), text.size()));
}

inline Ref<TQURL> FileURL(std::string_view path)
{
    return Ref<TQURL>::Adopt(TQURLCreateWithFileSystemPath(path.data(), false));
}

inline Ref<TQArray> Names(const std::vector<std::string> &names)
{
    auto array = Ref<TQArray>::Adopt(TQArrayCreateMutable());
    for (const auto &name : names) TQArrayAppendValue(array.get(), String(name).get());
    return array;
}

// Sorted: a directory yields its names in an order of its own.
inline std::vector<std::string> Texts(const TQArray *array)
{
    std::vector<std::string> texts;
    for (size_t i = 0; i < TQArrayGetCount(array); ++i)
        texts.push_back(Text(static_cast<const TQString *>(TQArrayGetValueAtIndex(array, i))));
    std::sort(texts.begin(), texts.end());
    return texts;
}
