// Where UTF-8 may be cut: between characters.

#pragma once

#include <cstddef>

// The length of a character that begins with `lead`; 0 if none begins with it.
constexpr size_t LengthOfCharacter(unsigned char lead)
{
    if (lead < 0x80) return 1;
    if (lead < 0xc2 || lead >= 0xf5) return 0;
    return lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
}

// How many of `length` bytes are left when a character that is cut short at their end is dropped. Bytes that are not
// UTF-8 are kept.
constexpr size_t LengthOfWholeCharacters(const char *bytes, size_t length)
{
    constexpr size_t kLongest = 4;
    for (size_t back = 1; back < kLongest && back <= length; ++back) {
        const auto byte = static_cast<unsigned char>(bytes[length - back]);
        if ((byte & 0xc0) != 0x80) return LengthOfCharacter(byte) > back ? length - back : length;
    }
    return length;
}
