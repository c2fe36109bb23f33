// A string: valid UTF-8 with a zero behind it, in the memory of the object itself or, for a constant, of the program.

#pragma once

#include "Runtime/Object.h"

#include <vaultry/string.h>

#include <string_view>

struct TQString : Object {
    static constexpr Type kType = kTypeString;

    TQString(size_t ofLength, size_t ofUnits) noexcept;
    // A constant, in ASCII.
    constexpr TQString(const Kind *ofKind, std::string_view text) noexcept
        : Object(ofKind, kImmortal), bytes(text.data()), length(text.size()), units(text.size())
    {
    }
    ~TQString() = default;

    std::string_view view() const { return {bytes, length}; }
    bool isASCII() const { return units == length; }

    const char *bytes;
    size_t length; // bytes
    size_t units;  // of UTF-16
    mutable std::atomic<uintptr_t> hash{0};
};

extern const Kind kStringKind;

inline TQString *MakeString(std::string_view text)
{
    return TQStringCreateWithBytes(text.data(), text.size());
}
