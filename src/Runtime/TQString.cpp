// Strings: made from bytes that are checked once, and read back as UTF-8 or UTF-16 units.

#include "Runtime/ByteHash.h"
#include "Runtime/String.h"
#include "Runtime/UTF8.h"

#include <algorithm>
#include <cstring>

namespace {

bool _EqualStrings(const Object *a, const Object *b, const Comparison *)
{
    return static_cast<const TQString *>(a)->view() == static_cast<const TQString *>(b)->view();
}

uintptr_t _HashString(const Object *object, size_t)
{
    const auto *string = static_cast<const TQString *>(object);
    // Threads that race to fill it all store the same hash.
    uintptr_t hash = string->hash.load(std::memory_order_relaxed);
    if (hash == 0) {
        hash = HashBytes(string->bytes, string->length);
        string->hash.store(hash, std::memory_order_relaxed);
    }
    return hash;
}

void _DescribeString(const Object *object, Description &description)
{
    description.Append(static_cast<const TQString *>(object)->view());
}

} // namespace

constexpr Kind kStringKind = {kTypeString, "string", false, nullptr, _EqualStrings, _HashString, _DescribeString};

TQString::TQString(size_t ofLength, size_t ofUnits) noexcept
    : Object(&kStringKind), bytes(reinterpret_cast<char *>(this + 1)), length(ofLength), units(ofUnits)
{
}

TQTypeID TQStringGetTypeID(void)
{
    return kTypeString;
}

TQString *TQStringCreate(const char *utf8)
{
    return utf8 ? TQStringCreateWithBytes(utf8, std::strlen(utf8)) : nullptr;
}

TQString *TQStringCreateWithBytes(const void *bytes, size_t length)
{
    if (!bytes && length > 0) return nullptr;
    if (length == SIZE_MAX) return nullptr; // no room for the zero behind it
    const std::optional<size_t> units = UTF16LengthOfUTF8(bytes, length);
    if (!units) return nullptr;
    TQString *string = MakeObject<TQString>(nullptr, length + 1, length, *units);
    if (!string) return nullptr;
    char *text = reinterpret_cast<char *>(string + 1);
    if (length > 0) std::memcpy(text, bytes, length);
    text[length] = '\0';
    return string;
}

TQString *TQStringCreateWithFileSystemRepresentation(const char *path)
{
    return TQStringCreate(path);
}

size_t TQStringGetLength(const TQString *string)
{
    const TQString *text = As(string);
    return text ? text->units : 0;
}

uint16_t TQStringGetCharacterAtIndex(const TQString *string, size_t index)
{
    const TQString *text = As(string);
    if (!text || index >= text->units) return 0;
    if (text->isASCII()) return static_cast<unsigned char>(text->bytes[index]);

    const char *at = text->bytes;
    for (size_t unit = 0;;) {
        const char32_t character = NextCharacter(at);
        const size_t count = character >= 0x10000 ? 2 : 1;
        if (index >= unit + count) {
            unit += count;
            continue;
        }
        if (count == 1) return static_cast<uint16_t>(character);
        const char32_t pair = character - 0x10000;
        return static_cast<uint16_t>(index == unit ? 0xd800 + (pair >> 10) : 0xdc00 + (pair & 0x3ff));
    }
}

const char *TQStringGetUTF8(const TQString *string)
{
    const TQString *text = As(string);
    return text ? text->bytes : nullptr;
}

size_t TQStringGetUTF8Length(const TQString *string)
{
    const TQString *text = As(string);
    return text ? text->length : 0;
}

bool TQStringGetFileSystemRepresentation(const TQString *string, char *buffer, size_t capacity)
{
    const TQString *text = As(string);
    if (!text || !buffer || text->length >= capacity) return false;
    if (std::memchr(text->bytes, '\0', text->length)) return false;
    std::memcpy(buffer, text->bytes, text->length + 1);
    return true;
}
